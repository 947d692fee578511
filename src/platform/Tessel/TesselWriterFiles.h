// SPDX-License-Identifier: Apache-2.0
// TesselWriter's files: adopt or format, prove, look into, remove. Included by TesselWriter.cpp only.
#pragma once

#include "Lomi/Exception.h"
#include "Lomi/Util.h"
#include "Tessel/TesselWriter.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Tessel {

/// Lengths of the files as they were found; 0 where there is none.
template <class Slot, class Position> struct TesselWriter<Slot, Position>::Found {
   u64 header;
   u64 tables[2];
   u64 slots;

   bool any() const { return header != 0 || tables[0] != 0 || tables[1] != 0 || slots != 0; }
};

template <class Slot, class Position>
TesselWriter<Slot, Position>::TesselWriter(Lomi::Platform::DebugHandler const& handler,
                                           Mem::NaoRootPath const& rootPath, bool local, PruneMode pruneMode,
                                           std::function<void()> beforeFormat)
   : TesselTable(handler, rootPath, local)
   , beforeFormat_(std::move(beforeFormat))
   , slotsWrapper_(handler, rootPath, slotsFile, local)
   , local_(local)
   , pruneMode_(pruneMode) {}

template <class Slot, class Position> int TesselWriter<Slot, Position>::attach(Parcel::KestorId kestor) {
   detach();
   if (local_) return queueNew;
   // The rate is learned at its first use, and that takes a moment: not inside a turn.
   if (hook_) slice_ = static_cast<u64>(sliceSeconds * Lomi::Rdtsc::calibrationRate());
   Found const found{
       headerWrapper_.memSize(), {tables_[0].memSize(), tables_[1].memSize()}, slotsWrapper_.memSize()};
   auto open = [](Mem::ParcelWrapper& wrapper, u64 size) {
      if (!wrapper.attach(size, Mem::Mode::writer))
         throw Lomi::InvalidInitializeException(fmt::format(
             "cannot attach to shmem {} size:{}: {}", wrapper.getFilename(), size, wrapper.lastError()));
   };
   open(headerWrapper_, headerFileSize);
   for (auto& wrapper : tables_) open(wrapper, Mem::pageSize_);
   open(slotsWrapper_, Mem::pageSize_);
   bool const kept = adopt(kestor, found);
   if (!kept) {
      if (beforeFormat_) beforeFormat_();
      format(kestor);
   }
   // What an earlier content, or a cut that a crash interrupted, left behind the ends.
   for (auto* wrapper : {&tables_[0], &tables_[1], &slotsWrapper_})
      wrapper->releaseTailAfter(wrapper->mappedSize());
   figuresIs(0, 0);
   updateChores();
   int const result = kept ? queueExisting : found.any() ? queueReformatted : queueNew;
   LOMI_TRACE(debugHandler(), result == queueReformatted ? 1 : 2, "TesselWriter", "{} {}",
              kept                         ? "to existing"
              : result == queueReformatted ? "re-formatted"
                                           : "to new file",
              headerWrapper_.getFilename());
   LOMI_TRACE(debugHandler(), 3, "TesselWriter", "{}", headersToString());
   return result;
}

