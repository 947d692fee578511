// SPDX-License-Identifier: Apache-2.0
#include "Lomi/Util.h"

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"

#include <fmt/format.h>

#include <cstdio>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>

namespace Lomi {
namespace {

double seconds(clockid_t clock) {
   timespec now{};
   clock_gettime(clock, &now);
   return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

struct Moment {
   u64 ticks;
   double time;
};

// Reads both clocks as close together as a few tries give: an interruption between the two reads shows as a
// long distance in ticks.
Moment bothClocks() {
   Moment best{0, 0};
   u64 closest = ~u64{0};
   for (int i = 0; i < 16; ++i) {
      u64 const before = Rdtsc::now();
      double const time = seconds(CLOCK_MONOTONIC);
      u64 const after = Rdtsc::now();
      if (after - before < closest) {
         closest = after - before;
         best = {before + closest / 2, time};
      }
   }
   return best;
}

double calibrate() {
   Moment const start = bothClocks();
   while (seconds(CLOCK_MONOTONIC) - start.time < 0.002) __builtin_ia32_pause();
   Moment const end = bothClocks();
   return static_cast<double>(end.ticks - start.ticks) / (end.time - start.time);
}

struct Canary {
   std::mutex mutex;
   std::deque<std::string> lines;
};

Canary& canary() {
   static Canary& only = *new Canary;
   return only;
}

} // namespace

double time() { return seconds(CLOCK_REALTIME); }
double monotonicTime() { return seconds(CLOCK_MONOTONIC); }

double Rdtsc::calibrationRate() {
   static double const rate = calibrate();
   return rate;
}

std::string dumpHex(void const* bytes, std::size_t length) {
   static constexpr char digits[] = "0123456789abcdef";
   auto const* at = static_cast<unsigned char const*>(bytes);
   std::string text;
   text.reserve(length * 2);
   for (std::size_t i = 0; i < length; ++i) {
      text += digits[at[i] >> 4];
      text += digits[at[i] & 15];
   }
   return text;
}

namespace Util {

u32 fileSizeHelper(u32 count, u32 slotSize, u32 headerSize) {
   constexpr u64 page = 4096;
   constexpr u64 limit = (u64{1} << 32) - page;
   u64 const bytes = u64{count} * slotSize + headerSize; // below 2^64: at most (2^32 - 1)^2 + 2^32
   u64 const rounded = bytes > limit ? bytes : (bytes + page - 1) / page * page;
   if (rounded >= limit)
      throw RuntimeException(
          fmt::format("a file of {} slots of {} bytes and a header of {} bytes needs {} bytes, "
                      "which must be less than {}",
                      count, slotSize, headerSize, rounded, limit));
   return static_cast<u32>(rounded);
}

std::string traceHandleName(std::string const& name, std::string const& traceName, bool local) {
   std::string handle = traceName.empty() ? name : traceName;
   if (local) handle += "/local";
   return handle;
}

void emitCanaryLog(std::string_view text) {
   auto& log = canary();
   {
      std::lock_guard const hold(log.mutex);
      log.lines.emplace_back(text);
      if (log.lines.size() > 64) log.lines.pop_front();
   }
   LOMI_TRACE(*Platform::getDebugHandler("Canary", true), 1, "Lomi::Util", "{}", text);
}

std::vector<std::string> canaryLog() {
   auto& log = canary();
   std::lock_guard const hold(log.mutex);
   return {log.lines.begin(), log.lines.end()};
}

bool includeShmemInCore() {
   // Bit 1: shared memory without a file, which includes unlinked files. Bit 3: shared mappings of files.
   constexpr unsigned long wanted = 1ul << 1 | 1ul << 3;
   std::unique_ptr<std::FILE, int (*)(std::FILE*)> const file(std::fopen("/proc/self/coredump_filter", "r+e"),
                                                              &std::fclose);
   unsigned long filter = 0;
   if (!file || std::fscanf(file.get(), "%lx", &filter) != 1) return false;
   if ((filter & wanted) == wanted) return true;
   std::rewind(file.get());
   return std::fprintf(file.get(), "0x%lx\n", filter | wanted) > 0 && std::fflush(file.get()) == 0;
}

} // namespace Util
} // namespace Lomi
