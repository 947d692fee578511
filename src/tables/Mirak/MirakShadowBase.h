// SPDX-License-Identifier: Apache-2.0
// The part of a shadow (MirakShadow.h) that doesn't depend on its rows: when the copy is swept, when the
// table's change queue is walked, and how the two join without a gap.
//
//   1  take the queue's last sequence; from there on the queue tells what changes     syncFromTessel()
//   2  sweep over every slot, in steps; the queue is not walked meanwhile              Syncer
//   3  go on in the queue from 1                                                       maybeEnableTessel()
//   4  walk it whenever the writer says so, or by polling                              Rusk::ReaderRuskSm
//   5  if the queue says that entries were lost to its bound: 1 again                  resync()
//
// A change that comes while the sweep passes by is seen by it, or by the queue afterwards, or by both: a
// slot's change is taken in as a state, not as a step, so twice is harmless.
//
// The writer may die and come back with the same files: the copy stays as it is, and the walk goes on from
// its place in the queue, with no sweep and nothing told of rows that didn't change. Nobody sweeps where a
// place in the queue can be kept, because a keyshadow tells of every row that a sweep meets.
//
// Everything runs on the owner's thread, from its Lomi::TaskSchedulerRoot. A client's callback may detach the
// shadow from inside any step; it must not destroy it there.
#pragma once

#include "Mirak/ShadowQueue.h"
#include "Mirak/Syncer.h"
#include "Rusk/ReaderRuskSm.h"
#include "Tessel/TesselReader.h"

#include <string>

namespace Mirak {

class HOFLOW_EXPORT MirakShadowBase : public Lomi::Debuggable,
                                      public ShadowQueue,
                                      private Tessel::SlotClient<Tessel::BasicSlot>,
                                      private Rusk::Follower,
                                      private Syncer::Sweeper {
public:
   static constexpr u32 shadowFlagKeyOnly = 1;       ///< the copy holds keys alone
   static constexpr u32 shadowFlagResume = 2;        ///< not the first attach of its mount
   static constexpr u32 shadowFlagNotifyOnFlush = 4; ///< an entry that is flushed is told as removed

   MirakShadowBase(Lomi::Platform::DebugHandler const& handler, std::string const& name, u32 flags);
   virtual ~MirakShadowBase();

   // ShadowQueue, for the store
   bool validateNotif() const override { return tesselReader_.validateNotif(); }
   void consume() override {
      tesselReader_.consume();
      syncer_.consume();
   }

   /// One slot of the table has changed. See ShadowStore.h.
   bool doSlot(Tessel::BasicSlot slot, Rusk::Sequence seq, bool compare) override = 0;
   virtual void doFlushSlot(u32 slot) = 0;

protected:
   // --- what the shadow itself does ---
   /// The copy holds all that was in the table at sequence_, or is newer.
   virtual void syncComplete() = 0;
   virtual void flushComplete() = 0;
   virtual void handleQuiesced(bool quiesced) = 0;
   virtual void handleReturn() = 0; ///< the connection to the writer stands, for the first time or again
   void handleDisconnect() override = 0;
   virtual void corruptionDetected(std::string const& message) = 0;
   Parcel::KestorId kestorId() const override = 0;
   virtual bool resize() = 0;             ///< follows the table's files
   virtual u32 capacity() const = 0;      ///< slots of the table that are mapped
   virtual u32 localCapacity() const = 0; ///< slots of the copy

   /// Attaches to the queue and lets the first sweep begin from the loop. @return false: there is no queue
   /// @throws what resize() throws
   bool initializeTessel();
   /// Looks for the writer at once, and goes on in the queue.
   void maybeConnect() { rusk_.maybeConnect(); }
   /// Ends every activity. No callback comes afterwards.
   void detachTessel();
   /// Sweeps once more. @throws what resize() throws; nothing has begun then
   virtual void resync();
   /// The end of a sweep: the queue may be walked again.
   virtual void maybeEnableTessel();
   /// The sequence from which the queue goes on after a sweep that begins now.
   virtual Rusk::Sequence syncFromTessel() const { return tesselReader_.capture(); }
   /// Tells the client once, however often it is so.
   void tellQuiesced(bool quiesced);

   bool flag(u32 which) const { return shadowFlags & which; }

   Mem::NaoRootPath const rootPath_;
   Syncer syncer_;
   Tessel::TesselReader<Tessel::BasicSlot> tesselReader_;
   Rusk::ReaderRuskSm rusk_;
   u32 const shadowFlags;
   Rusk::Sequence sequence_ = 0; ///< at the start of the last sweep
   bool synced_ = false;         ///< a first sweep was completed
   u32 resyncs_ = 0;
   double yieldTime_ = 0.05;

private:
   Rusk::Walked walk() override;
   bool behind() const override { return !tesselReader_.quiesced(); }
   u64 resyncs() const override { return resyncs_; }
   Rusk::Sequence last() const override { return syncer_.done() ? tesselReader_.last() : sequence_; }
   void handleConnect() override { handleReturn(); }
   bool doSweepSlot(u32 slot, SyncerMode mode) override;
   void doSweepComplete(SyncerMode mode) override;
   void sweep(SyncerMode mode);

   bool quiescedTold_ = false;
   double walkingSince_ = 0; ///< 0: the end of the queue was met last
};

} // namespace Mirak