/// Takes the files over as they are, if they are all there, of this generation, and hold what their headers
/// say. The rest is validate()'s matter.
template <class Slot, class Position>
bool TesselWriter<Slot, Position>::adopt(Parcel::KestorId kestor, Found const& found) {
   if (found.header < headerFileSize || Mem::loadShared(header().kestor) != kestor.value()) return false;
   auto refuse = [this](std::string const& reason) {
      LOMI_TRACE(debugHandler(), 0, "TesselWriter", "{}: {}", headerWrapper_.getFilename(), reason);
      return false;
   };
   std::string error;
   if (!header().validate(kestor, error)) return refuse(error);
   u32 const generation = Mem::loadShared(header().generation);
   u64 const tableLength = found.tables[generation & 1];
   if (tableLength < sizeof(QueueTable) || found.tables[~generation & 1] == 0 || found.slots == 0)
      return refuse("one of the queue's files is missing");
   u32 const capacity = Mem::loadShared(table(generation).capacity);
   u32 const count = Mem::loadShared(table(generation).count);
   u32 const length = Mem::loadShared(header().slotsLength);
   if (tableLength < tableFileSize(capacity))
      return refuse(fmt::format("bad queue table size:{} wanted:{} for {} entries", tableLength,
                                tableFileSize(capacity), capacity));
   if (count > capacity) return refuse(fmt::format("bad queue count:{} capacity:{}", count, capacity));
   if (found.slots < u64{4} * length)
      return refuse(fmt::format("bad size of {}:{} wanted:{}", slotsFile, found.slots, u64{4} * length));
   generation_ = generation;
   resizeFile(tables_[generation & 1], tableFileSize(capacity), length);
   resizeFile(slotsWrapper_, u64{4} * length, length);
   base_ = Mem::loadShared(header().base[generation & 1]);
   next_ = Mem::loadShared(header().next);
   corralStart_ = Mem::loadShared(header().corralStart);
   corralEnd_ = corralStart_ == 0 ? 0 : Mem::loadShared(header().corralEnd);
   slotsLength_ = namedSlots_ = length;
   used_ = turnedAt_ = count;
   limit_ = capacity_ = capacity;
   follow();
   return true;
}

/// An empty queue. Whoever still follows the old content sees first that there is none (kestor 0), then a
/// generation that isn't its own; and its place, if it keeps it, lies below the floor.
template <class Slot, class Position> void TesselWriter<Slot, Position>::format(Parcel::KestorId kestor) {
   QueueHeader& shared = header();
   std::string error;
   u64 const old = Mem::loadShared(shared.next);
   bool const readable = shared.validate({}, error) && old >= 1 && old < Rusk::noSequence / 2;
   next_ = readable ? old + 1 : 1;
   generation_ = Mem::loadShared(shared.generation) + 1;
   // SYNC(queue-kestor) store: from here on the queue belongs to no content.
   Mem::storeShared(shared.kestor, u32{0});
   Mem::storeShared(shared.generation, generation_);
   for (auto& wrapper : tables_) {
      resizeFile(wrapper, tableFileSize(leastEntries), 0);
      auto& emptied = *reinterpret_cast<QueueTable*>(wrapper.base());
      Mem::storeShared(emptied.count, u32{0});
      Mem::storeShared(emptied.generation, generation_);
      Mem::storeShared(emptied.capacity, leastEntries);
   }
   fillPositions(0, 0);
   Mem::storeShared(shared.corralStart, corralStart_ = 0);
   Mem::storeShared(shared.corralEnd, corralEnd_ = 0);
   Mem::storeShared(shared.next, next_);
   Mem::storeShared(shared.floor, next_ - 1);
   for (u64& base : shared.base) Mem::storeShared(base, next_);
   Mem::storeShared(shared.magic, QueueHeader::magicValue);
   Mem::storeShared(shared.version, QueueHeader::formatVersion);
   Mem::storeShared(shared.platform, QueueHeader::platformX86);
   Mem::storeShared(shared.entryKind, QueueHeader::slotEntries);
   u64 const now = Lomi::Rdtsc::now();
   u32 const stamp = static_cast<u32>(now ^ now >> 32) ^ static_cast<u32>(::getpid()) << 16;
   Mem::storeShared(shared.stamp, stamp);
   Mem::storeShared(shared.hash, shared.checksum());
   // SYNC(queue-kestor) store: the queue is complete.
   Mem::storeShared(shared.kestor, kestor.value());
   base_ = next_;
   used_ = turnedAt_ = 0;
   limit_ = capacity_ = leastEntries;
   namedSlots_ = 0;
   follow();
}

