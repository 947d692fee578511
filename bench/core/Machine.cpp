// SPDX-License-Identifier: Apache-2.0
// See Machine.h.
#include "core/Machine.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <sched.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace Bench {

namespace fs = std::filesystem;

namespace {

std::string firstLineWith(char const* file, std::string const& start) {
   std::ifstream in(file);
   for (std::string line; std::getline(in, line);) {
      if (line.compare(0, start.size(), start) == 0) return line;
   }
   return "";
}

} // namespace

Machine machine() {
   Machine found;
   std::string const model = firstLineWith("/proc/cpuinfo", "model name");
   found.processor = model.size() > 13 ? model.substr(model.find(':') + 2) : "unknown";
   utsname names{};
   uname(&names);
   found.kernel = std::string(names.sysname) + " " + names.release;
   found.compiler = "g++ " __VERSION__;
   found.buildType = BENCH_BUILD_TYPE;
#ifdef __OPTIMIZE__
   found.optimised = true;
#else
   found.optimised = false;
#endif
   found.cores = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
   long const cache = sysconf(_SC_LEVEL3_CACHE_SIZE);
   found.lastLevelCache = cache > 0 ? static_cast<u64>(cache) : 0;
   found.hugePages = "private: " + firstLineWith("/sys/kernel/mm/transparent_hugepage/enabled", "") +
                     "; tmpfs: " + firstLineWith("/sys/kernel/mm/transparent_hugepage/shmem_enabled", "");
   return found;
}

double loadAverage() {
   double load[1] = {0};
   return getloadavg(load, 1) == 1 ? load[0] : 0;
}

bool pinTo(int core) {
   cpu_set_t set;
   CPU_ZERO(&set);
   CPU_SET(core, &set);
   return sched_setaffinity(0, sizeof set, &set) == 0;
}

void allowedCores(int& first, int& second) {
   cpu_set_t set;
   CPU_ZERO(&set);
   sched_getaffinity(0, sizeof set, &set);
   first = second = -1;
   for (int core = 0; core < CPU_SETSIZE && second < 0; ++core) {
      if (!CPU_ISSET(core, &set)) continue;
      (first < 0 ? first : second) = core;
   }
}

double ticksPerNs() {
   using Clock = std::chrono::steady_clock;
   auto const start = Clock::now();
   u64 const ticks = __builtin_ia32_rdtsc();
   while (Clock::now() - start < std::chrono::milliseconds(50)) {
   }
   double const ns = std::chrono::duration<double, std::nano>(Clock::now() - start).count();
   return static_cast<double>(__builtin_ia32_rdtsc() - ticks) / ns;
}

u64 blocksUnder(std::string const& directory) {
   u64 bytes = 0;
   for (auto const& entry : fs::recursive_directory_iterator(directory)) {
      struct stat status {};
      if (entry.is_regular_file() && stat(entry.path().c_str(), &status) == 0) {
         bytes += static_cast<u64>(status.st_blocks) * 512;
      }
   }
   return bytes;
}

Folder::Folder() {
   char const* const other = std::getenv("TMPDIR");
   std::string const base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : other ? other : "/tmp";
   path_ = base + "/hoflow-bench-XXXXXX";
   if (!mkdtemp(path_.data())) throw std::runtime_error("can't make a folder under " + base);
}

Folder::~Folder() {
   std::error_code ignored;
   fs::remove_all(path_, ignored);
}

void Folder::clear() const {
   for (auto const& entry : fs::directory_iterator(path_)) fs::remove_all(entry.path());
}

} // namespace Bench
