// SPDX-License-Identifier: Apache-2.0
// The writer's object for one table: stores, removes and looks up rows, and takes a table directory from
// claim to release. One writer process per table, one thread per object; any number of readers watch the same
// files.
//
// Guarantees to readers (docs/concurrency.md tells the readers' side):
//   G1  a row is visible from the store of its predecessor's link on, and not before; it is complete then
//   G2  a row's value changes only between two stores of its versionFlags, and while LOOKASIDE is up the
//       whole new value stands in the header's lookaside slot: a reader always finds one whole value and
//       never waits
//   G3  a removed slot keeps its value, and its link until it joins the free list; the word and the link's
//       version move before anything in it can be taken for something else
//   G4  numSlots and numBuckets move their version with every change, after a growth and before a cut
// Crash promise: whatever store was the last one, the next start either adopts every row as it was before or
// after the interrupted operation, or formats the table anew under a new generation. Nothing is rolled
// forward.
//
// A write inside another operation on the same table (from a critical task, say) stops the process: "Mirak
// reentrancy detected". After a MemoryResourceException out of write() the table's end has come for this
// process: the critical section stays marked, the next write asserts, the next start re-formats.
// TableFullException is harmless.
#pragma once

#include "Mem/VersionMismatchException.h"
#include "Mem/WriterLock.h"
#include "Mirak/Deadline.h"
#include "Mirak/FreeLinks.h"
#include "Mirak/MirakInterface.h"
#include "Mirak/SlotWriter.h"
#include "Mirak/Util.h"
#include "Mirak/WriterQueue.h"
#include "MirakCore/WriterHashMap.h"
#include "Parcel/KestorFile.h"
#include "Parcel/OwnerFile.h"

#include <functional>
#include <optional>