template <class Slot, class Position>
void TesselWriter<Slot, Position>::figuresIs(u32 followers, u32 resyncs) {
   if (!attached()) return;
   for (auto const& [word, value] : {std::pair(&header().followers, followers), {&header().resyncs, resyncs}})
      if (Mem::loadShared(*word) != value) Mem::storeShared(*word, value);
}

template <class Slot, class Position> void TesselWriter<Slot, Position>::detach() {
   slotsWrapper_.detach();
   for (auto& wrapper : tables_) wrapper.detach();
   headerWrapper_.detach();
   entries_ = nullptr;
   count_ = nullptr;
   nextWord_ = nullptr;
   positions_ = nullptr;
   slotsLength_ = used_ = limit_ = capacity_ = turnedAt_ = 0;
   presentSlots_ = reservedSlots_ = namedSlots_ = 0;
   corralStart_ = corralEnd_ = 0;
   shrinking_ = dropWanted_ = chores_ = false;
}

template <class Slot, class Position> void TesselWriter<Slot, Position>::cleanup() {
   if (local_) return;
   for (auto* wrapper : {&slotsWrapper_, &tables_[0], &tables_[1], &headerWrapper_}) {
      LOMI_TRACE(debugHandler(), 3, "TesselWriter", "removing file: {}", wrapper->getFilename());
      if (!wrapper->remove()) throw Lomi::RuntimeException(wrapper->lastError());
   }
}

template <class Slot, class Position>
bool TesselWriter<Slot, Position>::validate(Parcel::KestorId kestor, u32 mostSlots,
                                            std::string& error) const {
   if (local_) return true;
   auto fail = [&](std::string text) {
      LOMI_TRACE(debugHandler(), 0, "TesselWriter", "{}", text);
      error = std::move(text);
      return false;
   };
   std::string reason;
   if (!attached()) return fail(fmt::format("no open queue: {}", headerWrapper_.getFilename()));
   if (!header().validate(kestor, reason)) return fail(reason);
   QueueTable const& now = table(generation_);
   u32 const generation = Mem::loadShared(header().generation);
   if (Mem::loadShared(now.generation) != generation || generation != generation_)
      return fail(fmt::format("bad generation of queue table:{} wanted:{}", Mem::loadShared(now.generation),
                              generation));
   u32 const capacity = Mem::loadShared(now.capacity);
   if (tables_[generation & 1].memSize() < tableFileSize(capacity) || capacity != capacity_)
      return fail(
          fmt::format("bad queue capacity:{} file size:{}", capacity, tables_[generation & 1].memSize()));
   u32 const count = Mem::loadShared(now.count);
   if (count > capacity) return fail(fmt::format("bad queue count:{} capacity:{}", count, capacity));
   if (u32 const length = Mem::loadShared(header().slotsLength); slotsWrapper_.memSize() < u64{4} * length)
      return fail(fmt::format("bad slotsLength:{} file size:{}", length, slotsWrapper_.memSize()));
   u64 const next = Mem::loadShared(header().next);
   u64 const start = Mem::loadShared(header().corralStart);
   u64 const end = Mem::loadShared(header().corralEnd);
   if (next == 0 || next == Rusk::noSequence) return fail(fmt::format("bad queue next:{}", next));
   if (u64 const floor = Mem::loadShared(header().floor); floor >= next)
      return fail(fmt::format("bad queue floor:{} next:{}", floor, next));
   if (start != 0 && end == 0) return fail(fmt::format("unfinished compaction corralStart:{}", start));
   if (end != 0 && start != 0 && (end < start || end >= next))
      return fail(fmt::format("bad corralStart:{} corralEnd:{} next:{}", start, end, next));
   return validateEntries(count, mostSlots, reason) || fail(reason);
}

