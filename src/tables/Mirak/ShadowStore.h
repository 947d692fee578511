// SPDX-License-Identifier: Apache-2.0
// The private memory of a shadow: an array of local slots with the numbers of the shared table's slots, and
// an index over them (ShadowHashMap.h). A change of shared slot n lands in local slot n without a search.
//
//   ShadowStore<ValueShadowSlot<Ops>>   keeps the rows: a read touches no shared memory
//   KeyShadowStore<Ops>                 keeps the keys: a row is fetched from the shared table when it is
//   read
//
// doSlot() is how the copy comes about and how it is kept up to date (ShadowStoreChange.h). The queue carries
// no rows: doSlot looks at the shared slot as it stands, compares it with the local one, and finds out what
// came, changed, moved or went. So any number of changes may collapse into one call, calls may be repeated,
// and after the last change's call the local slot is the shared one. It may drop a row only if the queue says
// that the entry still counts (ShadowQueue): otherwise the row may have moved to another slot, and a newer
// entry is on its way.
//
// Guarantees for the client's callbacks: those of one row add up to the copy, whatever was skipped, repeated
// or moved; a moved row tells nothing unless it changed, too.
//
// A callback may read the store (ShadowStoreRead.h says what it sees of the change in progress) and may
// disable it. An exception out of a callback leaves the store sound.
//
// The array always has the shared table's capacity of some moment. It is zeroed pages, touched where slots
// are in use, so its growth costs nothing by itself.
//
// One thread. No lock, no store into shared memory, no allocation in a call that doesn't resize.
#pragma once

#include "Mem/Local.h"
#include "Mem/Notify.h"
#include "Mem/ParcelWrapper.h"
#include "Mem/VersionMismatchException.h"
#include "Mirak/IterHint.h"
#include "Mirak/MirakReader.h"
#include "Mirak/ShadowHashMap.h"
#include "Mirak/ShadowQueue.h"
#include "Mirak/ShadowSlot.h"
#include "Mirak/SlotCounters.h"
#include "Rusk/Sequence.h"
#include "Tessel/QueueFormat.h"

#include <string>
#include <utility>

