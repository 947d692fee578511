// SPDX-License-Identifier: Apache-2.0
// Looks ahead of a walk over a whole table, the reader's and the writer's. Neighbours in the table's order
// are strangers in memory: each row costs a bucket's head and a slot somewhere. So a large table is looked at
// some buckets in advance, in walk order, to have the misses of many rows under way at once.
//
// These looks decide nothing: they load by Mem::peekPair, ask for lines, and may find anything, also while a
// writer changes it. Indices are bounded by the count that the caller gives, so nothing outside its mapping
// is touched.
#pragma once

#include "Lomi/Util.h"
#include "MirakCore/BucketTable.h"

namespace MirakCore {

/// The slots of a table as one walk sees them: `count` of them from `base` on, at least one.
template <class Slot> class LookAhead {
public:
   LookAhead(Slot const* base, u32 count)
      : base_(base)
      , count_(count) {}

   /// A slot straddles lines: asks for those behind the first, which the next load takes anyway.
   [[gnu::always_inline]] static void prefetchRest(Slot const& slot) {
      auto const* at = reinterpret_cast<char const*>(&slot);
      for (std::size_t line = 64; line < sizeof slot; line += 64) Mem::prefetchShared(at + line);
      Mem::prefetchShared(at + sizeof slot - 1);
   }

   /// The slot that `link` names. An end of chain names slot 0 instead: without a branch, since nobody could
   /// predict it.
   [[gnu::always_inline]] Slot const& behind(SlotLink const& link) const {
      u32 const next = Mem::peekPair(link).next;
      return base_[next & (u32{0} - u32{next < count_})];
   }

   /// Asks for all of the slot that `link` names. @return the slot
   [[gnu::always_inline]] Slot const& prefetchBehind(SlotLink const& link) const {
      Slot const& slot = behind(link);
      Mem::prefetchWhole(slot);
      return slot;
   }

   /// Has the buckets that a walk will reach soon after `bucket` on their way into the cache.
   [[gnu::always_inline]] void from(SlotLink const* entries, u32 bits, u32 bucket) const {
      if (count_ < fromSlots || bits < fromBits) return;
      // Walk order counts in reversed bits: the place of a bucket is its number reversed.
      u32 const place = Lomi::Util::reverse(bucket);
      u32 const shift = 32 - bits;
      auto const headAhead = [&](u32 steps) -> SlotLink const& {
         return entries[Lomi::Util::reverse(place + (steps << shift))];
      };
      Mem::prefetchShared(&headAhead(heads));
      prefetchBehind(headAhead(slots));
      prefetchBehind(behind(headAhead(successors)).link);
   }

private:
   static constexpr u32 fromSlots = 16384; ///< smaller tables lie in the near caches anyway
   static constexpr u32 fromBits = 6;      ///< fewer buckets don't reach so far ahead
   static constexpr u32 heads = 32;        ///< buckets ahead: ask for the head
   static constexpr u32 slots = 20;        ///< the head is there: ask for the first slot
   static constexpr u32 successors = 10;   ///< the slot is there: ask for the second

   Slot const* base_;
   u32 count_;
};

} // namespace MirakCore
