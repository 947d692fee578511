// SPDX-License-Identifier: Apache-2.0
// TesselWriter while it serves: room for more slots, turns, the marks of a compaction, memory given back.
// Included by TesselWriter.cpp only. TesselWriter.h says why the order of the stores is what it is.
#pragma once

#include "Lomi/Exception.h"
#include "Lomi/Util.h"
#include "Tessel/TesselWriter.h"

#include <algorithm>
#include <fmt/format.h>

namespace Tessel {

/// Pointers into the mappings; any resize may move them.
template <class Slot, class Position> void TesselWriter<Slot, Position>::follow() {
   QueueTable& now = table(generation_);
   entries_ = now.entries();
   count_ = &now.count;
   nextWord_ = &header().next;
   positions_ = reinterpret_cast<Position*>(slotsWrapper_.base());
}

/// Makes a file longer, never shorter.
template <class Slot, class Position>
void TesselWriter<Slot, Position>::resizeFile(Mem::ParcelWrapper& wrapper, u64 size, u32 slots) {
   if (wrapper.mappedSize() >= size) return;
   bool const done = wrapper.resize(size) != nullptr;
   follow();
   if (!done)
      throw Lomi::MemoryResourceException(
          fmt::format("failed to resize {} for {} slots, needed {} bytes. Reason: {}", wrapper.getFilename(),
                      slots, size, wrapper.lastError()));
}

template <class Slot, class Position> void TesselWriter<Slot, Position>::reserveMore(u32 slots) {
   // After an adoption there may be entries of slots that the table doesn't have any more.
   u32 const all = std::max(slots, slotsLength_);
   if (!local_ && all > reservedSlots_) {
      LOMI_ASSERT(attached(), debugHandler(), "no open queue: {}", headerWrapper_.getFilename());
      u64 const entries = std::max<u64>(entriesFor(all), leastEntries);
      if (entries > Mem::Local::maxMappingSize() / sizeof(QueueEntry) - 2)
         throw Lomi::MemoryResourceException(
             fmt::format("a queue for {} slots is too large for {}", all, headerWrapper_.getFilename()));
      for (auto& wrapper : tables_) resizeFile(wrapper, tableFileSize(static_cast<u32>(entries)), all);
      resizeFile(slotsWrapper_, u64{4} * all, all);
      if (all > slotsLength_) fillPositions(slotsLength_, all);
      reservedSlots_ = all;
   }
   presentSlots_ = slots;
   updateChores();
}

/// No entries for the slots from `from` to `to` - 1, which are new.
template <class Slot, class Position> void TesselWriter<Slot, Position>::fillPositions(u32 from, u32 to) {
   for (u32 slot = from; slot < to; ++slot)
      Mem::storeShared(positions_[slot], static_cast<Position>(noPosition));
   Mem::storeShared(header().slotsLength, to);
   slotsLength_ = to;
}

template <class Slot, class Position> void TesselWriter<Slot, Position>::makeRoom() {
   LOMI_ASSERT(attached(), debugHandler(), "no open queue: {}", headerWrapper_.getFilename());
   turn(dropWanted_);
}

/// Changes up to here may be left out by a turn.
template <class Slot, class Position> u64 TesselWriter<Slot, Position>::newFloor(bool drop) const {
   constexpr u64 span = u64{1} << 31; // relative sequences have 32 bits
   u64 floor = Mem::loadShared(header().floor);
   if (drop) floor = std::max(floor, corralEnd_);
   if (next_ > span) floor = std::max(floor, next_ - span);
   // With nobody connected this is 0: those who are away for a moment, as at a restart of this process, shall
   // find their place again.
   if (pruneMode_ == PruneMode::prune && followers_)
      floor = std::max(floor, std::min(followers_->reportedByAll(), tail()));
   // Who comes after a death inside this compaction sweeps from its start on: that must not be left out.
   if (shrinking_ && corralStart_ != 0) floor = std::min(floor, corralStart_ - 1);
   return floor;
}

/// As many free entries as there are kept ones, so that copying costs a change no more than one entry; a
/// small queue gets three times as many, which still fit in the processor's caches.
template <class Slot, class Position> u32 TesselWriter<Slot, Position>::nextCapacity(u32 kept) const {
   constexpr u64 more = 16 * 1024;
   u64 const room = std::max<u64>(entriesFor(reservedSlots_), leastEntries);
   u64 const wanted = u64{2} * kept + std::min(u64{2} * kept, more) + 2;
   return static_cast<u32>(std::min(room, std::max<u64>(leastEntries, wanted)));
}

/// Notes which of the entries from `from` to `to` - 1 are alive, without a branch that depends on it: which
/// ones is as good as random. Asks for their positions, which lie anywhere. @return how many
template <class Slot, class Position>
u32 TesselWriter<Slot, Position>::findAlive(u32 from, u32 to, u32* alive) const {
   u32 found = 0;
   for (u32 at = from; at < to; ++at) {
      u32 const slot = Mem::loadShared(entries_[at].slot);
      alive[found] = at;
      found += slot != tombstoneSlot ? 1 : 0;
      Mem::prefetchShared(&positions_[slot < slotsLength_ ? slot : 0]);
   }
   return found;
}

/// Copies what is alive and above `floor` into the other table, in order. @return how many entries that is
template <class Slot, class Position> u32 TesselWriter<Slot, Position>::carry(u64 floor, u64& newBase) {
   constexpr u32 block = 128; // as many positions are on their way at a time
   u32 alive[block];
   QueueEntry* const out = table(generation_ + 1).entries();
   u32 const room = nextCapacity(noPosition);
   u64 due = hook_ ? Lomi::Rdtsc::now() + slice_ : 0;
   newBase = next_;
   namedSlots_ = 0;
   u32 kept = 0;
   for (u32 from = 0; from < used_; from += block) {
      if (from % sliceEntries == 0 && hook_ && Lomi::Rdtsc::now() >= due) {
         hook_();
         due = Lomi::Rdtsc::now() + slice_;
      }
      u32 const found = findAlive(from, std::min(used_, from + block), alive);
      for (u32 n = 0; n < found; ++n) {
         u32 const at = alive[n];
         u32 const slot = Mem::loadShared(entries_[at].slot);
         u64 const sequence = base_ + Mem::loadShared(entries_[at].relative);
         if (sequence <= floor) {
            // An entry of a compaction isn't its slot's current one; that may stand further behind.
            if (slot < slotsLength_ && Mem::loadShared(positions_[slot]) == at)
               Mem::storeShared(positions_[slot], static_cast<Position>(noPosition));
            continue;
         }
         LOMI_ASSERT(kept < room, debugHandler(), "more than {} live entries in {}", room,
                     headerWrapper_.getFilename());
         if (kept == 0) newBase = sequence;
         Mem::storeShared(out[kept].relative, static_cast<u32>(sequence - newBase));
         Mem::storeShared(out[kept].slot, slot);
         if (!inCorral(sequence) && slot < slotsLength_)
            Mem::storeShared(positions_[slot], static_cast<Position>(kept));
         namedSlots_ = std::max(namedSlots_, slot + 1);
         ++kept;
      }
   }
   return kept;
}

template <class Slot, class Position> void TesselWriter<Slot, Position>::turn(bool drop) {
   u32 const generation = generation_ + 1;
   QueueTable& other = table(generation);
   Mem::storeShared(other.count, u32{0});
   Mem::storeShared(other.generation, generation);
   u64 const floor = newFloor(drop);
   u64 base = 0;
   u32 const kept = carry(floor, base);
   u32 const capacity = nextCapacity(kept);
   Mem::storeShared(other.capacity, capacity);
   Mem::storeShared(header().base[generation & 1], base);
   Mem::storeShared(other.count, kept);
   // Before the generation: a follower that places itself in the new table must see what is no longer in it.
   Mem::storeShared(header().floor, floor);
   // SYNC(queue-generation) store: the other table is complete, and from the next turn on this one is
   // rewritten.
   Mem::storeShared(header().generation, generation);
   generation_ = generation;
   base_ = base;
   used_ = turnedAt_ = kept;
   limit_ = capacity_ = capacity;
   ++turns_;
   follow();
   if (corralEnd_ != 0 && floor >= corralEnd_) {
      // Start before end: an end of 0 beside a start says that a compaction is running.
      Mem::storeShared(header().corralStart, corralStart_ = 0);
      Mem::storeShared(header().corralEnd, corralEnd_ = 0);
   }
   dropWanted_ = false;
   updateChores();
}

template <class Slot, class Position> void TesselWriter<Slot, Position>::markShrinkStart() {
   LOMI_ASSERT(!shrinking_ && corralStart_ == 0, debugHandler(), "a compaction of {} inside another one",
               headerWrapper_.getFilename());
   shrinking_ = true;
   if (local_) return;
   Mem::storeShared(header().corralEnd, corralEnd_ = 0);
   // SYNC(queue-corral) store: before the first move.
   Mem::storeShared(header().corralStart, corralStart_ = next_);
}

template <class Slot, class Position> void TesselWriter<Slot, Position>::markShrinkEnd() {
   LOMI_ASSERT(shrinking_, debugHandler(), "no compaction of {} to end", headerWrapper_.getFilename());
   shrinking_ = false;
   if (local_) return;
   if (next_ == corralStart_) {
      Mem::storeShared(header().corralStart, corralStart_ = 0);
      return;
   }
   Mem::storeShared(header().corralEnd, corralEnd_ = next_ - 1);
   if (!followers_ || !followers_->anyConnected()) turn(true);
   updateChores();
}

template <class Slot, class Position> u64 TesselWriter<Slot, Position>::shrinkMarker() {
   if (corralEnd_ != 0) {
      dropWanted_ = true;
      limit_ = 0;
   }
   return corralStart_;
}

template <class Slot, class Position> void TesselWriter<Slot, Position>::trim(u32 slots) {
   if (slots >= presentSlots_) return;
   if (used_ != turnedAt_) namedSlots_ = std::max(namedSlots_, presentSlots_);
   presentSlots_ = slots;
   updateChores();
}

/// The slots that the files need room for.
template <class Slot, class Position> u32 TesselWriter<Slot, Position>::neededSlots() const {
   return std::min(reservedSlots_, std::max(presentSlots_, namedSlots_));
}

template <class Slot, class Position>
u64 TesselWriter<Slot, Position>::neededTableSize(u32 side, u32 slots) const {
   u64 entries = std::max<u64>(entriesFor(slots), leastEntries);
   if (side == (generation_ & 1)) entries = std::max<u64>(entries, capacity_);
   return tableFileSize(static_cast<u32>(entries));
}

/// Cuts the files down to the slots that are left. Whoever is just inside reads what was there, or zeros, and
/// looks at the generation again.
template <class Slot, class Position> void TesselWriter<Slot, Position>::cut() {
   u32 const slots = neededSlots();
   reservedSlots_ = slots;
   auto shorten = [&](Mem::ParcelWrapper& wrapper, u64 size) {
      if (wrapper.mappedSize() <= size) return;
      if (wrapper.resize(size)) wrapper.releaseTailAfter(size);
      follow();
   };
   for (u32 side = 0; side < 2; ++side) shorten(tables_[side], neededTableSize(side, slots));
   if (slots < slotsLength_) {
      Mem::storeShared(header().slotsLength, slotsLength_ = slots);
      shorten(slotsWrapper_, std::max<u64>(u64{4} * slots, Mem::pageSize_));
   }
}

template <class Slot, class Position> bool TesselWriter<Slot, Position>::cuttable() const {
   u32 const slots = neededSlots();
   return slots < reservedSlots_ || tables_[0].mappedSize() > neededTableSize(0, slots) ||
          tables_[1].mappedSize() > neededTableSize(1, slots);
}

template <class Slot, class Position> void TesselWriter<Slot, Position>::updateChores() {
   if (local_ || !attached()) {
      chores_ = false;
      return;
   }
   bool const release =
       tables_[0].releasePending() || tables_[1].releasePending() || slotsWrapper_.releasePending();
   chores_ = release || (corralEnd_ != 0 && !dropWanted_) || cuttable();
}

template <class Slot, class Position> void TesselWriter<Slot, Position>::chores() {
   if (!chores_) return;
   for (auto* wrapper : {&tables_[0], &tables_[1], &slotsWrapper_})
      if (wrapper->releasePending()) wrapper->releaseTailIfDue();
   if (cuttable()) cut();
   // Where all followers are behind a compaction, nobody loses by its end. Not looked at each time: there may
   // be many.
   if (corralEnd_ != 0 && followers_ && patience_++ % 16 == 0 && followers_->reportedByAll() >= corralEnd_)
      shrinkMarker();
   updateChores();
}

template <class Slot, class Position> void TesselWriter<Slot, Position>::refuseSlot(u32 slot) const {
   Lomi::fmassert(debugHandler(), __FILE__, __LINE__, __func__,
                  "slot {} is beyond the {} that {} has room for", slot, slotsLength_,
                  headerWrapper_.getFilename());
}

} // namespace Tessel
