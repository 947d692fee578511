// SPDX-License-Identifier: Apache-2.0
#include "Mirak/Syncer.h"

#include "Lomi/Util.h"

#include <algorithm>
#include <exception>

namespace Mirak {
namespace {

constexpr u32 slotsBetweenLooksAtTheClock = 64;
constexpr double pauseAfterFailure = 0.1;

} // namespace

void Syncer::sync(u32 slots, SyncerMode mode, bool later) {
   cancel();
   mode_ = mode;
   slots_ = slots;
   position_ = 0;
   done_ = false;
   if (later)
      stepAfter(0);
   else
      forceSyncCompletion();
}

void Syncer::cancel() {
   ++sweep_;
   done_ = true;
   task_.cancel();
}

void Syncer::notifyingIs(bool notifying) {
   notifying_ = notifying;
   if (!done_ && !waits() && !task_.active()) stepAfter(0);
}

void Syncer::stepAfter(double seconds) {
   auto const next = [this] { step(); };
   task_ = seconds > 0 ? Lomi::TaskSchedulerRoot::root().timerTask(seconds, next)
                       : Lomi::TaskSchedulerRoot::root().deferredTask(next);
}

void Syncer::forceSyncCompletion() {
   if (done_ || forcing_) return;
   struct Forcing {
      bool& flag;
      explicit Forcing(bool& forcing)
         : flag(forcing) {
         flag = true;
      }
      ~Forcing() { flag = false; }
   } const forcing(forcing_);
   task_.cancel();
   u64 const sweep = sweep_;
   std::exception_ptr failure;
   for (Took took = Took::slot; sweep == sweep_ && !done_ && took == Took::slot;) {
      try {
         took = one();
      } catch (...) {
         if (!failure) failure = std::current_exception();
      }
   }
   if (failure) std::rethrow_exception(failure);
}

void Syncer::step() {
   if (done_ || waits()) return;
   u64 const sweep = sweep_;
   double const until = Lomi::monotonicTime() + std::max(yieldTime_, 0.0);
   Took took = Took::slot;
   try {
      for (u32 slots = 0; took == Took::slot; ++slots) {
         if (slots % slotsBetweenLooksAtTheClock == 1 && !(Lomi::monotonicTime() < until)) break;
         took = one();
         if (sweep != sweep_ || done_) return;
         if (waits()) return;
      }
   } catch (...) {
      if (sweep == sweep_ && !done_) stepAfter(pauseAfterFailure);
      throw;
   }
   stepAfter(took == Took::nothing ? pauseAfterFailure : 0);
}

/// Takes one slot, or ends the sweep behind the last one.
Syncer::Took Syncer::one() {
   if (position_ >= slots_) {
      done_ = true;
      task_.cancel();
      sweeper_.doSweepComplete(mode_);
      return Took::last;
   }
   u64 const sweep = sweep_;
   consumed_ = false;
   bool taken = false;
   try {
      taken = sweeper_.doSweepSlot(position_, mode_);
   } catch (...) {
      if (sweep == sweep_ && consumed_) ++position_;
      throw;
   }
   if (sweep != sweep_ || done_) return Took::last;
   if (!taken) return Took::nothing;
   ++position_;
   return Took::slot;
}

} // namespace Mirak
