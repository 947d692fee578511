// SPDX-License-Identifier: Apache-2.0
// A reader's mapping of the slot file: maps the header first, keeps a private copy of the slot count, follows
// when the writer has grown or shrunk the file, and owns the one loop that copies a row under its sequence
// word. The layout and the writer's promises are in SlotTable.h.
//
// Guarantees. A slot below the private count lies in the mapping. readSlot() returns a row that was whole in
// the file at one moment: never half old, half new. A call that throws leaves mapping and count as they were,
// so that the next operation tries again.
//
// Progress. readSlot() repeats only if the writer stored the slot's word in between; a writer that died in
// the middle stands still, and the row is then in `lookaside`, whole.
//
// It deliberately resizes no file, stores nothing into one, and decides nothing about damage: that is
// MirakReader's. One thread per object.
#pragma once

#include "Lomi/Exception.h"
#include "Lomi/Util.h"
#include "Mem/ParcelWrapper.h"
#include "Mem/VersionAnchor.h"
#include "Mirak/Counters.h"
#include "Mirak/SlotTable.h"
#include "MirakCore/ReaderErrors.h"

#include <fmt/format.h>

#include <string>

namespace Mirak {

template <class Ops> class SlotReaderTable : public SlotTable<Ops> {
   using Base = SlotTable<Ops>;

public:
   using Key = typename Ops::Key;
   using Value = typename Ops::Value;
   using Slot = typename Base::Slot;
   using Header = typename Base::Header;
   using Base::headerSize;
   using Base::slotSize;

   /// Bytes of a value's front that hold the whole key, in words: what a walk reads of a row it only passes.
   static constexpr u32 frontBytes =
       (sizeof(Key) + 7) / 8 * 8 < sizeof(Value) ? (sizeof(Key) + 7) / 8 * 8 : sizeof(Value);
   static constexpr u32 restBytes = sizeof(Value) - frontBytes;

   /// The slots that are mapped.
   struct Slots {
      Slot const* base = nullptr;
      u32 count = 0;
      /// @throws Lomi::CorruptionDetectedException on an index that isn't mapped
      Slot const& operator[](u32 index) const {
         if (index >= count) [[unlikely]]
            MirakCore::ReaderErrors::slotOutOfRange(index, count);
         return base[index];
      }
   };

   /// What was seen beside a row: its sequence word and its place in the table's order.
   struct Read {
      u32 word;
      u32 rhash;
      bool occupied() const { return word & SlotFlags::occupied; }
   };

   /// @param seed the key hash's seed in the owner's Ops, set from the header
   SlotReaderTable(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath,
                   Reader::Counters& counters, u32& seed)
      : debugHandler_(handler)
      , name_(rootPath.name())
      , mapping_(handler, rootPath, "slots", false)
      , counters_(counters)
      , seed_(seed) {}

   /// Maps the header alone and takes the seed from it; capacity() is 0 until the first doResize(). Validates
   /// nothing. @return false with the reason in `error`
   bool attach(std::string& error);
   void detach();

   /// True when the header's slot count has moved on since it was last followed; false when detached.
   bool moved() const {
      // SYNC(num-slots) load: a version that stands still says that no slot was cut off meanwhile.
      return header_ && Mem::loadShared(header_->numSlots.version) != numSlots_.version;
   }
   /// Follows the header if it moved. Two loads when it didn't. @return whether the mapping was changed
   /// @throws Lomi::CorruptionDetectedException on a count that can't be right
   /// @throws Lomi::MemoryResourceException when the kernel refuses the mapping
   bool doResize() {
      if (!moved()) [[likely]]
         return false;
      follow();
      return true;
   }
   /// A copy of the header that straddles no grow or shrink. REQUIRES: attached. @return the file's size
   u64 copyHeader(Header& copy) const {
      return safeHeaderCopy(*header_, copy, [this] { return mapping_.memSize(); });
   }
   void hashSeedIs(u32 seed) { seed_ = seed; }

   /// The slot's own two words, in one load; with LOOKASIDE up the row itself is elsewhere.
   static Read loadWordAndHash(Slot const& slot) {
      static_assert(offsetof(Slot, rhash) == offsetof(Slot, versionFlags) + 4 &&
                    offsetof(Slot, versionFlags) % 8 == 0);
      u64 const both = Mem::loadShared(*reinterpret_cast<u64 const*>(&slot.versionFlags));
      return {static_cast<u32>(both), static_cast<u32>(both >> 32)};
   }

   /// Reads the row of `slot` as one whole: its front always, the rest only if `wanted(rhash)`, which is
   /// asked once or twice after the front is copied, says so. Leaves the anchor on the slot.
   /// @param front frontBytes of private memory; @param rest what follows them
   template <class Wanted>
   [[gnu::always_inline]] Read readSlot(Slot const& slot, void* front, void* rest,
                                        Wanted const& wanted) const {
      // SYNC(slot-word) load: an unchanged word on both sides of the copy proves the copy whole. Word and
      // rhash are one load.
      Read read = loadWordAndHash(slot);
      bool whole = false;
      if (!(read.word & SlotFlags::lookaside)) [[likely]] {
         Mem::loadSharedRow<frontBytes>(front, slot.value);
         if (wanted(read.rhash)) Mem::loadSharedRow<restBytes>(rest, slot.value + frontBytes);
         Read const again = loadWordAndHash(slot);
         whole = again.word == read.word;
         if (!whole) [[unlikely]]
            read = again;
      }
      if (!whole) [[unlikely]] {
         read = readChanging(slot, read, front, rest);
         wanted(read.rhash);
      }
      anchor_.word = read.word;
      anchor_.offset = static_cast<u32>(reinterpret_cast<char const*>(&slot.versionFlags) - mappedBase());
      anchor_.base = mappedBase();
      return read;
   }

   /// Reads the whole row of slot `index` into `value`, as readSlot does.
   /// @throws Lomi::CorruptionDetectedException on an index that isn't mapped
   [[gnu::always_inline]] Read getValue(u32 index, Value& value) const {
      auto* to = reinterpret_cast<unsigned char*>(&value);
      return readSlot(slots_[index], to, to + frontBytes, [](u32) { return true; });
   }

   Slots const& slots() const { return slots_; }
   u32 capacity() const { return numSlots_.value; }
   Header const* header() const { return header_; } ///< null while detached
   bool attached() const { return header_ != nullptr; }
   std::string headerToString() const { return header_ ? header_->toString() : "detached"; }
   Mem::ParcelWrapper const& mapping() const { return mapping_; }

   /// Of the last slot read, also of one that was thrown away.
   Mem::VersionAnchor const& anchor() const { return anchor_; }
   void resetAnchor() const { anchor_ = {}; }
   /// Whether `anchor` still lies in the mapping and its word still stands there. False, and nothing is
   /// touched, if the mapping moved since, or if the slot may have been cut off meanwhile: one that comes
   /// back counts its words from the beginning again.
   bool anchorHolds(Mem::VersionAnchor const& anchor) const {
      if (!header_ || anchor.base != mappedBase() || anchor.offset >= Base::endOf(numSlots_.value))
         return false;
      // SYNC(slot-word) load
      u32 const word = Mem::loadShared(*reinterpret_cast<u32 const*>(anchor.base + anchor.offset));
      // SYNC(num-slots) load: behind that of the word, so that it tells of all cuts before it.
      return word == anchor.word && anchor.offset < Base::endOf(keptSince(Mem::loadPair(header_->numSlots)));
   }
   /// An anchor that is kept for longer than one read: doResize() moves it along with the mapping, or marks
   /// it as gone when its slot was cut off.
   Mem::VersionAnchor& mappedAnchor() { return mappedAnchor_; }

private:
   [[gnu::cold, gnu::noinline]] Read readChanging(Slot const& slot, Read read, void* front, void* rest) const;
   /// So many slots have been in the table all the time since numSlots_ was taken, if the header says `now`:
   /// each step of the version is one growth or one cut.
   u32 keptSince(Mem::VersionedRef<u32> now) const {
      if (u32 const steps = now.version - numSlots_.version; steps <= 1)
         return std::min(now.value, numSlots_.value);
      return 0;
   }
   char const* mappedBase() const { return reinterpret_cast<char const*>(header_); }
   u64 bytesFor(u32 numSlots) const;
   [[gnu::cold, gnu::noinline]] void follow();
   static void markGone(Mem::VersionAnchor& anchor) {
      if (anchor.offset != Mem::anchorUnset) anchor.offset = Mem::anchorGone;
   }

   Lomi::Platform::DebugHandler const& debugHandler_;
   std::string name_;
   Mem::ParcelWrapper mapping_;
   Header const* header_ = nullptr; ///< the mapping's base
   mutable Mem::VersionAnchor anchor_;
   Reader::Counters& counters_;
   u32& seed_;
   Mem::VersionedRef<u32> numSlots_{0, 0}; ///< private copy; all index checks use it, never the header
   Slots slots_;
   Mem::VersionAnchor mappedAnchor_;
};

template <class Ops> bool SlotReaderTable<Ops>::attach(std::string& error) {
   u64 const size = mapping_.memSize();
   if (size < headerSize) {
      // Nothing behind the end of a file may be touched.
      error = size == 0 ? "no shared memory region"
                        : fmt::format("bad header file size: {} wanted:{}", size, headerSize);
      LOMI_TRACE(debugHandler_, 0, "SlotReaderTable", "{}", error);
      return false;
   }
   char const* base = mapping_.attach(headerSize, Mem::Mode::reader);
   if (!base) {
      error = fmt::format("cannot attach to shmem size:{}", headerSize);
      LOMI_TRACE(debugHandler_, 0, "SlotReaderTable", "{}", error);
      error += ": " + mapping_.lastError();
      return false;
   }
   header_ = reinterpret_cast<Header const*>(base);
   Header copy;
   copyHeader(copy);
   LOMI_TRACE(debugHandler_, 3, "SlotReaderTable", "{}", copy.toString());
   seed_ = copy.hashSeed;
   // Any version but the header's: the first doResize() then maps the slots.
   numSlots_ = {copy.numSlots.version == 0xffffffff ? 0 : 0xffffffff, 0};
   slots_ = {};
   return true;
}

template <class Ops> void SlotReaderTable<Ops>::detach() {
   LOMI_TRACE(debugHandler_, 5, "SlotReaderTable", "delegating to SlotTable::detach()");
   mapping_.detach();
   header_ = nullptr;
   numSlots_ = {0, 0};
   slots_ = {};
   // The place that an anchor names may hold anything from here on.
   markGone(anchor_);
   markGone(mappedAnchor_);
}

/// Reads the whole row of a slot that the writer is overwriting, or was a moment ago. `read` is its word as
/// last seen.
template <class Ops>
auto SlotReaderTable<Ops>::readChanging(Slot const& slot, Read read, void* front, void* rest) const -> Read {
   for (;;) {
      // SYNC(slot-word) load: with LOOKASIDE up, the new value and its rhash stand whole in the spare slot,
      // and they stay there until the word moves again.
      Slot const* source = &slot;
      if (read.word & SlotFlags::lookaside) {
         ++counters_.lookasideReads;
         source = &Base::lookaside(*header_);
         read.rhash = Mem::loadShared(source->rhash);
      }
      Mem::loadSharedRow<frontBytes>(front, source->value);
      Mem::loadSharedRow<restBytes>(rest, source->value + frontBytes);
      Read const again = loadWordAndHash(slot);
      if (again.word == read.word) return read;
      read = again;
   }
}

template <class Ops> u64 SlotReaderTable<Ops>::bytesFor(u32 numSlots) const {
   try {
      return Lomi::Util::fileSizeHelper(numSlots, slotSize, headerSize);
   } catch (Lomi::RuntimeException const& e) {
      throw Lomi::CorruptionDetectedException(
          fmt::format("bad newNumSlots:{} message:{}", numSlots, e.what()));
   }
}

template <class Ops> void SlotReaderTable<Ops>::follow() {
   Header copy;
   u64 const memSize = copyHeader(copy);
   u32 const newNumSlots = copy.numSlots.value;
   u64 const needed = bytesFor(newNumSlots);
   if (memSize < needed)
      throw Lomi::CorruptionDetectedException(
          fmt::format("requesting to map {} {} slots. Requested file resize to {} but real file size is {}",
                      mapping_.getFilename(), newNumSlots, needed, memSize));
   LOMI_TRACE(debugHandler_, 2, "SlotReaderTable", "{} from {} slots to {}", name_, numSlots_.value,
              newNumSlots);
   char const* oldBase = mappedBase();
   char const* newBase = mapping_.resize(needed);
   if (!newBase)
      throw Lomi::MemoryResourceException(
          fmt::format("failed to resize {} from {} to {} slots, needed {} bytes. Reason: {}",
                      mapping_.getFilename(), numSlots_.value, newNumSlots, needed, mapping_.lastError()));
   header_ = reinterpret_cast<Header const*>(newBase);
   if (newBase != oldBase) {
      LOMI_TRACE(debugHandler_, 5, "SlotReaderTable", "changed base address mapping from {} to {}",
                 fmt::ptr(oldBase), fmt::ptr(newBase));
      ++counters_.remaps;
   }
   u64 const kept = Base::endOf(keptSince(copy.numSlots));
   if (anchor_.offset >= kept) markGone(anchor_);
   if (mappedAnchor_.offset >= kept)
      markGone(mappedAnchor_);
   else
      mappedAnchor_.base = newBase;
   ++counters_.slotResizes;
   LOMI_TRACE(debugHandler_, 3, "SlotReaderTable", "onResize {}", copy.toString());
   numSlots_ = copy.numSlots;
   slots_ = {reinterpret_cast<Slot const*>(newBase + headerSize), newNumSlots};
   LOMI_TRACE(debugHandler_, 5, "SlotReaderTable", "successful");
}

} // namespace Mirak
