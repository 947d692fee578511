// SPDX-License-Identifier: Apache-2.0
// A pass over a shadow's slots, cut into steps that the loop runs one after the other: to fill the copy, to
// go over it again, or to empty it. It knows numbers of slots; what is done with one is the sweeper's.
//
// A step takes slots for the yield time, and one at least. Between two steps the agent's other work runs, and
// the sweep may be replaced, cancelled or forced to its end. So it may within a step, by a client's callback.
//
// A sweep that fills waits while the client wants no notifications; one that empties doesn't.
#pragma once

#include "Lomi/TaskSchedulerRoot.h"
#include "Mem/SharedWords.h"

namespace Mirak {

using Mem::u32;
using Mem::u64;

enum class SyncerMode { fill = 0, resync = 1, flush = 2 };

class Syncer {
public:
   class Sweeper {
   public:
      /// One slot. @return false: it can't be read now; try it again a little later
      /// @throws goes out of the loop to the agent. The slot is tried again later, unless consume() was said.
      virtual bool doSweepSlot(u32 slot, SyncerMode mode) = 0;
      /// All slots were taken. The sweep is over before the call.
      virtual void doSweepComplete(SyncerMode mode) = 0;

   protected:
      ~Sweeper() = default;
   };

   explicit Syncer(Sweeper& sweeper)
      : sweeper_(sweeper) {}
   Syncer(Syncer const&) = delete;
   Syncer& operator=(Syncer const&) = delete;

   /// Sweeps slots 0 up to `slots`; a sweep that runs is given up. @param later false: it is complete on
   /// return; true: its first step comes from the loop
   void sync(u32 slots, SyncerMode mode, bool later);
   /// Finishes a running sweep at once. Does nothing without one, or inside a call of this operation.
   /// REQUIRES: it empties. @throws the first of what the sweeper threw, when all slots are done
   void forceSyncCompletion();
   void cancel();

   SyncerMode mode() const { return mode_; } ///< of the last sweep
   bool done() const { return done_; }       ///< no sweep runs
   void notifyingIs(bool notifying);
   void yieldTimeIs(double seconds) { yieldTime_ = seconds; }
   /// Inside doSweepSlot: the slot counts as taken even if this call throws.
   void consume() { consumed_ = true; }

private:
   enum class Took { slot, nothing, last };
   bool waits() const { return !notifying_ && mode_ != SyncerMode::flush; }
   void stepAfter(double seconds);
   void step();
   Took one();

   Sweeper& sweeper_;
   SyncerMode mode_ = SyncerMode::fill;
   bool done_ = true;
   bool notifying_ = true;
   bool forcing_ = false;
   bool consumed_ = false;
   double yieldTime_ = 0.05;
   u32 position_ = 0;
   u32 slots_ = 0;
   u64 sweep_ = 0; ///< tells a step that its sweep was replaced or cancelled
   Lomi::Task task_;
};

} // namespace Mirak
