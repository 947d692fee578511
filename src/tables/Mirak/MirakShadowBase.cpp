// SPDX-License-Identifier: Apache-2.0
#include "Mirak/MirakShadowBase.h"

#include "Lomi/Exception.h"
#include "Lomi/Util.h"

#include <algorithm>
#include <cerrno>

namespace Mirak {
namespace {

constexpr u32 entriesBetweenLooksAtTheClock = 500;

/// What Rusk's clientQuiesced() of the table's writer knows this process by.
std::string nameOfThisProcess() {
   std::string const name = ::program_invocation_short_name;
   return Rusk::nameAllowed(name) ? name : std::string();
}

} // namespace

MirakShadowBase::MirakShadowBase(Lomi::Platform::DebugHandler const& handler, std::string const& name,
                                 u32 flags)
   : Debuggable(handler)
   , rootPath_(handler, name, false)
   , syncer_(*this)
   , tesselReader_(handler, rootPath_, *this)
   , rusk_(handler, rootPath_, *this, nameOfThisProcess())
   , shadowFlags(flags) {}

MirakShadowBase::~MirakShadowBase() = default;

bool MirakShadowBase::initializeTessel() {
   if (!tesselReader_.attach(kestorId())) {
      LOMI_TRACE(debugHandler(), 1, "MirakShadowBase", "no queue: {}", tesselReader_.lastError());
      return false;
   }
   synced_ = quiescedTold_ = false;
   sweep(SyncerMode::fill);
   rusk_.maybeConnect();
   return true;
}

void MirakShadowBase::detachTessel() {
   rusk_.detach();
   syncer_.cancel();
   tesselReader_.detach();
}

/// Rows that are in the table now lie in slots that are mapped now; later ones are announced behind start.
/// Local slots beyond the table hold what has gone.
void MirakShadowBase::sweep(SyncerMode mode) {
   Rusk::Sequence const start = syncFromTessel();
   resize();
   sequence_ = start;
   rusk_.processingIs(false);
   syncer_.sync(std::max(capacity(), localCapacity()), mode, true);
}

void MirakShadowBase::resync() {
   sweep(SyncerMode::resync);
   ++resyncs_;
   rusk_.report();
   LOMI_TRACE(debugHandler(), 1, "MirakShadowBase", "{} sweeps again from seq:{}", rootPath_.str(),
              sequence_);
   tellQuiesced(false);
}

void MirakShadowBase::maybeEnableTessel() {
   tesselReader_.sweptTo(sequence_);
   rusk_.processingIs(true);
}

Rusk::Walked MirakShadowBase::walk() {
   try {
      switch (tesselReader_.walk(entriesBetweenLooksAtTheClock)) {
      case Tessel::WalkResult::more: {
         // A client hears of it only if it takes longer than a turn of the loop.
         double const now = Lomi::monotonicTime();
         if (walkingSince_ == 0) walkingSince_ = now;
         if (now - walkingSince_ > yieldTime_) tellQuiesced(false);
         return Rusk::Walked::more;
      }
      case Tessel::WalkResult::quiesced:
         walkingSince_ = 0;
         tellQuiesced(true);
         return Rusk::Walked::atEnd;
      case Tessel::WalkResult::resync:
         resync();
         return Rusk::Walked::stopped;
      case Tessel::WalkResult::otherTable: // the sentry learns of it, too, and detaches this shadow
         return Rusk::Walked::later;
      case Tessel::WalkResult::detached:
         return Rusk::Walked::stopped;
      }
   } catch (Lomi::CorruptionDetectedException const& e) {
      corruptionDetected(e.msg());
      return Rusk::Walked::later;
   }
   return Rusk::Walked::stopped;
}

void MirakShadowBase::tellQuiesced(bool quiesced) {
   if (std::exchange(quiescedTold_, quiesced) != quiesced) handleQuiesced(quiesced);
}

bool MirakShadowBase::doSweepSlot(u32 slot, SyncerMode mode) {
   if (mode == SyncerMode::flush) {
      doFlushSlot(slot);
      return true;
   }
   try {
      doSlot(slot, Rusk::noSequence, mode == SyncerMode::resync || flag(shadowFlagResume));
      return true;
   } catch (Lomi::CorruptionDetectedException const& e) {
      corruptionDetected(e.msg());
      return false;
   }
}

void MirakShadowBase::doSweepComplete(SyncerMode mode) {
   if (mode == SyncerMode::flush)
      flushComplete();
   else
      syncComplete();
}

} // namespace Mirak
