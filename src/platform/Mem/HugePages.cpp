// SPDX-License-Identifier: Apache-2.0
#include "Mem/HugePages.h"

#include "Mem/Page.h"

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace Mem {
namespace {

constexpr int collapseNow = 25; // MADV_COLLAPSE, unknown to older C libraries
// The kernel has the other processors empty their lists of pages first, and waits for them. Where they have
// too much to do for that, the caller, in the middle of a write, is better off with small pages.
constexpr double tooLong = 0.005;

bool crowded() {
   static long const processors = ::sysconf(_SC_NPROCESSORS_ONLN);
   struct sysinfo info {};
   return ::sysinfo(&info) != 0 || info.loads[0] >> SI_LOAD_SHIFT >= static_cast<unsigned long>(processors);
}

double seconds() {
   timespec now{};
   clock_gettime(CLOCK_MONOTONIC, &now);
   return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

} // namespace

char* reserveAligned(u64 bytes, void* wish) {
   u64 const more = wish ? 0 : hugePageSize - pageSize_;
   void* const found =
       ::mmap(wish, bytes + more, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
   if (found == MAP_FAILED) return nullptr;
   auto* const from = static_cast<char*>(found);
   if (wish) return from;
   u64 const skip = (hugePageSize - reinterpret_cast<std::uintptr_t>(from) % hugePageSize) % hugePageSize;
   if (skip) ::munmap(from, skip);
   if (skip < more) ::munmap(from + skip + bytes, more - skip);
   return from + skip;
}

bool HugePages::make(char* at) {
   if (!possible_ || reinterpret_cast<std::uintptr_t>(at) % hugePageSize || (!evenIfCrowded && crowded()))
      return false;
   double const begin = seconds();
   bool const made = ::madvise(at, hugePageSize, collapseNow) == 0;
   // EINVAL: this kernel or this file system has no such thing. All else may be better next time.
   bool const never = !made && errno == EINVAL;
   // Once too long is once too often.
   bool const late = !evenIfCrowded && seconds() - begin > tooLong;
   if (never || late) possible_ = false;
   return made;
}

} // namespace Mem
