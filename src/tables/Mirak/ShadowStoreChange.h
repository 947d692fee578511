// SPDX-License-Identifier: Apache-2.0
// How a shadow's copy follows the table: one slot's change, one slot's flush, and the size of the array.
// Included by ShadowStore.h only.
//
//   local slot  shared slot         entry counts  what is done                       told
//
//   dead        free                not asked     nothing                            nothing
//   dead        row                 not asked     entered                            change
//   row         same key            not asked     taken over                         change, unless compared
//                                                                                    and equal
//   row         other key or free   no            nothing; false                     nothing
//   row         other key           yes           dropped, then entered              removal, change
//   row         free                yes           dropped                            removal
//   none        beyond the table    not asked     nothing                            nothing
//
// A sweep has no entry and need not ask. "Entered" finds a row that stands in another local slot: it has
// moved, and is told only if it changed.
#pragma once

#include "Mirak/ShadowStore.h"

namespace Mirak {

/// Forgets the change in progress on every way out.
template <class Slot> class ShadowStore<Slot>::Pending {
public:
   explicit Pending(ShadowStore& store)
      : store_(store) {}
   Pending(Pending const&) = delete;
   Pending& operator=(Pending const&) = delete;
   ~Pending() {
      store_.pendingValue_ = nullptr;
      store_.pendingRemovedKey_ = nullptr;
   }

private:
   ShadowStore& store_;
};

template <class Slot>
bool ShadowStore<Slot>::doSlot(Tessel::BasicSlot slotIndex, Rusk::Sequence seq, bool compare) {
   if (!enabled_ || !covers(slotIndex)) return true;
   // A sweep goes from slot to slot, but all over the index.
   if (seq == Rusk::noSequence) hashMap_.prefetchPlace(reader_.peekHash(slotIndex + 8));
   Pending const pending(*this);
   *cacheAnchor_ = {};
   Value row;
   bool const found = fetch(slotIndex, row);
   Mem::VersionAnchor const anchor = *readerAnchor_;
   LOMI_TRACE(debugHandler(), 9, "ShadowStore", "updated: {} compare: {} slotIndex:{}{}", found, compare,
              slotIndex, found ? " found " + keyText(Ops::key(row)) : " not found");

   Slot* const slot = &slots_[slotIndex]; // stays there while the store is enabled and the row found
   bool const live = !slot->dead();
   bool const same = live && found && slot->rowKey() == Ops::key(row);
   if (live && !same) {
      // The queue is asked after the slot was read: so a compaction that has moved the row is noticed.
      if (!stillCounts(seq)) return false;
      if (seq != Rusk::noSequence) counters_.sequence = seq;
      Key const oldKey = slot->rowKey();
      drop(slotIndex, oldKey);
      if (!enabled_) return true;
      if (!found) tryShrink();
   } else if (found && seq != Rusk::noSequence) {
      counters_.sequence = seq;
   }
   if (!found) return true;

   bool const updated = !(same && compare && slot->holds(row));
   if (updated) slot->take(row);
   if constexpr (Slot::keepsValue) {
      pendingValue_ = &slot->value;
   } else {
      valueBuffer_ = row;
      pendingValue_ = &valueBuffer_;
   }
   *cacheAnchor_ = anchor;
   if (!hashMap_.write(slotIndex, *slot, updated)) return true;
   queue_.consume();
   // The client gets what lies on this stack: it may disable the store before its last notifiee has read it.
   if constexpr (Slot::keepsValue) {
      notify_.changeFn(row);
   } else {
      Key const key = Ops::key(row);
      notify_.keyFn(key);
   }
   return true;
}

/// Makes the array reach a slot. @return false: the shared table doesn't
template <class Slot> bool ShadowStore<Slot>::covers(u32 slotIndex) {
   if (slotIndex < numSlots_) return true;
   if (u32 const capacity = reader_.headerCapacity(); capacity <= slotIndex) {
      LOMI_TRACE(debugHandler(), 5, "ShadowStore",
                 "skip growing of shadow table to accomodate slotIndex:{} because shared memory has shrunk "
                 "to {} slots",
                 slotIndex, capacity);
      return false;
   }
   if (grow(slotIndex)) return true;
   LOMI_TRACE(debugHandler(), 5, "ShadowStore", "discarding notification for slotIndex:{}", slotIndex);
   return false;
}

/// Reads the shared slot. @return whether it holds a row; what can't be read counts as free
/// @throws Mirak::TableReformattedException: nothing that is read now says anything about the copy
template <class Slot> bool ShadowStore<Slot>::fetch(u32 slotIndex, Value& row) const {
   try {
      return reader_.getValue(slotIndex, row, nullptr);
   } catch (TableReformattedException const&) {
      throw;
   } catch (Lomi::CorruptionDetectedException const& e) {
      LOMI_TRACE(debugHandler(), 5, "ShadowStore", "slotIndex:{} counts as free: {}", slotIndex, e.msg());
      return false;
   }
}

template <class Slot> bool ShadowStore<Slot>::stillCounts(Rusk::Sequence seq) {
   if (seq == Rusk::noSequence || queue_.validateNotif()) return true;
   LOMI_TRACE(debugHandler(), 5, "ShadowStore", "failed because sequence:{} may have been tombstoned", seq);
   return false;
}

/// Takes the row out of the copy and tells the client, who may disable the store.
template <class Slot> void ShadowStore<Slot>::drop(u32 slotIndex, Key const& key) {
   Slot& slot = slots_[slotIndex];
   hashMap_.remove(slotIndex, slot);
   slot.clear();
   pendingRemovedKey_ = &key;
   notify_.keyDelFn(key);
   pendingRemovedKey_ = nullptr;
}

template <class Slot> void ShadowStore<Slot>::doFlushSlot(u32 slotIndex) {
   if (slotIndex >= numSlots_ || slots_[slotIndex].dead()) return;
   Key const key = slots_[slotIndex].rowKey();
   LOMI_TRACE(debugHandler(), 9, "ShadowStore", "slotIndex {} key:{}", slotIndex, keyText(key));
   pendingValue_ = nullptr; // a flush out of a change's callback ends that change
   hashMap_.remove(slotIndex, slots_[slotIndex]);
   if (notifyOnFlush_) notify_.keyDelFn(key);
}

// --- the size of the array ---

/// Brings the array to the table's present capacity. @return false: the slot isn't below it
template <class Slot> bool ShadowStore<Slot>::grow(u32 slotIndex) {
   LOMI_TRACE(debugHandler(), 5, "ShadowStore", "for slotIndex:{}", slotIndex);
   reader_.resize();
   u32 const capacity = reader_.capacity();
   if (slotIndex >= capacity) {
      LOMI_TRACE(debugHandler(), 5, "ShadowStore",
                 "complete. Never learned of slotIndex:{} so it is safe to ignore.", slotIndex);
      return false;
   }
   LOMI_TRACE(debugHandler(), 2, "ShadowStore",
              "resize shadow slots from {} to {} due to out of range slot {}", numSlots_, capacity,
              slotIndex);
   resizeSlots(capacity);
   ++counters_.shadowSlotGrows;
   LOMI_TRACE(debugHandler(), 5, "ShadowStore", "{}", "complete.");
   return true;
}

/// Follows a table that was cut down, or gives all back when the copy is empty.
template <class Slot> void ShadowStore<Slot>::tryShrink() {
   if (counters_.members > numSlots_ >> 2) return;
   u32 const wanted = slotCounters_.largestOccupied();
   if (wanted >= numSlots_) return;
   LOMI_TRACE(debugHandler(), 5, "ShadowStore", "shadow slot occupancy <= 25% and can shrink to {} slots.",
              wanted);
   u32 const capacity = reader_.headerCapacity();
   if (wanted < capacity && wanted != 0) {
      LOMI_TRACE(debugHandler(), 5, "ShadowStore",
                 "skip shrinking of shadow table to {} slots because shared memory has grown to {} slots",
                 wanted, capacity);
      return;
   }
   shrink(wanted);
}

template <class Slot> void ShadowStore<Slot>::shrink(u32 newNumSlots) {
   LOMI_TRACE(debugHandler(), 5, "ShadowStore", "newNumSlots:{}", newNumSlots);
   LOMI_TRACE(debugHandler(), 2, "ShadowStore", "resize shadow slots from {} to {}", numSlots_, newNumSlots);
   resizeSlots(newNumSlots);
   ++counters_.shadowSlotShrinks;
   LOMI_TRACE(debugHandler(), 5, "ShadowStore", "{}", "complete.");
}

/// What is new is dead. @throws Lomi::MemoryResourceException; the array stays as it was then
template <class Slot> void ShadowStore<Slot>::resizeSlots(u32 newNumSlots) {
   Slot* const old = slots_;
   if (newNumSlots == 0) {
      slotsMem_.detach();
      slots_ = nullptr;
   } else {
      u64 const bytes = Mem::multiplyOverflowCheck(newNumSlots, sizeof(Slot));
      char* const base = old ? slotsMem_.resize(bytes) : slotsMem_.attach(bytes);
      if (!base)
         throw Lomi::MemoryResourceException(fmt::format("failed to resize {} from {} to {} slots - {}",
                                                         slotsMem_.kind(), numSlots_, newNumSlots,
                                                         slotsMem_.lastError()));
      slots_ = reinterpret_cast<Slot*>(base);
   }
   numSlots_ = newNumSlots;
   LOMI_TRACE(debugHandler(), 5, "ShadowStore", "Passed resize {} and got {} back.", newNumSlots,
              fmt::ptr(slots_));
   if (old && slots_ && slots_ != old)
      hashMap_.patch(reinterpret_cast<char*>(slots_) - reinterpret_cast<char*>(old));
}

} // namespace Mirak