namespace Mirak {

template <class Key, class Value> class ShadowStoreBase {
public:
   virtual ~ShadowStoreBase() = default;
   /// @return false, with a trace: no memory, or no kestor file
   virtual bool initialize() = 0;
   /// Takes in what is in the shared slot. @param seq of the queue's entry, Rusk::noSequence in a sweep
   /// @param compare don't tell of a row that is the one the copy holds (full shadows only)
   /// @return false: nothing was changed, the entry no longer counts
   /// @throws Lomi::MemoryResourceException, Mirak::TableReformattedException, and what a callback throws
   virtual bool doSlot(Tessel::BasicSlot slotIndex, Rusk::Sequence seq, bool compare) = 0;
   /// Drops what is in the local slot; tells of it if the mount asked for that.
   virtual void doFlushSlot(u32 slotIndex) = 0;
   virtual u64 shadowMappedSize() const = 0; ///< bytes
   virtual u64 kestorMappedSize() const = 0; ///< bytes
   virtual Value const* directLookup(Key const& key, bool& found, void* out) const = 0;
   virtual Value const* lookup(Key const& key, bool& found, void* out) const = 0;
   virtual bool first(u32 bucket, Value& value, IterHint& hint) const = 0;
   virtual bool next(Key const& key, Value& value, IterHint& hint) const = 0;
   virtual u32 numSlots() const = 0;
   virtual void validateVersionAnchor() const = 0;
   virtual Mem::CacheVersionAnchor getCacheVersionAnchor() const = 0;
   /// Gives the slots' memory back; the store is empty from now on. Its entries must have been flushed.
   virtual void disable() = 0;
};

template <class Slot>
class ShadowStore : public ShadowStoreBase<typename Slot::OpsType::Key, typename Slot::OpsType::Value>,
                    public Lomi::Debuggable {
public:
   using Ops = typename Slot::OpsType;
   using Key = typename Ops::Key;
   using Value = typename Ops::Value;
   using Notify = Mem::Notify<Key, Value>;

   /// @param reader of the same shadow, attached  @param notify the client's callbacks  All outlive the
   /// store.
   ShadowStore(Lomi::Platform::DebugHandler const& handler, MirakReader<Ops>& reader,
               Reader::Counters& counters, ShadowQueue& queue, Notify& notify, bool notifyOnFlush);

   bool initialize() override;
   bool doSlot(Tessel::BasicSlot slotIndex, Rusk::Sequence seq, bool compare) override;
   void doFlushSlot(u32 slotIndex) override;
   u64 shadowMappedSize() const override { return slotsMem_.mappedSize() + hashMap_.mappedSize(); }
   u64 kestorMappedSize() const override { return 0; }
   Value const* directLookup(Key const& key, bool& found, void* out) const override;
   Value const* lookup(Key const& key, bool& found, void* out) const override;
   bool first(u32 bucket, Value& value, IterHint& hint) const override;
   bool next(Key const& key, Value& value, IterHint& hint) const override;
   u32 numSlots() const override { return numSlots_; }
   void validateVersionAnchor() const override { reader_.validateVersionAnchor(*currentAnchor_); }
   Mem::CacheVersionAnchor getCacheVersionAnchor() const override {
      return {currentAnchor_->word, currentAnchor_->offset};
   }
   void disable() override;

private:
   class Pending;

   // ShadowStoreChange.h
   bool covers(u32 slotIndex);
   bool fetch(u32 slotIndex, Value& row) const;
   bool stillCounts(Rusk::Sequence seq);
   void drop(u32 slotIndex, Key const& key);
   bool grow(u32 slotIndex);
   void tryShrink();
   void shrink(u32 newNumSlots);
   void resizeSlots(u32 newNumSlots);

   // ShadowStoreRead.h
   Value const* lookupPending(Key const& key, bool& found, void* out) const;
   Value const* safeValue(Slot const& slot, void* out) const;
   bool yield(Slot const* slot, Value& value, IterHint& hint) const;
   u32 indexOf(Slot const& slot) const { return static_cast<u32>(&slot - slots_); }
   /// What a walk fetches for the slots that it will reach: a keyshadow the shared slot with the row.
   auto coming() const {
      if constexpr (Slot::keepsValue)
         return [](Slot const&) {};
      else
         return [this](Slot const& slot) __attribute__((always_inline)) { reader_.prefetch(indexOf(slot)); };
   }

   MirakReader<Ops>& reader_;
   Reader::Counters& counters_;
   ShadowQueue& queue_;
   Notify& notify_;
   SlotCounters slotCounters_;
   u32 numSlots_ = 0;
   Slot* slots_ = nullptr; ///< null while numSlots_ is 0
   Mem::Local slotsMem_;
   ShadowHashMap<Slot> hashMap_;
   bool const notifyOnFlush_;
   bool enabled_ = false;

   // The change in progress; null outside of doSlot.
   Value const* pendingValue_ = nullptr;             ///< what it has fetched
   Key const* pendingRemovedKey_ = nullptr;          ///< what it is removing
   mutable Value valueBuffer_{};                     ///< keyshadow: the row behind pendingValue_
   mutable Value scratch_{};                         ///< keyshadow: the row of a lookup without a buffer
   Mem::VersionAnchor const* readerAnchor_;          ///< of the reader's last read
   Mem::VersionAnchor* cacheAnchor_;                 ///< of the change in progress; follows remappings
   mutable Mem::VersionAnchor const* currentAnchor_; ///< of the store's last read
};

/// A store of keys. It also keeps the table's kestor file mapped.
template <class Ops> class KeyShadowStore final : public ShadowStore<KeyShadowSlot<Ops>> {
   using Base = ShadowStore<KeyShadowSlot<Ops>>;

public:
   KeyShadowStore(Lomi::Platform::DebugHandler const& handler, MirakReader<Ops>& reader,
                  Reader::Counters& counters, ShadowQueue& queue, typename Base::Notify& notify,
                  bool notifyOnFlush)
      : Base(handler, reader, counters, queue, notify, notifyOnFlush)
      , kestor_(handler, reader.rootPath(), Parcel::KestorFile::KESTOR_NAME, false) {}

   bool initialize() override {
      if (!kestor_.attach(Parcel::KestorFile::fileSize, Mem::Mode::reader)) {
         LOMI_TRACE(this->debugHandler(), 0, "KeyShadowStore", "failed to map kestor: {}",
                    kestor_.getFilename());
         return false;
      }
      return Base::initialize();
   }
   u64 kestorMappedSize() const override { return kestor_.mappedSize(); }
   void disable() override {
      LOMI_TRACE(this->debugHandler(), 5, "KeyShadowStore", "{}", "");
      kestor_.detach();
      Base::disable();
   }

private:
   Mem::ParcelWrapper kestor_;
};

template <class Slot>
ShadowStore<Slot>::ShadowStore(Lomi::Platform::DebugHandler const& handler, MirakReader<Ops>& reader,
                               Reader::Counters& counters, ShadowQueue& queue, Notify& notify,
                               bool notifyOnFlush)
   : Debuggable(handler)
   , reader_(reader)
   , counters_(counters)
   , queue_(queue)
   , notify_(notify)
   , slotCounters_(slotsInOnePage(SlotReaderTable<Ops>::headerSize, SlotReaderTable<Ops>::slotSize))
   , slotsMem_(handler)
   , hashMap_(handler, counters, slotCounters_, reader.ops(), slots_)
   , notifyOnFlush_(notifyOnFlush)
   , readerAnchor_(&reader.anchor())
   , cacheAnchor_(&reader.mappedAnchor())
   , currentAnchor_(readerAnchor_) {}

template <class Slot> bool ShadowStore<Slot>::initialize() {
   if (enabled_) return true;
   if (!hashMap_.initialize()) {
      LOMI_TRACE(debugHandler(), 0, "ShadowStore", "{}", "bucketsMem_.attachAs() failed");
      return false;
   }
   enabled_ = true;
   return true;
}

template <class Slot> void ShadowStore<Slot>::disable() {
   enabled_ = false;
   pendingValue_ = nullptr; // it may lie in a slot
   shrink(0);
}

} // namespace Mirak

#include "Mirak/ShadowStoreChange.h"
#include "Mirak/ShadowStoreRead.h"
