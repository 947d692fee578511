// SPDX-License-Identifier: Apache-2.0
// The follower's steps F1 to F5 of TesselWriter.h. Nothing that is read of a table is believed before the
// generation was looked at again; then it is the writer's own word, and what can't be a writer's is
// corruption.
#include "Tessel/TesselReader.h"

#include "Lomi/Exception.h"

#include <fmt/format.h>

namespace Tessel {
/// The current table's entries below a count.
template <class Slot> class TesselReader<Slot>::TesselNotifications {
public:
   TesselNotifications(QueueTable const& table, u32 count)
      : entries_(table.entries())
      , count_(count) {}
   QueueEntry const& operator[](u32 position) const {
      if (position >= count_)
         throw Lomi::CorruptionDetectedException(
             fmt::format("out-of-range index:{} max:{}", position, count_ == 0 ? 0 : count_ - 1));
      return entries_[position];
   }

private:
   QueueEntry const* entries_;
   u32 count_;
};

template <class Slot> bool TesselReader<Slot>::attach(Parcel::KestorId kestor) {
   detach();
   auto open = [this](Mem::ParcelWrapper& wrapper, u64 size) {
      if (!wrapper.attach(size, Mem::Mode::reader)) lastError_ = wrapper.lastError();
      return wrapper.isAttached();
   };
   bool const mapped = open(headerWrapper_, headerFileSize) && open(tables_[0], sizeof(QueueTable)) &&
                       open(tables_[1], sizeof(QueueTable));
   std::string error;
   if (!mapped || !header().validate(kestor, error)) {
      if (mapped) lastError_ = fmt::format("{}: {}", headerWrapper_.getFilename(), error);
      detach();
      return false;
   }
   u32 const stamp = Mem::loadShared(header().stamp);
   if (kestor != kestor_ || stamp != stamp_) {
      kestor_ = kestor;
      stamp_ = stamp;
      synced_ = false;
      last_ = 0;
   }
   return true;
}

template <class Slot> void TesselReader<Slot>::detach() {
   ++attachments_;
   placed_ = false;
   for (auto& wrapper : tables_) wrapper.detach();
   headerWrapper_.detach();
}

template <class Slot> bool TesselReader<Slot>::same(u32 generation) const {
   // SYNC(queue-generation) load: whoever has read a word of a later turn sees that turn's generation here.
   return Mem::loadShared(header().generation) == generation;
}

template <class Slot> void TesselReader<Slot>::corrupt(std::string text) const {
   throw Lomi::CorruptionDetectedException(fmt::format("{}: {}", headerWrapper_.getFilename(), text));
}

template <class Slot> Rusk::Sequence TesselReader<Slot>::capture() const {
   if (!attached()) return 0;
   for (;;) {
      // SYNC(queue-next) load: changes up to here are complete in their slots.
      u64 const given = Mem::loadShared(header().next) - 1;
      // SYNC(queue-corral) load: a compaction that began before that and isn't finished may have moved a row
      // away from a place that the sweep has yet to come to, and announced it already. A finished one has
      // moved all.
      u64 const start = Mem::loadShared(header().corralStart);
      u64 const end = Mem::loadShared(header().corralEnd);
      if (Mem::loadShared(header().corralStart) != start) continue; // start and end of different compactions
      return start != 0 && end == 0 && start <= given ? start - 1 : given;
   }
}

template <class Slot> void TesselReader<Slot>::sweptTo(Rusk::Sequence start) {
   last_ = start;
   synced_ = true;
   placed_ = false;
}

/// Maps the table for `capacity` entries, if it isn't mapped as far.
template <class Slot> bool TesselReader<Slot>::follow(u32 generation, u32 capacity) {
   Mem::ParcelWrapper& wrapper = tables_[generation & 1];
   u64 const size = tableFileSize(capacity);
   return wrapper.mappedSize() >= size || wrapper.resize(size);
}

/// The first entry of the current table behind `last`. @return more if the place was found, or is to be
/// sought again
template <class Slot> WalkResult TesselReader<Slot>::place() {
   placed_ = false;
   // SYNC(queue-generation) load: all that is read below is of this generation, or a later look says so.
   u32 const generation = Mem::loadShared(header().generation);
   // SYNC(queue-kestor) load: it was taken away before the generation moved, and given back last.
   if (Mem::loadShared(header().kestor) != kestor_.value()) return WalkResult::otherTable;
   if (!synced_) return WalkResult::resync;
   u64 const floor = Mem::loadShared(header().floor);
   u64 const next = Mem::loadShared(header().next);
   u64 const base = Mem::loadShared(header().base[generation & 1]);
   u32 const capacity = Mem::loadShared(table(generation).capacity);
   u32 const count = Mem::loadShared(table(generation).count);
   bool const mapped = count <= capacity && follow(generation, capacity);
   u32 position = 0;
   if (mapped) {
      QueueEntry const* const entries = table(generation).entries();
      u32 behind = count; // entries from here on have a larger sequence
      while (position < behind) {
         u32 const middle = position + (behind - position) / 2;
         if (base + Mem::loadShared(entries[middle].relative) > last_)
            behind = middle;
         else
            position = middle + 1;
      }
   }
   if (!same(generation)) return WalkResult::more;
   if (!mapped) {
      Mem::ParcelWrapper const& file = tables_[generation & 1];
      if (count > capacity || file.memSize() < tableFileSize(capacity))
         corrupt(fmt::format("bad queue table count:{} capacity:{} file size:{}", count, capacity,
                             file.memSize()));
      throw Lomi::MemoryResourceException(fmt::format("failed to map {} for {} entries. Reason: {}",
                                                      file.getFilename(), capacity, file.lastError()));
   }
   if (floor >= next) corrupt(fmt::format("bad queue floor:{} next:{}", floor, next));
   if (last_ < floor || last_ >= next) return WalkResult::resync;
   generation_ = generation;
   base_ = base;
   position_ = position;
   placed_ = true;
   return WalkResult::more;
}

template <class Slot> WalkResult TesselReader<Slot>::walk(u32 budget) {
   if (!attached()) return WalkResult::detached;
   u64 const attachment = attachments_;
   for (paused_ = false; budget != 0 && !paused_; --budget) {
      WalkResult const result = placed_ && same(generation_) ? step(attachment) : place();
      if (result != WalkResult::more) return result;
   }
   return WalkResult::more;
}

/// Takes in the entry at position_, if there is one.
template <class Slot> WalkResult TesselReader<Slot>::step(u64 attachment) {
   QueueTable const& now = table(generation_);
   // SYNC(queue-count) load: entries below are complete, and the changes that they announce.
   u32 const count = Mem::loadShared(now.count);
   bool const mapped = tables_[generation_ & 1].mappedSize() >= tableFileSize(count);
   if (position_ >= count || !mapped) {
      if (!same(generation_)) return WalkResult::more;
      if (position_ > count || !mapped)
         corrupt(fmt::format("bad queue table count:{} pos:{}", count, position_));
      return WalkResult::quiesced;
   }
   QueueEntry const& entry = now.entries()[position_];
   u64 const sequence = base_ + Mem::loadShared(entry.relative);
   u32 const slot = Mem::loadShared(entry.slot);
   // SYNC(queue-next) load: no entry's count is stored before all but its own `next` are.
   u64 const next = Mem::loadShared(header().next);
   if (!same(generation_)) return WalkResult::more;
   if (sequence <= last_ || sequence > next)
      corrupt(fmt::format("bad sequence:{} pos:{} behind:{} next:{}", sequence, position_, last_, next));
   if (slot != tombstoneSlot) {
      bool taken = false;
      consumed_ = false;
      try {
         taken = client_.doSlot(slot, sequence, true) || consumed_;
      } catch (...) {
         if (consumed_ && attachments_ == attachment) take(sequence);
         throw;
      }
      if (attachments_ != attachment) return WalkResult::detached;
      // Refused in another generation: the entry is met there again, if it lives. Refused in this one: it is
      // a tombstone by now, and a newer entry stands behind it.
      if (!taken && !same(generation_)) return WalkResult::more;
   }
   take(sequence);
   return WalkResult::more;
}

template <class Slot> bool TesselReader<Slot>::validateNotif() const {
   if (!attached() || !placed_ || !same(generation_)) return false;
   u32 const count = Mem::loadShared(table(generation_).count);
   bool const mapped = tables_[generation_ & 1].mappedSize() >= tableFileSize(position_ + 1);
   u32 const slot = mapped ? Mem::loadShared(table(generation_).entries()[position_].slot) : tombstoneSlot;
   // Without this look, a table that is being rewritten would pass for a damaged one.
   if (!same(generation_)) return false;
   static_cast<void>(TesselNotifications(table(generation_), count)[position_]);
   return slot != tombstoneSlot;
}

template <class Slot> bool TesselReader<Slot>::quiesced() const {
   if (!attached() || !placed_) return false;
   bool const atEnd = position_ >= Mem::loadShared(table(generation_).count);
   if (same(generation_)) return atEnd;
   // A turn announces nothing: who had taken in all before has all still, and need not be woken for it.
   bool const nothingNew = last_ >= tail();
   // SYNC(queue-kestor) load: taken away before the content is formatted anew, when sequences begin again.
   return nothingNew && Mem::loadShared(header().kestor) == kestor_.value() &&
          Mem::loadShared(header().stamp) == stamp_;
}

template <class Slot> Rusk::Sequence TesselReader<Slot>::tail() const {
   return attached() ? Mem::loadShared(header().next) - 1 : 0;
}

template class TesselReader<BasicSlot>;

} // namespace Tessel
