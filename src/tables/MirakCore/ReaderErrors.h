// SPDX-License-Identifier: Apache-2.0
// What a reader throws when a table's content can't be right. One function for each text, out of line and
// cold, so that the walks that call them stay short and fast. They only format and throw.
//
// None of them means damage by itself: a walk that overlapped a grow or a shrink ends here, too. The wrapper
// in Mirak/MirakReader.h decides.
#pragma once

#include "Mirak/SlotLink.h"

#include <cstddef>

namespace MirakCore::ReaderErrors {

using Mirak::u32;

/// Which walk speaks; each has spellings of its own.
enum class Walk { lookup, first, nextFast, nextSlow };

/// A key as it was read, perhaps garbage: shown as hexadecimal digits.
struct KeyBytes {
   void const* bytes;
   std::size_t length;
};

[[noreturn, gnu::cold, gnu::noinline]] void slotOutOfRange(u32 index, u32 numSlots);
[[noreturn, gnu::cold, gnu::noinline]] void bucketOutOfRange(u32 index, u32 numBuckets);
[[noreturn, gnu::cold, gnu::noinline]] void slotCycle(u32 slotCount, u32 capacity);
[[noreturn, gnu::cold, gnu::noinline]] void bucketCycle(u32 bucketCount, u32 numBuckets);
[[noreturn, gnu::cold, gnu::noinline]] void notOccupied(Walk walk, u32 slot, KeyBytes key, u32 slotCount);
[[noreturn, gnu::cold, gnu::noinline]] void corruptKey(Walk walk, KeyBytes key, u32 bucket);
[[noreturn, gnu::cold, gnu::noinline]] void corruptOrder(u32 slot, u32 stored, u32 computed);
[[noreturn, gnu::cold, gnu::noinline]] void badNextBucket(u32 bucket, u32 next, u32 numBuckets);

} // namespace MirakCore::ReaderErrors
