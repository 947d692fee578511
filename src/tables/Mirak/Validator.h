// SPDX-License-Identifier: Apache-2.0
// A full audit of one table by its writer: chains, free list, counters and, where there is one, the change
// queue must tell the same story of every slot. It decides whether a table found at a start is adopted. It
// never repairs anything and stores nothing in the files.
//
// The chains are walked with the writer's own first() and next(), which check each key and rhash and call
// markOccupied() for each slot. Cost: one pass over the table in walk order, one over the free list, one over
// the queue; two bytes of private memory a slot, and one an entry.
#pragma once

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mirak/IterHint.h"
#include "Mirak/SlotTable.h"
#include "Parcel/KestorId.h"
#include "Wend/Local.h"

#include <fmt/format.h>
#include <string>

namespace Mirak {

template <class Ops, class Writer> class Validator {
public:
   using Key = typename Ops::Key;
   using Value = typename Ops::Value;

   Validator(Lomi::Platform::DebugHandler const& handler, Writer& writer)
      : debugHandler_(handler)
      , writer_(writer)
      , occupiedMarks_(writer.capacity())
      // One more than there are slots: the first free index out of range still finds a mark to look at.
      , freeMarks_(writer.capacity() + 1) {}

   /// @return true if the table is sound; else error() says what is wrong
   /// @throws Lomi::CorruptionDetectedException likewise, from the walks
   bool doValidate(Parcel::KestorId kestor);
   bool walkOccupiedSlots();
   bool walkFreeSlots();
   /// Called by the hash map for every slot that a chain reaches. @throws Lomi::CorruptionDetectedException
   void markOccupied(u32 slotIndex);
   std::string const& error() const { return error_; }

private:
   using Header = SlotTableHeader;
   static constexpr u32 noNotification = 0xffffffff; ///< a slot without an entry; the slot of a tombstone

   bool fail(std::string text) {
      LOMI_TRACE(debugHandler_, 0, "Validator", "{}", text);
      error_ = std::move(text);
      return false;
   }
   template <class... Args>
   [[noreturn]] static void corrupt(fmt::format_string<Args...> format, Args&&... args) {
      throw Lomi::CorruptionDetectedException(fmt::format(format, std::forward<Args>(args)...));
   }
   bool checkSlotHeader(Parcel::KestorId kestor);
   void claimNotification(u32 slotIndex);
   bool checkFreeNotification(u32 slotIndex);
   bool walkQueue();
   bool checkEntry(u32 pos);

   Lomi::Platform::DebugHandler const& debugHandler_;
   Writer& writer_;
   u32 occupiedCount_ = 0;
   u32 freeCount_ = 0;
   u32 tesselCount_ = 0; ///< queue positions that an occupied slot claims
   Wend::Local<bool> occupiedMarks_;
   Wend::Local<bool> freeMarks_;
   Wend::Local<bool> tesselMarks_; ///< a mark for each queue position
   std::string error_;
};

template <class Ops, class Writer> bool Validator<Ops, Writer>::doValidate(Parcel::KestorId kestor) {
   bool const buckets = writer_.hashMap().buckets().validate(kestor, error_);
   bool const slots = checkSlotHeader(kestor);
   bool queue = true;
   if constexpr (Ops::hasChangeQueue) {
      queue = writer_.queue().tesselWriter.validate(
          kestor, Mem::loadShared(writer_.slotTable().header().mostSlots), error_);
   }
   if (!buckets || !slots || !queue) return false;
   if constexpr (Ops::hasChangeQueue) tesselMarks_.grow(writer_.queue().tesselWriter.count());
   if (!walkOccupiedSlots() || !walkFreeSlots()) return false;
   if (u32 const sum = occupiedCount_ + freeCount_; sum != writer_.capacity())
      return fail(fmt::format("bad slotCount:{} occupiedSlots:{} freeSlots:{} capacity:{}", sum,
                              occupiedCount_, freeCount_, writer_.capacity()));
   return walkQueue();
}

template <class Ops, class Writer> bool Validator<Ops, Writer>::checkSlotHeader(Parcel::KestorId kestor) {
   Header const& header = writer_.slotTable().header();
   // SYNC(critical-section) load
   u16 const flags = Mem::loadShared(header.runtimeFlags);
   if (flags & Header::inCriticalSection)
      return fail(fmt::format("bad critical section runtimeFlags:{:x}", flags));
   using Table = SlotTable<Ops>;
   return header.validate(debugHandler_, writer_.slotTable().wrapper().memSize(), kestor, Table::headerSize,
                          Table::slotSize, error_);
}

template <class Ops, class Writer> bool Validator<Ops, Writer>::walkOccupiedSlots() {
   LOMI_TRACE(debugHandler_, 5, "Validator", "{}", "starting");
   Header const& header = writer_.slotTable().header();
   u32 const occupied = Mem::loadShared(header.occupiedSlots);
   auto const& map = writer_.hashMap();
   Value value;
   Key last{};
   u32 lastRhash = 0;
   IterHint hint;
   bool ordered = true;
   u32 walked = 0;
   for (bool more = map.first(0, value, hint); more; more = map.next(last, value, hint)) {
      if (++walked > occupied)
         return fail(
             fmt::format("walkedSlots:{} is greater than header->occupiedSlots:{}", walked, occupied));
      Key const key = Ops::key(value);
      u32 const rhash = Mem::loadShared(writer_.slotTable().slot(hint.slot).rhash);
      if (walked > 1 && !(lastRhash < rhash || (lastRhash == rhash && last < key))) ordered = false;
      last = key;
      lastRhash = rhash;
   }
   LOMI_TRACE(debugHandler_, 5, "Validator", "marked {} slots", occupiedCount_);
   if (occupied != occupiedCount_)
      return fail(fmt::format("mismatch header->occupiedSlots:{} count:{}", occupied, occupiedCount_));
   // A row out of order would later be reported absent, or be stored a second time.
   if (!ordered) return fail("rows out of order or one key twice");
   return true;
}

template <class Ops, class Writer> void Validator<Ops, Writer>::markOccupied(u32 slotIndex) {
   LOMI_TRACE(debugHandler_, 9, "Validator", "slotIndex: {}", slotIndex);
   if (occupiedMarks_[slotIndex]) corrupt("duplicate slot: {}", slotIndex);
   ++occupiedCount_;
   occupiedMarks_[slotIndex] = true;
   u32 const word = Mem::loadShared(writer_.slotTable().slot(slotIndex).versionFlags);
   if (!(word & SlotFlags::occupied)) corrupt("missing OCCUPIED bit: {:#x}", word);
   if (word & SlotFlags::lookaside) corrupt("stuck LOOKASIDE bit: {:#x}", word);
   if constexpr (Ops::hasChangeQueue) claimNotification(slotIndex);
}

template <class Ops, class Writer> bool Validator<Ops, Writer>::walkFreeSlots() {
   LOMI_TRACE(debugHandler_, 5, "Validator", "{}", "starting");
   auto& table = writer_.slotTable();
   u32 const capacity = Mem::loadPair(table.header().numSlots).value;
   u32 index = Mem::loadShared(table.header().freeSlots);
   while (index != noSlot) {
      LOMI_TRACE(debugHandler_, 9, "Validator", "walking slotIndex: {}", index);
      if (index > capacity)
         return fail(fmt::format("corrupted free slot detected with out of bound index: {}", index));
      if (freeMarks_[index]) return fail(fmt::format("duplicate freeSlot detected: {}", index));
      ++freeCount_;
      freeMarks_[index] = true;
      auto const& slot = table.slot(index);
      u32 const word = Mem::loadShared(slot.versionFlags);
      if (!checkFreeNotification(index)) return false;
      if (word & SlotFlags::occupied)
         return fail(fmt::format("corrupted free slot not marked as empty: {}", index));
      // Left by a crash: the next insert would make it OCCUPIED with the bit still up, and readers would take
      // another row's value from `lookaside`.
      if (word & SlotFlags::lookaside) return fail(fmt::format("stuck LOOKASIDE bit: {:#x}", word));
      index = Mem::loadPair(slot.link).next;
   }
   LOMI_TRACE(debugHandler_, 5, "Validator", "marked {} free slots", freeCount_);
   return true;
}

/// An occupied slot's entry names it, and no other slot's.
template <class Ops, class Writer> void Validator<Ops, Writer>::claimNotification(u32 slotIndex) {
   auto const& queue = writer_.queue().tesselWriter;
   u32 const pos = queue.tesselSlot(slotIndex);
   if (pos == noNotification) {
      LOMI_TRACE(debugHandler_, 9, "Validator", "no notification in tessel queue for occupied slotId:{}",
                 slotIndex);
      return;
   }
   if (pos >= queue.count()) corrupt("slot:{} bad tessel index:{} size:{}", slotIndex, pos, queue.count());
   if (u32 const named = queue.notification(pos).slot; named != slotIndex)
      corrupt("slot:{} bad notification:{} slot:{}", slotIndex, pos, named);
   if (tesselMarks_[pos]) corrupt("slot:{} duplicate tessel position:{}", slotIndex, pos);
   tesselMarks_[pos] = true;
   ++tesselCount_;
}

/// A free slot may have an entry: that of its removal.
template <class Ops, class Writer> bool Validator<Ops, Writer>::checkFreeNotification(u32 slotIndex) {
   if constexpr (Ops::hasChangeQueue) {
      auto const& queue = writer_.queue().tesselWriter;
      u32 const pos = queue.tesselSlot(slotIndex);
      if (pos == noNotification) return true;
      if (pos >= queue.count())
         return fail(fmt::format("slot index:{} has out of range tessel slot: {}", slotIndex, pos));
      if (u32 const named = queue.notification(pos).slot; named != slotIndex)
         return fail(
             fmt::format("slot index:{} has slot:{} with wrong tessel slot:{}", slotIndex, named, pos));
   }
   return true;
}

/// Every entry is its slot's current one, a tombstone, or left by a compaction.
template <class Ops, class Writer> bool Validator<Ops, Writer>::walkQueue() {
   if constexpr (Ops::hasChangeQueue) {
      auto const& queue = writer_.queue().tesselWriter;
      for (u32 pos = 0; pos < queue.count(); ++pos)
         if (!checkEntry(pos)) return false;
      LOMI_TRACE(debugHandler_, 5, "Validator", "{} of {} notifications are of occupied slots", tesselCount_,
                 queue.count());
      // Positions of slots that a compaction cut off, which no list leads to.
      if (std::string error; !queue.validateBeyond(writer_.capacity(), error)) return fail(std::move(error));
   }
   return true;
}

template <class Ops, class Writer> bool Validator<Ops, Writer>::checkEntry(u32 pos) {
   auto const& queue = writer_.queue().tesselWriter;
   auto const [offset, slot] = queue.notification(pos);
   u64 const seq = queue.baseSequence() + offset;
   u32 const tesselSlot = queue.tesselSlot(slot);
   u64 const start = queue.corralStart(), end = queue.corralEnd();
   if (start != 0 && seq >= start && (end == 0 || seq <= end)) {
      // Rows were moved: the slot's real position is elsewhere.
      if (tesselSlot == pos)
         return fail(fmt::format("corral pos:{} seq:{} slot:{} tesselPos:{}", pos, seq, slot, tesselSlot));
      return true;
   }
   if (slot == noNotification) {
      if (tesselMarks_[pos]) return fail(fmt::format("active tombstone pos:{}", pos));
      return true;
   }
   if (!tesselMarks_[pos] && slot < writer_.capacity() &&
       (Mem::loadShared(writer_.slotTable().slot(slot).versionFlags) & SlotFlags::occupied))
      return fail(fmt::format("occupied slot:{} on deleted notification:{}", slot, pos));
   if (pos != tesselSlot)
      return fail(fmt::format("tessel pos:{} has slot:{} seq:{} with wrong tesselSlot:{}", pos, slot, seq,
                              tesselSlot));
   return true;
}

} // namespace Mirak
