// SPDX-License-Identifier: Apache-2.0
// MirakWriter's operations on rows. Included by MirakWriter.h only.
//
// The numbered stores below are the protocol that readers rest on; their order is fixed. What a crash between
// any two leaves: the critical section bit is set from the first to the last, so the next start re-formats.
// (Two exceptions by design: directCommit after directUpdate in a table without a change queue, whose value
// lies whole in `lookaside`, and lookups and misses, which change nothing.)
#pragma once

#include "Mirak/KeyText.h"
#include "Mirak/MirakWriter.h"

#include <cstring>

namespace Mirak {

template <class Ops> typename MirakWriter<Ops>::Place MirakWriter<Ops>::locate(Key const& key) {
   Place place;
   place.hash = ops_.hash(key);
   place.bucket = map_.bucketOf(place.hash);
   place.found = map_.find(key, place.bucket, &place.prev, &place.curr, place.hash);
   return place;
}

template <class Ops> void MirakWriter<Ops>::refuseReentrancy() const {
   LOMI_ASSERT(!restructuring_, debugHandler_, "Mirak reentrancy detected: {}", rootPath_.str());
}

/// A change of the table is under way, or a direct operation is open.
template <class Ops> void MirakWriter<Ops>::refuseBusy(char const* what, std::string const& subject) const {
   refuseReentrancy();
   refuseUnbalanced(what, subject);
}

/// The process stops here: a direct operation is open, and another change would destroy what it is building.
template <class Ops>
void MirakWriter<Ops>::refuseUnbalanced(char const* what, std::string const& subject) const {
   std::string held = "none";
   if (directSlot_ != noSlot) {
      Slot const& slot = slots_.slot(directSlot_);
      anchor_ = slots_.anchorOf(slot);
      Value value;
      Mem::loadShared(&value, slot.value, sizeof value);
      held = keyText(value);
   }
   std::string const tail = subject.empty() ? std::string() : fmt::format(" when {}{}", what, subject);
   LOMI_ASSERT(
       false, debugHandler_,
       "unbalanced directSlot:{} containing value:{}{} - Make sure the DirectIs/Commit are properly paired!",
       directSlot_, held, tail);
}

/// Gives back, in passing, the blocks of what a shrink cut off a moment ago.
template <class Ops> void MirakWriter<Ops>::releaseDue() {
   if (slots_.wrapper().releasePending()) [[unlikely]]
      slots_.wrapper().releaseTailIfDue();
   if (map_.buckets().wrapper().releasePending()) [[unlikely]]
      map_.buckets().wrapper().releaseTailIfDue();
   if (queue_.releasePending()) [[unlikely]]
      queue_.release();
}

/// Makes sure, before the first store of an insert, that the index can grow after it, and that the change can
/// be announced: a row that is linked must not be left behind by an exception. A full table of fixed size
/// refuses before anything is asked of the system.
template <class Ops> void MirakWriter<Ops>::prepareInsert() {
   bool const full = slots_.full();
   if (full && slots_.fixedSize()) [[unlikely]]
      slots_.refuse();
   if (u32 const rows = members() + 1; map_.wantsPreparation(rows)) [[unlikely]]
      map_.prepareGrow(rows);
   if constexpr (Ops::hasChangeQueue) {
      queue_.prepare(slots_.preparedSlots());
      if (full) [[unlikely]]
         queue_.reserve(slots_.nextCapacity());
   }
}

/// Steps 1 to 4 of an insert: a slot off the free list with its rhash set, and links that are right again if
/// the slot file moved.
template <class Ops> typename MirakWriter<Ops>::Slot& MirakWriter<Ops>::allocate(Place& place) {
   char* const oldBase = slots_.base();
   bool const prevMoves = slots_.contains(place.prev);
   bool const currMoves = slots_.contains(place.curr);
   Slot& slot = slots_.takeFreeSlot();                                   // 1
   Mem::storeShared(slot.rhash, Lomi::Util::reverse(place.hash));        // 2
   slots_.joinOccupied(slot);                                            // 3
   if (char* const base = slots_.base(); base != oldBase) [[unlikely]] { // 4
      auto rebase = [&](SlotLink* link) {
         return reinterpret_cast<SlotLink*>(base + (reinterpret_cast<char*>(link) - oldBase));
      };
      if (prevMoves) place.prev = rebase(place.prev);
      if (currMoves) place.curr = rebase(place.curr);
   }
   return slot;
}

template <class Ops> void MirakWriter<Ops>::overwriteSlot(Slot& slot, Value const& value) {
   slots_.fillLookaside(Mem::loadShared(slot.rhash), &value); // 1
   u32 const word = Mem::loadShared(slot.versionFlags);
   // SYNC(slot-word) store: from here on readers take the value, which is whole there, from `lookaside`.
   Mem::storeShared(slot.versionFlags, word + 2);       // 2
   Mem::storeShared(slot.value, &value, sizeof(Value)); // 3
   // SYNC(slot-word) store: the value in the slot is whole again.
   Mem::storeShared(slot.versionFlags, (word + 4) | SlotFlags::occupied); // 4
}

template <class Ops>
typename MirakWriter<Ops>::Value const* MirakWriter<Ops>::write(Value const& value, bool overwrite) {
   Key const key = Ops::key(value);
   if (busy()) [[unlikely]]
      refuseBusy("writing value:", keyText(value));
   releaseDue();
   auto const section = slots_.enterCriticalSection();
   Place place = locate(key);
   if (place.found) {
      Slot& slot = *reinterpret_cast<Slot*>(place.curr);
      LOMI_TRACE(debugHandler_, 9, "MirakWriter", "existing {} bucket:{} slot:{} next:{}", keyText(key),
                 place.bucket, slots_.indexOf(slot), Mem::loadPair(slot.link).next);
      if (overwrite) {
         overwriteSlot(slot, value);
         queue_.notify(slots_.indexOf(slot)); // 5
      }
      return reinterpret_cast<Value const*>(slot.value);
   }
   prepareInsert();
   Slot& slot = allocate(place); // 1 to 4
   u32 const index = slots_.indexOf(slot);
   publishLink(slot.link, Mem::loadPair(*place.prev).next); // 5: nobody points at the slot yet
   u32 const word = Mem::loadShared(slot.versionFlags);
   if (word & SlotFlags::occupied) [[unlikely]] // 6: a free slot never has it
      slots_.fillLookaside(Mem::loadShared(slot.rhash), &value);
   Mem::storeShared(slot.versionFlags, word + 2); // 7
   Mem::storeShared(slot.value, &value, sizeof(Value));
   Mem::storeShared(slot.versionFlags, (word + 4) | SlotFlags::occupied);
   // SYNC(chain-link) store: publishes the row; a reader that follows this link sees all of the above.
   publishLink(*place.prev, index); // 8
   map_.inserted(place.bucket, place.prev, Lomi::Util::reverse(place.hash), index);
   LOMI_TRACE(debugHandler_, 9, "MirakWriter", "new {} bucket:{} slot:{} next:{}", keyText(key), place.bucket,
              index, Mem::loadPair(slot.link).next);
   if (members() > map_.growThreshold()) [[unlikely]]
      growBuckets();     // 9
   queue_.notify(index); // 10
   return reinterpret_cast<Value const*>(slot.value);
}

template <class Ops> bool MirakWriter<Ops>::remove(Key const& key, Value& removed) {
   if (busy()) [[unlikely]]
      refuseBusy("removing key:", keyText(key));
   if (!attached()) return false;
   releaseDue();
   Place const place = locate(key);
   if (!place.found) {
      LOMI_TRACE(debugHandler_, 9, "MirakWriter", "{} bucket:{} not found", keyText(key), place.bucket);
      return false;
   }
   // A miss never touches runtimeFlags: only from here on is the table half done.
   auto const section = slots_.enterCriticalSection();
   Slot& slot = *reinterpret_cast<Slot*>(place.curr);
   u32 const index = slots_.indexOf(slot);
   Mem::loadShared(&removed, slot.value, sizeof(Value));
   // SYNC(chain-link) store: out of the chain. A reader on the slot still follows the slot's own link.
   u32 const next = Mem::loadPair(slot.link).next;
   publishLink(*place.prev, next);
   map_.removed(place.bucket, place.prev, index, next);
   u32 const shrinkThreshold = slots_.dealloc(index);
   queue_.notify(index);
   LOMI_TRACE(debugHandler_, 9, "MirakWriter", "{} bucket:{} slot:{}", keyText(Ops::key(removed)),
              place.bucket, index);
   if (shrinkThreshold != 0) [[unlikely]]
      doMaybeShrinkSlots(shrinkThreshold);
   if (shrinkBuckets_ && members() < map_.shrinkThreshold()) [[unlikely]]
      shrinkBuckets();
   return true;
}

template <class Ops> void MirakWriter<Ops>::growBuckets() {
   Restructuring const guard(*this);
   map_.growBuckets(criticalTaskCheck_);
}

template <class Ops> void MirakWriter<Ops>::shrinkBuckets() {
   Restructuring const guard(*this);
   map_.shrinkBuckets(criticalTaskCheck_);
   armRelease();
}

template <class Ops>
typename MirakWriter<Ops>::Value const* MirakWriter<Ops>::lookup(Key const& key, bool& found,
                                                                 void* buffer) const {
   refuseReentrancy();
   ++counters_.lookups;
   found = false;
   u32 const hash = ops_.hash(key);
   u32 const bucket = map_.bucketOf(hash);
   if (Slot const* slot = attached() ? map_.lookup(key, bucket, hash) : nullptr) {
      anchor_ = slots_.anchorOf(*slot);
      found = true;
      return reinterpret_cast<Value const*>(slot->value);
   }
   LOMI_TRACE(debugHandler_, 8, "MirakWriter", "{} not found bucket:{}", keyText(key), bucket);
   anchor_ = {};
   if (buffer) std::memcpy(buffer, &Ops::typeDefault(), sizeof(Value));
   return &Ops::typeDefault();
}

template <class Ops> bool MirakWriter<Ops>::first(Value& value, IterHint& hint) const {
   refuseReentrancy();
   return attached() && map_.first(0, value, hint);
}

template <class Ops> bool MirakWriter<Ops>::next(Key const& key, Value& value, IterHint& hint) const {
   refuseReentrancy();
   return attached() && map_.next(key, value, hint);
}

template <class Ops> typename MirakWriter<Ops>::Value* MirakWriter<Ops>::directWrite(Value const& value) {
   Key const key = Ops::key(value);
   if (busy()) [[unlikely]]
      refuseBusy("writing value:", keyText(value));
   releaseDue();
   auto section = slots_.enterCriticalSection();
   Place place = locate(key);
   if (!place.found) prepareInsert();
   Slot& slot = place.found ? *reinterpret_cast<Slot*>(place.curr) : allocate(place);
   ++counters_.directWrites;
   bool const occupied = Mem::loadShared(slot.versionFlags) & SlotFlags::occupied;
   unsigned char* const destination = occupied ? slots_.lookaside().value : slot.value;
   Mem::storeShared(destination, &value, sizeof(Value));
   u32 const index = slots_.indexOf(slot);
   LOMI_TRACE(debugHandler_, 9, "MirakWriter", "{}{} bucket:{} slot:{} next:{}",
              place.found ? " existing " : " new ", keyText(key), place.bucket, index,
              Mem::loadPair(slot.link).next);
   directSlot_ = index;
   directPrevLink_ = place.prev;
   directNew_ = !place.found;
   section.release(); // directCommit ends it
   return reinterpret_cast<Value*>(destination);
}

template <class Ops> typename MirakWriter<Ops>::Value* MirakWriter<Ops>::directUpdate(Key const& key) {
   if (busy()) [[unlikely]]
      refuseBusy("modifying key:", keyText(key));
   releaseDue();
   auto const section = slots_.enterCriticalSection();
   Place const place = locate(key);
   if (!place.found) return nullptr;
   Slot& slot = *reinterpret_cast<Slot*>(place.curr);
   ++counters_.directUpdates;
   directSlot_ = slots_.indexOf(slot);
   directPrevLink_ = place.prev;
   directNew_ = false;
   bool const occupied = Mem::loadShared(slot.versionFlags) & SlotFlags::occupied;
   return reinterpret_cast<Value*>(occupied ? slots_.lookaside().value : slot.value);
}

template <class Ops> void MirakWriter<Ops>::directCommit() {
   refuseReentrancy();
   LOMI_TRACE(debugHandler_, 9, "MirakWriter", "slot: {}", directSlot_);
   LOMI_ASSERT(directSlot_ != noSlot, debugHandler_, "{}",
               "not in direct mode! Make sure the DirectIs/Commit are properly paired!");
   u32 const index = directSlot_;
   Slot& slot = slots_.slot(index);
   // After directUpdate() nothing is marked. A change that is in the slot and not in the queue would be
   // adopted, and no follower would ever learn of it.
   if constexpr (Ops::hasChangeQueue) slots_.markCriticalSection();
   if (directNew_) publishLink(slot.link, Mem::loadPair(*directPrevLink_).next); // 2
   ++counters_.directCommits;
   u32 const word = Mem::loadShared(slot.versionFlags);
#ifndef NDEBUG
   // A caller that changed the key would make the row unfindable.
   Key const key = loadKey<Key>(word & SlotFlags::occupied ? slots_.lookaside().value : slot.value);
   LOMI_ASSERT(Lomi::Util::reverse(ops_.hash(key)) == Mem::loadShared(slot.rhash), debugHandler_,
               "direct operation changed the key of slot:{}", index);
#endif
   if (word & SlotFlags::occupied) { // 4: an existing row; its new value stands in `lookaside`
      Mem::storeShared(slots_.lookaside().rhash, Mem::loadShared(slot.rhash));
      Mem::storeShared(slot.versionFlags, word + 2); // SYNC(slot-word) store
      Value value;
      Mem::loadShared(&value, slots_.lookaside().value, sizeof value);
      Mem::storeShared(slot.value, &value, sizeof value);
      Mem::storeShared(slot.versionFlags, word + 4); // SYNC(slot-word) store
   } else {
      Mem::storeShared(slot.versionFlags, (word + 4) | SlotFlags::occupied); // SYNC(slot-word) store
   }
   directSlot_ = noSlot;                    // 5
   if (directNew_) {                        // 6
      publishLink(*directPrevLink_, index); // SYNC(chain-link) store: publishes the row
      u32 const rhash = Mem::loadShared(slot.rhash);
      map_.inserted(map_.bucketOf(Lomi::Util::reverse(rhash)), directPrevLink_, rhash, index);
      directNew_ = false;
   }
   if (members() > map_.growThreshold()) [[unlikely]]
      growBuckets();              // 7
   queue_.notify(index);          // 8
   slots_.leaveCriticalSection(); // 9
}

template <class Ops> void MirakWriter<Ops>::validateVersionAnchor() const {
   Mem::VersionAnchor const anchor = anchor_;
   if (anchorHook_) anchorHook_(anchor);
   LOMI_ASSERT(anchor.offset != Mem::anchorUnset, debugHandler_, "{}",
               "should not be called on a default-constructed VersionAnchor");
   // The mapping may have moved or gone since the read; then the caller's pointer dangles, too.
   bool const mapped = attached() && anchor.base == slots_.base() &&
                       u64{anchor.offset} + sizeof(u32) <= slots_.wrapper().mappedSize();
   if (anchor.offset != Mem::anchorGone && mapped) {
      auto const& word = *reinterpret_cast<u32 const*>(anchor.base + anchor.offset);
      if (Mem::loadShared(word) == anchor.word) return; // SYNC(slot-word) load
   }
   throw Mem::VersionMismatchException("");
}

} // namespace Mirak
