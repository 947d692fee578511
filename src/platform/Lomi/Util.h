// SPDX-License-Identifier: Apache-2.0
// Small helpers that every floor uses: bit reversal, file sizes, byte dumps, time, core dumps.
#pragma once

#include "Lomi/Export.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Lomi {

using u32 = std::uint32_t;
using u64 = std::uint64_t;

/// Seconds since 1970 by the system's clock.
HOFLOW_EXPORT double time();

/// Seconds since the system's start; never set back.
HOFLOW_EXPORT double monotonicTime();

/// "0a1bff": two hexadecimal digits a byte, no separators.
HOFLOW_EXPORT std::string dumpHex(void const* bytes, std::size_t length);

/// The processor's time stamp counter.
struct Rdtsc {
   static u64 now() { return __builtin_ia32_rdtsc(); }
   /// Ticks a second. Learned once in the process, over about two milliseconds; later calls cost a load.
   HOFLOW_EXPORT static double calibrationRate();
};

namespace Util {

/// The 32 bits of `word` in reversed order.
constexpr u32 reverse(u32 word) {
   word = __builtin_bswap32(word);
   word = ((word & 0x0f0f0f0fu) << 4) | ((word >> 4) & 0x0f0f0f0fu);
   word = ((word & 0x33333333u) << 2) | ((word >> 2) & 0x33333333u);
   return ((word & 0x55555555u) << 1) | ((word >> 1) & 0x55555555u);
}

/// Bytes of a file with a header and `count` slots, rounded up to whole pages. Throws RuntimeException if
/// that is 4 GiB minus a page or more: offsets in the files are 32 bits, and a header with such a file size
/// is refused.
HOFLOW_EXPORT u32 fileSizeHelper(u32 count, u32 slotSize, u32 headerSize);

using Lomi::dumpHex;

/// Name of a collection's debug handler: its trace name, or without one its name; "/local" follows for a
/// private collection.
HOFLOW_EXPORT std::string traceHandleName(std::string const& name, std::string const& traceName, bool local);

/// Keeps one line for a post mortem: the last 64 lie in memory, where a core file shows them. Also traced at
/// level 1 by the handler "Canary".
HOFLOW_EXPORT void emitCanaryLog(std::string_view text);
HOFLOW_EXPORT std::vector<std::string> canaryLog();

/// From now on a core file of this process holds its shared mappings, too. False if the kernel refuses.
HOFLOW_EXPORT bool includeShmemInCore();

} // namespace Util
} // namespace Lomi
