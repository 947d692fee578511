// SPDX-License-Identifier: Apache-2.0
// MirakWriter's way of giving memory back: the rows of the upper part of the slot file move into free slots
// of the lower part, then the file is cut. Included by MirakWriter.h only.
//
// Readers and followers go on meanwhile, so the order of the stores is fixed. For each row that moves:
//   C1  the new slot is whole before the predecessor's link shows it, and only after that the old one falls:
//       a reader in flight finds the row at one place or the other, with equal content
//   C2  the old slot's link moves its version before OCCUPIED falls in the slot behind it. A reader that
//       stands on the old link sees that it left the chain, and doesn't take the next row for damage
//   C3  a follower of the change queue hears of the new place first, then of the old one, whose earlier entry
//       is a tombstone by then
// Rows move strictly downwards in ascending order. The smaller count is published before anything is cut
// (SYNC(num-slots)); the blocks go a moment later, when readers had time to see it.
//
// Crash: until the count is stored, slots that were taken off the free list or moved out are on neither list,
// and the next start's walks find their sum short. From that store on the smaller table is complete. So a
// compaction is adopted whole or the table is formatted anew, also that of shrink(), which sets no
// critical-section bit.
#pragma once

#include "Mirak/MirakWriter.h"

#include <bit>

namespace Mirak {

/// The capacity that `occupied` rows need: two to four times as many slots, so that the next growth and the
/// next shrink are both far.
inline u32 shrunkCapacity(u32 occupied, u32 minSlots) {
   u32 const roomy = occupied == 0 ? 0 : u32{1} << (std::bit_width(occupied) + 1);
   return std::max(minSlots, roomy);
}

template <class Ops> void MirakWriter<Ops>::shrink() {
   if (busy()) refuseBusy("", "");
   if (!attached()) return;
   releaseDue();
   try {
      doMaybeShrinkSlots(slots_.shrinkDue());
   } catch (...) {
      slots_.markCriticalSection(); // half done: nothing more may be written, and the next start re-formats
      throw;
   }
}

template <class Ops> void MirakWriter<Ops>::doMaybeShrinkSlots(u32 threshold) {
   if (threshold == 0) return;
   if constexpr (Ops::hasChangeQueue) {
      if (queue_.tesselWriter.shrinkMarker() != 0) {
         LOMI_TRACE(debugHandler_, 5, "MirakWriter", "shrink started, ignoring shrinkThreshold:{}",
                    threshold);
         return;
      }
   }
   Restructuring const guard(*this);
   u32 const capacity = slots_.capacity();
   u32 const newNumSlots = shrunkCapacity(slots_.occupiedSlots(), slots_.minSlots());
   LOMI_TRACE(debugHandler_, 5, "MirakWriter", "threshold:{} shrinkThreshold:{}{}", newNumSlots, threshold,
              threshold > newNumSlots ? " SUPER SHRINK!" : "");
   Deadline deadline(criticalTaskCheck_);
   map_.forgetCuts();
   FreeLinks<Slot> links(&slots_.slot(0), capacity, deadline);
   purgeFreeSlots(newNumSlots, links, deadline);
   if constexpr (Ops::hasChangeQueue) queue_.tesselWriter.markShrinkStart();
   u32 moved = 0;
   links.startAt(Mem::loadShared(slots_.header().freeSlots), newNumSlots, true);
   for (u32 from = newNumSlots; from < capacity; ++from, deadline.check()) {
      if ((from - newNumSlots) % approached == 0) approach(from, std::min(capacity, from + approached));
      Slot& slot = slots_.slot(from);
      if (!(Mem::loadShared(slot.versionFlags) & SlotFlags::occupied)) {
         LOMI_TRACE(debugHandler_, 9, "MirakWriter", "skipping not occupied slot:{}", from);
         continue;
      }
      anchor_ = slots_.anchorOf(slot);
      Place const place = locate(loadKey<Key>(slot.value));
      LOMI_ASSERT(place.found, debugHandler_, "fromSlot:{} key not found", from);
      LOMI_ASSERT(place.prev && place.curr == &slot.link, debugHandler_, "fromSlot:{} not referenced", from);
      move(from, Mem::loadShared(slots_.header().freeSlots), *place.prev);
      links.advance();
      ++moved;
   }
   if constexpr (Ops::hasChangeQueue) queue_.tesselWriter.markShrinkEnd();
   LOMI_TRACE(debugHandler_, 5, "MirakWriter", "newNumSlots:{}", newNumSlots);
   slots_.shrinkTo(newNumSlots);
   if constexpr (Ops::hasChangeQueue) queue_.cutTo(newNumSlots);
   armRelease();
   // A slot that comes back may have the word that it had: what was handed out of the tail is stale for good.
   if (anchor_.offset < Mem::anchorUnset && anchor_.offset >= SlotTable<Ops>::endOf(newNumSlots))
      anchor_.offset = Mem::anchorGone;
   LOMI_TRACE(debugHandler_, 2, "MirakWriter", "{} from {} slots to {}", rootPath_.str(), capacity,
              newNumSlots);
   LOMI_TRACE(debugHandler_, 5, "MirakWriter", "at threshold:{} done", threshold);
   counters_.slotsMoved += moved;
}

/// Asks for all that leads to the rows in the slots from `from` to `end` - 1, which will move: their chains'
/// heads, and the first two slots of each.
template <class Ops> void MirakWriter<Ops>::approach(u32 from, u32 end) const {
   SlotLink const* heads[approached];
   u32 rows = 0;
   for (u32 index = from; index < end; ++index) {
      Slot const& slot = slots_.slot(index);
      heads[rows] = &map_.buckets()[map_.bucketOf(Lomi::Util::reverse(Mem::loadShared(slot.rhash)))];
      rows += Mem::loadShared(slot.versionFlags) & SlotFlags::occupied ? 1 : 0;
   }
   MirakCore::LookAhead<Slot> const ahead(&slots_.slot(0), slots_.capacity());
   for (u32 n = 0; n < rows; ++n) Mem::prefetchShared(heads[n]);
   for (u32 n = 0; n < rows; ++n) ahead.prefetchBehind(*heads[n]);
   for (u32 n = 0; n < rows; ++n) ahead.prefetchBehind(ahead.behind(*heads[n]).link);
}

/// Takes the slots from `numSlots` on off the free list; the others stay in their order.
template <class Ops>
void MirakWriter<Ops>::purgeFreeSlots(u32 numSlots, FreeLinks<Slot>& links, Deadline& deadline) {
   u32 const stored = Mem::loadPair(slots_.header().numSlots).value;
   LOMI_ASSERT(numSlots < slots_.capacity(), debugHandler_, "bad threshold: {} numSlots:{}", numSlots,
               slots_.capacity());
   u32 index = Mem::loadShared(slots_.header().freeSlots);
   LOMI_ASSERT(index != noSlot, debugHandler_, "{}", "free-list is empty");
   u32 const occupied = slots_.occupiedSlots();
   u32 free = 0;
   links.startAt(index, numSlots, false);
   // The bound ends a list that runs in a circle.
   for (u32 prev = noSlot; index != noSlot && free <= stored; ++free, deadline.check()) {
      if (index >= slots_.capacity()) [[unlikely]]
         slots_.slot(index); // throws
      u32 const next = links.next(index);
      links.advance();
      if (index < numSlots) {
         prev = index;
      } else {
         LOMI_TRACE(debugHandler_, 7, "MirakWriter", "removing slot id {} from free-list", index);
         if (prev != noSlot) {
            publishLink(slots_.slot(prev).link, next); // SYNC(chain-link) store
            links.nextIs(prev, next);
         } else {
            Mem::storeShared(slots_.header().freeSlots, next);
         }
      }
      index = next;
   }
   if (free + occupied != stored)
      MirakCore::corrupt("numSlots mismatch, length of freeList: {}, occupiedSlots: {} do not add up to "
                         "numSlots: {}",
                         free, occupied, stored);
}

/// Moves one row down to the head of the free list. `prev` is the link that leads to the row.
template <class Ops> void MirakWriter<Ops>::move(u32 fromSlotId, u32 toSlotId, SlotLink& prev) {
   LOMI_ASSERT(toSlotId < fromSlotId, debugHandler_,
               "should always move entries to lower section fromSlotId:{} toSlotId:{}", fromSlotId, toSlotId);
   LOMI_ASSERT(toSlotId != noSlot, debugHandler_, "not valid toSlotId:{}", toSlotId);
   Slot& from = slots_.slot(fromSlotId);
   Slot& to = slots_.slot(toSlotId);
   Mem::storeShared(to.rhash, Mem::loadShared(from.rhash)); // 2
   Mem::storeShared(slots_.header().freeSlots, Mem::loadPair(to.link).next);
   Value value; // 3
   Mem::loadShared(&value, from.value, sizeof value);
   Mem::storeShared(to.value, &value, sizeof value);
   u32 const word = Mem::loadShared(to.versionFlags); // 4
   if (word & SlotFlags::occupied) [[unlikely]]       // a free slot never has it
      Mem::storeShared(to.versionFlags, word + 2);
   // SYNC(slot-word) store
   Mem::storeShared(to.versionFlags, (word + 4) | SlotFlags::occupied);
   u32 const next = Mem::loadPair(from.link).next;
   publishLink(to.link, next); // 5: nobody points at the slot yet
   LOMI_TRACE(debugHandler_, 7, "MirakWriter", "fromSlotId:{} toSlotId:{}", fromSlotId, toSlotId);
   LOMI_TRACE(debugHandler_, 9, "MirakWriter", "moving fromSlot:{} toSlot:{}", fromSlotId, toSlotId);
   // SYNC(chain-link) store: from here on the chain runs through the new slot.
   publishLink(prev, toSlotId); // 6
   // SYNC(chain-link) store: whoever stands on the old slot's link sees that it is no longer the chain's.
   publishLink(from.link, next);
   queue_.notify(toSlotId);      // 7
   queue_.tombstone(fromSlotId); // 8
   // SYNC(slot-word) store: a reader inside the old slot starts over.
   Mem::storeShared(from.versionFlags, Mem::loadShared(from.versionFlags) & ~SlotFlags::occupied); // 9
   queue_.notify(fromSlotId);                                                                      // 10
}

} // namespace Mirak