template <class Slot, class Position>
bool TesselWriter<Slot, Position>::validateEntries(u32 count, u32 mostSlots, std::string& error) const {
   QueueEntry const* const entries = table(generation_).entries();
   u64 const base = Mem::loadShared(header().base[generation_ & 1]);
   u64 const next = Mem::loadShared(header().next);
   u64 last = 0;
   u64 alive = 0;
   for (u32 at = 0; at < count; ++at) {
      u64 const sequence = base + Mem::loadShared(entries[at].relative);
      u32 const slot = Mem::loadShared(entries[at].slot);
      if (sequence <= last || sequence < base || sequence >= next)
         error = fmt::format("bad sequence:{} pos:{} behind:{} next:{}", sequence, at, last, next);
      else if (slot >= mostSlots && slot != tombstoneSlot)
         error = fmt::format("bad slot:{} pos:{} mostSlots:{}", slot, at, mostSlots);
      else if (slot != tombstoneSlot && ++alive > keptBound(mostSlots))
         error = fmt::format("more than {} live entries for {} slots", keptBound(mostSlots), mostSlots);
      else {
         last = sequence;
         continue;
      }
      return false;
   }
   return true;
}

template <class Slot, class Position>
bool TesselWriter<Slot, Position>::validateBeyond(u32 firstSlot, std::string& error) const {
   u32 const count = this->count();
   for (u32 slot = firstSlot; slot < slotsLength_; ++slot) {
      u32 const position = tesselSlot(slot);
      if (position == noPosition) continue;
      if (position < count && Mem::loadShared(table(generation_).entries()[position].slot) == slot) continue;
      error = fmt::format("slot:{} beyond the table has bad tessel index:{} size:{}", slot, position, count);
      LOMI_TRACE(debugHandler(), 0, "TesselWriter", "{}", error);
      return false;
   }
   return true;
}

template <class Slot, class Position> void TesselWriter<Slot, Position>::validateFile() const {
   if (local_) return;
   for (auto* wrapper : wrappers()) {
      struct stat status {};
      std::string const name = wrapper->getFilename();
      u64 const wanted = std::max<u64>(wrapper->mappedSize(), sizeof(QueueTable));
      std::string failure;
      if (::lstat(name.c_str(), &status) != 0)
         failure = fmt::format("cannot stat {}: {}", name, std::strerror(errno));
      else if (!S_ISREG(status.st_mode))
         failure = fmt::format("{} is not a regular file", name);
      else if (static_cast<u64>(status.st_size) < wanted)
         failure = fmt::format("{} has {} bytes, wanted at least {}", name, status.st_size, wanted);
      if (failure.empty()) continue;
      LOMI_TRACE(debugHandler(), 0, "TesselWriter", "{}", failure);
      throw Lomi::CorruptionDetectedException(failure);
   }
}

template <class Slot, class Position>
typename TesselWriter<Slot, Position>::Notification
TesselWriter<Slot, Position>::notification(u32 position) const {
   u32 const count = this->count();
   if (position >= count)
      throw Lomi::CorruptionDetectedException(
          fmt::format("out-of-range index:{} max:{}", position, count == 0 ? 0 : count - 1));
   QueueEntry const& entry = table(generation_).entries()[position];
   return {Mem::loadShared(entry.relative), Mem::loadShared(entry.slot)};
}

template <class Slot, class Position> u32 TesselWriter<Slot, Position>::tesselSlot(u32 slot) const {
   return slot < slotsLength_ ? static_cast<u32>(Mem::loadShared(positions_[slot])) : noPosition;
}

template <class Slot, class Position> std::string TesselWriter<Slot, Position>::dump() const {
   std::string text = headersToString();
   for (u32 at = 0; at < count(); ++at) {
      Notification const entry = notification(at);
      text += fmt::format("\npos:{} seq:{} slot:{}", at, baseSequence() + entry.offset,
                          entry.slot == tombstoneSlot ? "-" : std::to_string(entry.slot));
   }
   return text;
}

} // namespace Tessel