namespace Mirak {

template <class Ops> class HOFLOW_EXPORT MirakWriter : public MirakInterface<Ops> {
public:
   using typename MirakInterface<Ops>::Key;
   using typename MirakInterface<Ops>::Value;
   using OpsType = Ops;
   using SlotTableType = SlotWriterTable<Ops>;
   using Slot = typename SlotTableType::Slot;
   using Header = typename SlotTableType::Header;
   using HashMap = MirakCore::WriterHashMap<Ops>;
   using QuiesceHandler = std::function<void(bool)>;

   /// Does no file work. @param name the table's path under the root
   MirakWriter(
       Lomi::Platform::DebugHandler const& handler, char const* name, MapDescriptor const& descriptor,
       Ops const& ops = {}, QuiesceHandler quiesce = [](bool) {});
   ~MirakWriter() override;

   // --- lifecycle (MirakWriterLifecycle.h) ---

   /// Claims the directory, adopts the files or formats them, proves them sound, lets readers in.
   /// @throws Lomi::InvalidInitializeException: another writer lives, the files can't be made
   ///         Lomi::MemoryResourceException: no space
   bool initialize(std::string const& event) override;
   void detach(bool force) override;
   bool validate() override;
   bool validate(Parcel::KestorId kestor, std::string& error, bool checkOwner);
   bool validateFiles() override;
   /// Removes the table's files. @throws Lomi::InvalidInitializeException while another process is its writer
   void cleanup() override;
   std::string dumpHeaders() const;

   // --- rows (MirakWriterOperations.h) ---
   // Without an open table reads find nothing, and a write or direct operation stops the process.

   /// Stores a row. No allocation, no system call, except where the table grows.
   /// @return the stored value in the slot, good until the next write or remove
   /// @throws TableFullException: a fixed-size table is full, nothing was changed
   ///         Lomi::MemoryResourceException: the files can't grow, the row isn't stored, see above
   ///         Lomi::CorruptionDetectedException: the chain is damaged
   Value const* write(Value const& value, bool overwrite) override;
   bool remove(Key const& key, Value& removed) override;
   Value const* lookup(Key const& key, bool& found, void* buffer) const override;
   bool first(Value& value, IterHint& hint) const override;
   bool next(Key const& key, Value& value, IterHint& hint) const override;

   /// Direct mode: the caller builds a value in place, directCommit() publishes it in one step. Between the
   /// two no other change is allowed. The whole value must be filled, its key must stay the one given, or the
   /// row can't be found again. The place is readers' spare copy (for a row that exists), so what is stored
   /// there is not shared in the language's sense until the commit.
   Value* directWrite(Value const& value) override;
   /// @return null if there is no such row; then direct mode isn't entered
   Value* directUpdate(Key const& key) override;
   void directCommit() override;

   // --- giving memory back (MirakWriterCompaction.h) ---

   /// Moves rows out of the upper part of the slot file and cuts it, if the table is empty enough and its
   /// descriptor lets slots shrink. remove() does so by itself; this is for an agent that waits for a quiet
   /// moment. Pointers and anchors that were handed out before are stale afterwards.
   void shrink();

   // --- facts ---

   u32 members() const override { return attached() ? slots_.occupiedSlots() : 0; }
   u32 buckets() const override { return map_.buckets().numBuckets(); }
   u32 minSize() const override { return slots_.minSlots(); }
   u32 maxSize() const override { return slots_.maxSlots(); }
   u32 capacity() const override { return slots_.capacity(); }
   MirakType type() const override { return MirakType::writer; }
   bool quiesced() const override { return this->initialized(); }
   Writer::Counters writerCounters() const override;
   /// The last sequence that the change queue gave; 0 without a queue.
   u64 sequence() const override;
   /// Not 0 if followers of that name are connected and all of them have taken in everything so far.
   u64 clientQuiesced(std::string const& name) const override;
   Mem::NaoRootPath rootPath() const override { return rootPath_; }
   std::string mirakName() const override { return rootPath_.dirName(); }
   Mem::MountStatus mountStatus() const override;
   Parcel::KestorId kestorId() const override { return kestorId_; }
   void validateVersionAnchor() const override;
   void validateVersionAnchorHookIs(MirakInterfaceBase::AnchorHook hook) override { anchorHook_ = hook; }
   Mem::CacheVersionAnchor getCacheVersionAnchor() const override { return {anchor_.word, anchor_.offset}; }
   void criticalTaskCheckIs(bool on) override { criticalTaskCheck_ = on; }
   bool criticalTaskCheck() const override { return criticalTaskCheck_; }
   void scratchpadIs(u64 value) override {
      if (attached()) Mem::storeShared(slots_.header().scratchpad, value);
   }
   u64 scratchpad() const override { return attached() ? Mem::loadShared(slots_.header().scratchpad) : 0; }
   bool inDirectMode() const override { return directSlot_ != noSlot || directNew_; }
   void handleQuiesced(bool quiesced) { quiesce_(quiesced); }

   // For the validator and for tests that look inside.
   SlotTableType& slotTable() { return slots_; }
   HashMap& hashMap() { return map_; }
   WriterQueue<Ops>& queue() { return queue_; }

private:
   struct Place {
      u32 hash;
      u32 bucket;
      SlotLink* prev;
      SlotLink* curr;
      bool found;
   };
   /// Marks a restructuring of the whole table, during which critical tasks may run but not touch it.
   class Restructuring {
   public:
      explicit Restructuring(MirakWriter& writer)
         : writer_(writer) {
         writer_.restructuring_ = true;
      }
      ~Restructuring() { writer_.restructuring_ = false; }
      Restructuring(Restructuring const&) = delete;
      Restructuring& operator=(Restructuring const&) = delete;

   private:
      MirakWriter& writer_;
   };

   bool attached() const { return slots_.attached(); }
   bool busy() const { return inDirectMode() || restructuring_; }
   [[gnu::always_inline]] inline Place locate(Key const& key);
   void prepareInsert();
   Slot& allocate(Place& place);
   void overwriteSlot(Slot& slot, Value const& value);
   [[gnu::cold, gnu::noinline]] void growBuckets();
   [[gnu::cold, gnu::noinline]] void shrinkBuckets();
   [[gnu::cold, gnu::noinline]] void doMaybeShrinkSlots(u32 threshold);
   static constexpr u32 approached = 128; ///< slots of which a compaction fetches the chains at a time
   void approach(u32 from, u32 end) const;
   void purgeFreeSlots(u32 numSlots, FreeLinks<Slot>& links, Deadline& deadline);
   void move(u32 fromSlotId, u32 toSlotId, SlotLink& prev);
   [[gnu::cold, gnu::noinline]] void refuseBusy(char const* what, std::string const& subject) const;
   [[gnu::cold, gnu::noinline]] void refuseUnbalanced(char const* what, std::string const& subject) const;
   void refuseReentrancy() const;
   void releaseDue();
   bool releasePending() const;
   void armRelease();

   void attach();
   void release();
   bool attach(Parcel::KestorId kestor);
   bool attachAndValidate(bool reformat, Parcel::OwnerFile& ownerFile, Parcel::TunnetInfo const& tunnetInfo);
   void beforeFormat();
   bool standsInFiles() const;

   // Constant after construction.
   Ops ops_; ///< its hash seed is the open table's
   Lomi::Platform::DebugHandler const& debugHandler_;
   bool const localMem_;
   bool const shrinkBuckets_;
   Mem::NaoRootPath const rootPath_;
   QuiesceHandler quiesce_;
   // The open table.
   Parcel::KestorId kestorId_;
   bool slotsKept_ = false;     ///< the present attach kept the slot file's rows
   bool kestorRemoved_ = false; ///< the published generation was taken back because a re-format began
   bool owner_ = false;         ///< this object owns the directory's owner file record
   bool criticalTaskCheck_;
   bool restructuring_ = false;
   u32 directSlot_ = noSlot; ///< noSlot when not in direct mode
   SlotLink* directPrevLink_ = nullptr;
   bool directNew_ = false; ///< the direct slot is a new entry, not yet linked
   mutable Writer::Counters counters_;
   mutable Mem::VersionAnchor anchor_; ///< of the value last handed out
   MirakInterfaceBase::AnchorHook anchorHook_ = nullptr;
   std::optional<Mem::WriterLock> writerLock_;
   mutable SlotTableType slots_;
   mutable HashMap map_;
   mutable WriterQueue<Ops> queue_;
   Lomi::Task releaseTimer_; ///< gives memory back when no operation comes any more
};

/// A complete table in this process's memory that says it isn't mounted.
template <class Ops> class HOFLOW_EXPORT Tmp final : public MirakWriter<Ops> {
public:
   using MirakWriter<Ops>::MirakWriter;
   ~Tmp() override = default;
   Mem::MountStatus mountStatus() const override { return Mem::MountStatus::notMounted; }
};

} // namespace Mirak

#include "Mirak/MirakWriterCompaction.h"
#include "Mirak/MirakWriterLifecycle.h"
#include "Mirak/MirakWriterOperations.h"
