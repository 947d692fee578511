// SPDX-License-Identifier: Apache-2.0
// The writer's mapping of the slot file: formats or adopts it, hands out and takes back slots through the
// free list, grows the file, and marks critical sections. It knows nothing of keys or buckets.
//
// Roles: one writer process, one thread. Readers follow numSlots (SYNC(num-slots)): new slots are complete
// before the count that shows them is stored, and the free list is joined last.
//
// Crash: bit 0 of runtimeFlags is set while an operation is half done and survives the writer's death; the
// next start then formats the table anew. An exception that escapes an operation leaves the bit set on
// purpose: the table may be half changed, so the next write of this process asserts and the next start
// re-formats. A write from a destructor that runs while somebody else's exception unwinds the stack leaves it
// set, too.
#pragma once

#include "Lomi/Exception.h"
#include "Lomi/Util.h"
#include "Mem/ParcelWrapper.h"
#include "Mem/VersionAnchor.h"
#include "Mirak/Counters.h"
#include "Mirak/Exception.h"
#include "Mirak/MapDescriptor.h"
#include "Mirak/SlotTable.h"
#include "MirakCore/BucketWriter.h" // AttachResult

#include <algorithm>
#include <exception>
#include <functional>
#include <utility>

namespace Mirak {

using MirakCore::AttachResult;

/// Draws a hash seed: unpredictable to whoever sends the packets, and another one after each restart.
u32 drawHashSeed();

/// The next capacity of a full table of `capacity` slots: doubled up to `maxSlots`, then a tenth more.
u32 grownCapacity(u32 capacity, u32 maxSlots);

template <class Ops> class SlotWriterTable {
public:
   using Table = SlotTable<Ops>;
   using Header = typename Table::Header;
   using Slot = typename Table::Slot;

   static constexpr char const* fileName = "slots";

   /// @param beforeFormat called before the file, found or new, is formatted
   SlotWriterTable(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath,
                   MapDescriptor const& descriptor, Ops& ops, Writer::Counters& counters,
                   std::function<void()> beforeFormat);

   /// Maps the file, creating it if need be; keeps its rows if it is sound, of this generation and of this
   /// type, else formats it. @throws Lomi::InvalidInitializeException, Lomi::MemoryResourceException
   AttachResult attach(Parcel::KestorId kestor);
   void detach();

   bool attached() const { return header_ != nullptr; }
   Header& header() const { return *header_; }
   char* base() const { return reinterpret_cast<char*>(header_); }
   u32 capacity() const { return capacity_; }
   u32 minSlots() const { return minSlots_; }
   u32 maxSlots() const { return maxSlots_; }
   bool fixedSize() const { return fixedSize_; }
   bool full() const { return Mem::loadShared(header_->freeSlots) == noSlot; }
   u32 nextCapacity() const { return grownCapacity(capacity_, maxSlots_); }
   /// Slots that are formatted; more than capacity() while a growth is prepared.
   u32 preparedSlots() const { return prepared_; }
   u32 occupiedSlots() const { return Mem::loadShared(header_->occupiedSlots); }
   Mem::ParcelWrapper& wrapper() { return wrapper_; }
   Mem::ParcelWrapper const& wrapper() const { return wrapper_; }
   Mem::NaoRootPath const& rootPath() const { return rootPath_; }

   /// @throws Lomi::CorruptionDetectedException on an index outside the table
   Slot& slot(u32 index) const {
      if (index >= capacity_) [[unlikely]]
         outOfRange(index);
      return slots_[index];
   }
   Slot& lookaside() const { return Table::lookaside(*header_); }
   u32 indexOf(Slot const& slot) const { return static_cast<u32>(&slot - slots_); }
   /// True if a link lies in this file, as opposed to the bucket file: then it moves with the mapping.
   bool contains(void const* at) const {
      auto const* place = static_cast<char const*>(at);
      return place >= reinterpret_cast<char const*>(slots_) &&
             place < reinterpret_cast<char const*>(slots_ + capacity_);
   }

   /// The failure exit of an insert into a full table of fixed size, which has changed nothing: leaves the
   /// critical section. @throws TableFullException
   [[noreturn, gnu::cold]] void refuse();
   /// Takes the head of the free list; the caller fills the slot. Grows the table if the list is empty, which
   /// may move the mapping. @throws TableFullException as refuse() does, MemoryResourceException
   Slot& takeFreeSlot() {
      if (occupiedSlots() >= prepareAt_) [[unlikely]]
         prepareGrow();
      if (full() && !grow()) [[unlikely]]
         refuse();
      return slot(Mem::loadShared(header_->freeSlots));
   }
   /// Second half of an allocation, after the slot's rhash is stored: unlinks it from the free list and
   /// counts it.
   void joinOccupied(Slot& slot) {
      Mem::storeShared(header_->freeSlots, Mem::loadPair(slot.link).next);
      Mem::storeShared(header_->occupiedSlots, occupiedSlots() + 1);
      ++counters_.slotsAllocated;
   }
   /// Puts a slot that no link shows any more on the free list.
   /// @return the shrink threshold if the table is now empty enough to shrink, else 0
   u32 dealloc(u32 index);

   /// Enlarges the table. @return false only if its size is fixed
   bool grow();
   /// The threshold if the table is now empty enough to shrink, else 0.
   u32 shrinkDue() const { return occupiedSlots() < shrinkThreshold_ / 2 ? shrinkThreshold_ : 0; }
   /// Cuts the table down to `numSlots`. Whatever lies above is on no list and in no chain any more.
   /// @throws Lomi::MemoryResourceException with the smaller count published; only private memory can do so
   void shrinkTo(u32 numSlots);

   /// Holds bit 0 of runtimeFlags from enterCriticalSection() to the end of the scope; an exception leaves it
   /// set.
   class CriticalSectionAnchor {
   public:
      explicit CriticalSectionAnchor(SlotWriterTable& table)
         : table_(&table) {}
      CriticalSectionAnchor(CriticalSectionAnchor&& other) noexcept
         : table_(std::exchange(other.table_, nullptr)) {}
      CriticalSectionAnchor& operator=(CriticalSectionAnchor&&) = delete;
      ~CriticalSectionAnchor() {
         if (table_ && std::uncaught_exceptions() == 0) table_->leaveCriticalSection();
      }
      /// Keeps the section open beyond the scope; leaveCriticalSection() ends it.
      void release() { table_ = nullptr; }

   private:
      SlotWriterTable* table_;
   };
   [[nodiscard]] CriticalSectionAnchor enterCriticalSection() {
      LOMI_ASSERT(header_, debugHandler_, "no open table: {}", rootPath_.str());
      u16 const flags = Mem::loadShared(header_->runtimeFlags);
      LOMI_ASSERT(!(flags & Header::inCriticalSection), debugHandler_, "Mirak reentrancy detected: {}",
                  rootPath_.str());
      // SYNC(critical-section) store: the first store of an operation; the next start's validation relies on
      // it.
      Mem::storeShared(header_->runtimeFlags, static_cast<u16>(flags | Header::inCriticalSection));
      return CriticalSectionAnchor(*this);
   }
   /// Whether or not a section is open: it is now, until leaveCriticalSection().
   void markCriticalSection() {
      u16 const flags = Mem::loadShared(header_->runtimeFlags);
      if (flags & Header::inCriticalSection) return;
      // SYNC(critical-section) store
      Mem::storeShared(header_->runtimeFlags, static_cast<u16>(flags | Header::inCriticalSection));
   }
   void leaveCriticalSection() {
      // SYNC(critical-section) store: the last store of an operation.
      u16 const flags = Mem::loadShared(header_->runtimeFlags);
      Mem::storeShared(header_->runtimeFlags, static_cast<u16>(flags & ~Header::inCriticalSection));
   }

   /// Stores a value and its place in the order into `lookaside`, for readers that meet LOOKASIDE.
   void fillLookaside(u32 rhash, void const* value) {
      Mem::storeShared(lookaside().rhash, rhash);
      Mem::storeShared(lookaside().value, value, Table::valueSize);
   }

   Mem::VersionAnchor anchorOf(Slot const& slot) const {
      auto const* word = reinterpret_cast<char const*>(&slot.versionFlags);
      return {Mem::loadShared(slot.versionFlags), static_cast<u32>(word - base()), base()};
   }

private:
   bool adopt(Parcel::KestorId kestor, u64 existing);
   void format(Parcel::KestorId kestor);
   void addFreeSlots(u32 start, u32 end);
   void formatFreeSlots(u32 start, u32 end, u32 listEnd);
   [[gnu::cold, gnu::noinline]] void prepareGrow();
   void resize(u32 newNumSlots);
   void refresh(u32 capacity);
   void updateShrinkThreshold();
   u64 bytesFor(u32 numSlots) const {
      return Lomi::Util::fileSizeHelper(numSlots, Table::slotSize, Table::headerSize);
   }
   [[noreturn, gnu::cold]] void outOfRange(u32 index) const;

   // Constant after construction.
   Lomi::Platform::DebugHandler const& debugHandler_;
   Mem::NaoRootPath const& rootPath_;
   Ops& ops_;
   Writer::Counters& counters_;
   std::function<void()> beforeFormat_;
   u32 const maxSlots_;
   bool const fixedSize_;
   bool const shrinkSlots_;
   u32 const minSlots_;
   // The open file; stale after any resize, refreshed by it.
   Mem::ParcelWrapper wrapper_;
   Header* header_ = nullptr;
   Slot* slots_ = nullptr;
   u32 capacity_ = 0;
   u32 shrinkThreshold_ = 0; ///< 0 while the table must not shrink
   u32 prepared_ = 0;        ///< slots below are formatted; at least capacity_
   u32 prepareAt_ = noSlot;  ///< occupied slots at which the next piece of a grow is prepared
   static constexpr u32 preparedBytes = 64 * 1024; ///< of one piece
};

// ---------------------------------------------------------------------------------------------------------------

template <class Ops>
SlotWriterTable<Ops>::SlotWriterTable(Lomi::Platform::DebugHandler const& handler,
                                      Mem::NaoRootPath const& rootPath, MapDescriptor const& descriptor,
                                      Ops& ops, Writer::Counters& counters,
                                      std::function<void()> beforeFormat)
   : debugHandler_(handler)
   , rootPath_(rootPath)
   , ops_(ops)
   , counters_(counters)
   , beforeFormat_(std::move(beforeFormat))
   , maxSlots_(descriptor.size)
   , fixedSize_(descriptor.fixedSize)
   , shrinkSlots_(descriptor.shrinkSlots)
   , minSlots_(fixedSize_ ? maxSlots_ : slotsInOnePage(Table::headerSize, Table::slotSize))
   , wrapper_(handler, rootPath, fileName, descriptor.local) {}

template <class Ops> AttachResult SlotWriterTable<Ops>::attach(Parcel::KestorId kestor) {
   detach();
   u64 const existing = wrapper_.memSize();
   u64 const size = bytesFor(minSlots_);
   char* base = wrapper_.attach(size, Mem::Mode::writer);
   if (!base)
      throw Lomi::InvalidInitializeException(fmt::format("cannot attach to shmem {} size:{}: {}",
                                                         wrapper_.getFilename(), size, wrapper_.lastError()));
   header_ = reinterpret_cast<Header*>(base);
   bool const kept = existing != 0 && adopt(kestor, existing);
   if (!kept) {
      u32 const found = Mem::loadPair(header_->numSlots).value;
      if (fixedSize_ && found != minSlots_)
         LOMI_TRACE(debugHandler_, 1, "SlotWriterTable",
                    "wanted capacity:{} for fixed-size table, but existing file has capacity:{}", minSlots_,
                    found);
      beforeFormat_();
      // SYNC(kestor) store: readers that still have the old table mapped learn of the re-format before
      // anything under them changes.
      if (existing != 0) Mem::storeShared(header_->kestor, kestor.value());
      format(kestor);
      wrapper_.releaseTailAfter(size);
   }
   AttachResult const result = kept            ? MirakCore::attachedExisting
                               : existing != 0 ? MirakCore::attachedReformatted
                                               : MirakCore::attachedNew;
   if (kept)
      LOMI_TRACE(debugHandler_, 2, "SlotWriterTable", "to existing {}", wrapper_.getFilename());
   else if (existing != 0)
      LOMI_TRACE(debugHandler_, 1, "SlotWriterTable", "re-formatted {}", wrapper_.getFilename());
   else if (rootPath_.shared())
      LOMI_TRACE(debugHandler_, 2, "SlotWriterTable", "to new file {}", wrapper_.getFilename());
   LOMI_TRACE(debugHandler_, 3, "SlotWriterTable", "{}", header_->toString());
   return result;
}

/// Takes the file over as it is. Rows survive only if the generation, the header, the type and (in a table of
/// fixed size) the capacity are right; everything else is proved by the validator afterwards.
/// @param existing the file's length as it was found: a file that was cut short is damaged, although attach()
/// has made it long enough by now
template <class Ops> bool SlotWriterTable<Ops>::adopt(Parcel::KestorId kestor, u64 existing) {
   if (Mem::loadShared(header_->kestor) != kestor.value()) return false;
   std::string error;
   if (!header_->validate(debugHandler_, existing, kestor, Table::headerSize, Table::slotSize, error))
      return false;
   if (std::string const mismatch = Table::typeMismatch(*header_); !mismatch.empty()) {
      LOMI_TRACE(debugHandler_, 1, "SlotWriterTable", "{} {}", wrapper_.getFilename(), mismatch);
      return false;
   }
   u32 const stored = Mem::loadPair(header_->numSlots).value;
   if (stored == 0 || (fixedSize_ && stored != minSlots_)) return false;
   u64 const size = bytesFor(stored);
   char* base = wrapper_.resize(size);
   if (!base)
      throw Lomi::MemoryResourceException(fmt::format("failed to resize {} to size {} : {}",
                                                      wrapper_.getFilename(), size, wrapper_.lastError()));
   header_ = reinterpret_cast<Header*>(base);
   ops_.keyOps.hashSeed = Mem::loadShared(header_->hashSeed);
   refresh(stored);
   if (existing > size) wrapper_.releaseTailAfter(size);
   return true;
}

template <class Ops> void SlotWriterTable<Ops>::format(Parcel::KestorId kestor) {
   // Never the old one: within one generation the seed alone tells readers of the old table that it is gone.
   u32 seed = drawHashSeed();
   while (seed == Mem::loadShared(header_->hashSeed)) seed = drawHashSeed();
   ops_.keyOps.hashSeed = seed;
   formatHeader(*header_, {minSlots_, maxSlots_, Table::constFlags, kestor, Ops::Value::typeName,
                           Table::valueSize, Table::slotSize, seed});
   refresh(minSlots_);
   Slot& spare = lookaside();
   Mem::storeShared(spare.versionFlags, u32{0});
   Mem::publishPair(spare.link, SlotLink{0, noSlot});
   fillLookaside(0, &Ops::typeDefault());
   prepared_ = 0;
   addFreeSlots(0, minSlots_);
   prepared_ = minSlots_;
   Mem::storeShared(header_->freeSlots, u32{0});
}

/// Gives slots start to end - 1 their first content and threads them on the empty free list, low indices
/// first. The caller sets freeSlots; until then nobody reaches them, so the first link and its threading are
/// one store. The word comes first: a reader of an older table that is still inside the slot sees OCCUPIED
/// fall before the value changes.
template <class Ops> void SlotWriterTable<Ops>::addFreeSlots(u32 start, u32 end) {
   LOMI_ASSERT(start < end, debugHandler_, "bad index range, start: {} end: {}", start, end);
   LOMI_ASSERT(Mem::loadShared(header_->freeSlots) == noSlot, debugHandler_, "{}", "free-list is not empty");
   // What prepareGrow() has formatted lies ready, with the same links.
   formatFreeSlots(std::max(start, prepared_), end, end);
}

/// Formats slots start to end - 1 as a part of a free list that ends before `listEnd`.
template <class Ops> void SlotWriterTable<Ops>::formatFreeSlots(u32 start, u32 end, u32 listEnd) {
   for (u32 index = start; index < end; ++index) {
      Slot& slot = slots_[index];
      Mem::storeShared(slot.versionFlags, u32{0});
      Mem::publishPair(slot.link, SlotLink{4, index + 1 < listEnd ? index + 1 : noSlot});
      Mem::storeShared(slot.rhash, u32{0});
      Mem::storeShared(slot.value, &Ops::typeDefault(), Table::valueSize);
   }
}

/// Does a piece of the next grow() beforehand, so that no single write has to reserve, fault in and format
/// half a table: a file may be longer than its count says, and nobody looks behind the count. Called while
/// the last sixteenth of the slots fills up, as often as that the pieces are done in time. Running out of
/// space is no error here; the grow will say so if it comes.
template <class Ops> void SlotWriterTable<Ops>::prepareGrow() {
   u32 const to = nextCapacity();
   u32 const end = std::min(to, prepared_ + preparedBytes / Table::slotSize);
   u64 const size = Table::endOf(end);
   prepareAt_ = noSlot;
   bool const mappable = Table::endOf(to) + Mem::pageSize_ < Mem::Local::maxMappingSize();
   if (!mappable || !wrapper_.reserve(size, bytesFor(to)) || wrapper_.writableSize() < size) return;
   formatFreeSlots(prepared_, end, to);
   prepared_ = end;
   if (end == to) return;
   u32 const occupied = occupiedSlots();
   u32 const pieces = (to - end) / (preparedBytes / Table::slotSize) + 1;
   prepareAt_ = occupied + std::max(1u, (capacity_ - occupied) / (pieces + 1));
}

template <class Ops> bool SlotWriterTable<Ops>::grow() {
   u32 const stored = Mem::loadPair(header_->numSlots).value;
   if (u32 const occupied = occupiedSlots(); occupied != stored)
      throw Lomi::CorruptionDetectedException(fmt::format(
          "the slot table is full but numSlots: {} and occupiedSlots: {} are not equal", stored, occupied));
   if (fixedSize_) return false;
   u32 const from = capacity_;
   u32 const to = nextCapacity();
   if (to > maxSlots_)
      LOMI_TRACE(debugHandler_, 5, "SlotWriterTable", "overflowing by {} slots", to - maxSlots_);
   resize(to);
   slots_ = reinterpret_cast<Slot*>(base() + Table::headerSize);
   addFreeSlots(from, to);
   if (Mem::loadShared(header_->mostSlots) < to) Mem::storeShared(header_->mostSlots, to);
   // SYNC(num-slots) store: everything below the new count is formatted.
   Mem::publishPair(header_->numSlots,
                    Mem::VersionedRef<u32>{Mem::loadPair(header_->numSlots).version + 1, to});
   Mem::storeShared(header_->freeSlots, from);
   LOMI_TRACE(debugHandler_, 2, "SlotWriterTable", "{} from {} slots to {}", rootPath_.str(), from, to);
   refresh(to);
   ++counters_.slotGrows;
   return true;
}

template <class Ops> void SlotWriterTable<Ops>::resize(u32 newNumSlots) {
   LOMI_TRACE(debugHandler_, 5, "SlotWriterTable", "{} from {} to {} slots", rootPath_.str(), capacity_,
              newNumSlots);
   u64 const size = bytesFor(newNumSlots);
   char* const old = base();
   char* const now = wrapper_.resize(size);
   if (!now)
      throw Lomi::MemoryResourceException(
          fmt::format("failed to resize {} from {} to {} slots, needed {} bytes. Reason: {}",
                      wrapper_.getFilename(), capacity_, newNumSlots, size, wrapper_.lastError()));
   if (now != old) {
      LOMI_TRACE(debugHandler_, 5, "SlotWriterTable", "remap base address changed from {} to {}",
                 static_cast<void*>(old), static_cast<void*>(now));
      ++counters_.remaps;
   }
   header_ = reinterpret_cast<Header*>(now);
   LOMI_TRACE(debugHandler_, 5, "SlotWriterTable", "to {} successfully", newNumSlots);
}

template <class Ops> u32 SlotWriterTable<Ops>::dealloc(u32 index) {
   Slot& slot = slots_[index];
   u32 const head = Mem::loadShared(header_->freeSlots);
   // SYNC(slot-word) store: a reader inside the slot sees OCCUPIED fall.
   Mem::storeShared(slot.versionFlags, Mem::loadShared(slot.versionFlags) & ~SlotFlags::occupied);
   Mem::storeShared(header_->freeSlots, index);
   // SYNC(chain-link) store: the version moves, so a reader that stands on this link sees that it left the
   // chain.
   publishLink(slot.link, head);
   Mem::storeShared(header_->occupiedSlots, occupiedSlots() - 1);
   ++counters_.slotsFreed;
   return shrinkDue();
}

template <class Ops> void SlotWriterTable<Ops>::shrinkTo(u32 numSlots) {
   // SYNC(num-slots) store: readers stop using the tail before it goes.
   Mem::publishPair(header_->numSlots,
                    Mem::VersionedRef<u32>{Mem::loadPair(header_->numSlots).version + 1, numSlots});
   resize(numSlots);
   refresh(numSlots);
   wrapper_.releaseTailAfter(bytesFor(numSlots));
   ++counters_.slotShrinks;
}

template <class Ops> void SlotWriterTable<Ops>::refuse() {
   leaveCriticalSection();
   throw TableFullException(fmt::format("Mirak table full (occupancy:{} tableSize:{}) {}", occupiedSlots(),
                                        maxSlots_, rootPath_.str()));
}

template <class Ops> void SlotWriterTable<Ops>::refresh(u32 capacity) {
   slots_ = reinterpret_cast<Slot*>(base() + Table::headerSize);
   capacity_ = capacity;
   prepared_ = capacity;
   // A small table grows at once in less time than this would save, and private memory must be had whole.
   bool const worthIt =
       !fixedSize_ && rootPath_.shared() && u64{capacity} * Table::slotSize >= 16 * preparedBytes;
   prepareAt_ = worthIt ? capacity - capacity / 16 : noSlot;
   updateShrinkThreshold();
}

/// The largest power of two below the capacity, 0 when the table must not shrink.
template <class Ops> void SlotWriterTable<Ops>::updateShrinkThreshold() {
   bool const may = shrinkSlots_ && !fixedSize_ && capacity_ > minSlots_;
   shrinkThreshold_ = may ? std::bit_floor(capacity_ - 1) : 0;
   LOMI_TRACE(debugHandler_, 5, "SlotWriterTable", "shrinkThreshold_:{}", shrinkThreshold_);
}

template <class Ops> void SlotWriterTable<Ops>::detach() {
   capacity_ = 0;
   slots_ = nullptr;
   wrapper_.detach();
   header_ = nullptr;
}

template <class Ops> void SlotWriterTable<Ops>::outOfRange(u32 index) const {
   throw Lomi::CorruptionDetectedException(
       fmt::format("out-of-range index: {} max:{}", index, capacity_ == 0 ? 0 : capacity_ - 1));
}

} // namespace Mirak
