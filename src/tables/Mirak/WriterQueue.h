// SPDX-License-Identifier: Apache-2.0
// What a table's writer has on the side of those who follow it: the change queue and the wake-up, tied to
// each other. A table without a queue has neither; then every operation here is nothing, and the compiler
// sees it.
#pragma once

#include "Lomi/TaskSchedulerRoot.h"
#include "Mirak/Counters.h"
#include "Mirak/MapDescriptor.h"
#include "Rusk/WriterRuskSm.h"
#include "Tessel/TesselWriter.h"

#include <functional>
#include <string>

namespace Mirak {

template <class Ops, bool = Ops::hasChangeQueue> class WriterQueue {
public:
   WriterQueue(Lomi::Platform::DebugHandler const&, Mem::NaoRootPath const&, MapDescriptor const&,
               char const*, std::function<void()> const&, std::function<Parcel::KestorId()> const&,
               bool const&) {}

   void notify(u32) {}
   void tombstone(u32) {}
   void prepare(u32) {}
   void reserve(u32) {}
   bool releasePending() const { return false; }
   void release() {}
};

template <class Ops> class WriterQueue<Ops, true> {
public:
   using TesselWriter = typename Ops::TesselWriter;

   /// @param file who may read it may follow the table
   /// @param criticalTaskCheck whether critical tasks run inside a long turn of the queue
   WriterQueue(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath,
               MapDescriptor const& descriptor, char const* file, std::function<void()> beforeFormat,
               std::function<Parcel::KestorId()> kestor, bool const& criticalTaskCheck)
      : tesselWriter(handler, rootPath, descriptor.local,
                     descriptor.pruneQueue ? Tessel::PruneMode::prune : Tessel::PruneMode::keep,
                     std::move(beforeFormat))
      , ruskSm(
            handler, rootPath, file, [this] { return tesselWriter.tail(); }, std::move(kestor)) {
      tesselWriter.followersIs(&ruskSm);
      ruskSm.publishIs([this](u32 readers, u32 resyncs) { tesselWriter.figuresIs(readers, resyncs); });
      tesselWriter.longOperationHookIs([&criticalTaskCheck] {
         if (criticalTaskCheck) Lomi::TaskSchedulerRoot::root().runCriticalPriorityTasks();
      });
   }
   WriterQueue(WriterQueue const&) = delete;
   WriterQueue& operator=(WriterQueue const&) = delete;

   void notify(u32 slot) { tesselWriter.notify(slot); }
   void tombstone(u32 slot) { tesselWriter.tombstone(slot); }
   /// Makes room for slots that a growth is going to add, if it can; it isn't tried twice.
   void prepare(u32 slots) {
      if (slots <= prepared_) [[likely]]
         return;
      prepared_ = slots;
      try {
         tesselWriter.reserve(slots);
      } catch (Lomi::MemoryResourceException const&) {
         // The growth will say so if it comes.
      }
   }
   /// @throws Lomi::MemoryResourceException
   void reserve(u32 slots) {
      tesselWriter.reserve(slots);
      prepared_ = slots;
   }
   void cutTo(u32 slots) {
      tesselWriter.trim(slots);
      prepared_ = slots;
   }
   bool releasePending() const { return tesselWriter.choresPending(); }
   void release() { tesselWriter.chores(); }
   void countInto(Writer::Counters& counters) const {
      counters.ruskCount = ruskSm.counters().wakesSent;
      counters.sequencesProcessed = ruskSm.counters().sequencesProcessed;
      counters.readers = ruskSm.readers();
      counters.sleepingReaders = ruskSm.sleepingReaders();
      counters.droppedPeers = ruskSm.droppedPeers();
      counters.queueTurns = tesselWriter.turns();
      counters.queueBytesMapped = tesselWriter.mappedSize();
   }

   TesselWriter tesselWriter;
   Rusk::WriterRuskSm ruskSm;

private:
   u32 prepared_ = 0; ///< slots for which room was asked
};

} // namespace Mirak
