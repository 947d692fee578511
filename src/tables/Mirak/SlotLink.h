// SPDX-License-Identifier: Apache-2.0
// The link: one 8-byte word that says what follows a slot or a bucket's head. Part of the file format.
//
//   next, bit 31 clear      index of the slot that follows (on the free list: the next free slot)
//   next, bit 31 set        the chain ends here; the low 31 bits name the bucket that the walk visits next
//   next = 0xffffffff       the end of the whole table (on the free list: the end of the list)
//
// Every store of a link moves its version by 4, so a reader that loads a link twice and sees the same version
// has seen one and the same link. Links are loaded and stored whole, through Mem::loadPair and
// Mem::publishPair.
#pragma once

#include "Mem/SharedWords.h"

namespace Mirak {

using Mem::u16;
using Mem::u32;
using Mem::u64;

struct alignas(8) SlotLink {
   u32 version;
   u32 next;
};
static_assert(sizeof(SlotLink) == 8, "a link is stored in one access");

inline constexpr u32 noSlot = 0xffffffff; ///< end of the free list, end of the table, "no slot" in general
inline constexpr u32 chainEndBit = 0x80000000; ///< set in `next` where a chain ends

constexpr bool endsChain(u32 next) { return (next & chainEndBit) != 0; }
constexpr u32 chainEnd(u32 nextBucket) { return nextBucket | chainEndBit; }
constexpr u32 nextBucketOf(u32 next) { return next & ~chainEndBit; }

/// Stores a link as the writer always does: version + 4 and the new target, in one access.
inline void publishLink(SlotLink& link, u32 next) {
   Mem::publishPair(link, SlotLink{Mem::loadPair(link).version + 4, next});
}

} // namespace Mirak
