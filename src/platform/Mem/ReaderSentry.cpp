// SPDX-License-Identifier: Apache-2.0
// Everything here asks "what is there, and what does the collection stand on?" and makes the second follow
// the first. Which event caused it only matters for traces, so events may be lost, doubled or merged, as long
// as one look follows the last change.
#include "Mem/ReaderSentry.h"

#include "Lomi/Exception.h"

#include <algorithm>

namespace Mem {
namespace {

constexpr unsigned mostPollsBetween = 12;

// One change may lead to the next; a table that changes all the time must not hold the loop.
constexpr int mostLooks = 4;

} // namespace

ReaderSentry::ReaderSentry(Lomi::Platform::DebugHandler const& handler, NaoRootPath const& rootPath,
                           Notifiee* notifiee)
   : handler_(handler)
   , rootPath_(rootPath)
   , notifiee_(notifiee)
   , watch_(handler, rootPath, [this](bool polled) {
      if (polled)
         process(eventPoll, Reason::polled);
      else
         process(eventFiles, Reason::told);
   }) {}

ReaderSentry::~ReaderSentry() = default;

void ReaderSentry::close() {
   notifiee_ = nullptr;
   watch_.stop();
   deferred_.cancel();
}

void ReaderSentry::onDetach() { attached_.reset(); }

void ReaderSentry::event(std::string const& name, bool) {
   if (!notifiee_) return;
   LOMI_TRACE(handler_, 5, "ReaderSentry", "{} {} event:{}", rootPath_.str(), notifiee_->modeStr(), name);
   if (name == eventCorruption) damageReported();
   if ((name == eventInit || name == eventTryAttach) && !inCall()) return process(name, Reason::asked);
   deferredEvent_ = name;
   if (deferred_.active()) return;
   deferred_ = Lomi::TaskSchedulerRoot::root().deferredTask([this] {
      std::string const latest = deferredEvent_; // more events may come while this one is at work
      process(latest, Reason::told);
   });
}

/// The collection has met damage in what it stands on, or in what it just tries to attach.
void ReaderSentry::damageReported() {
   TableState const now = look();
   auto const& met = attached_ ? attached_ : refused_;
   if (!met || !now.sameTable(*met)) return; // there is another table by now
   damaged_ = now;
   damageReported_ = true;
}

void ReaderSentry::process(std::string const& event, Reason reason) {
   if (!notifiee_ || inCall()) return;
   Call const call(*this);
   for (int looks = 0; looks < mostLooks; ++looks) {
      if (!notifiee_ || !enabled) return;
      TableState const now = look();
      if (now.unseen) return; // the next poll looks again
      if (notifiee_->readerFullyAttached()) {
         if (leave(now)) continue;
         if (notifiee_ && notifiee_->disconnectedActiveReader()) notifiee_->attach(event);
         return;
      }
      attached_.reset();
      damageReported_ = false;
      if (!mayAttach(now, reason) || !attach(event, reason, now)) return;
   }
   this->event(eventFiles, false);
}

/// Detaches the collection if what it stands on is no longer good. @return whether it did
bool ReaderSentry::leave(TableState const& now) {
   if (!attached_) { // by somebody else
      attached_ = now;
      attached_->kestor = notifiee_->kestorId();
   }
   bool const good = now.sameTable(*attached_) && !std::exchange(damageReported_, false);
   if (good) return false;
   LOMI_TRACE(handler_, 1, "ReaderSentry", "{} leaves kestorId:{}, there is {}", rootPath_.str(),
              notifiee_->kestorId(), now.kestor);
   attached_.reset();
   try {
      notifiee_->detach(false);
   } catch (...) { // of its client; what is there now is still to be attached
      event(eventFiles, false);
      throw;
   }
   return true;
}

bool ReaderSentry::mayAttach(TableState const& now, Reason reason) {
   if (damaged_) {
      bool const markerGone = damaged_->damageMarked && !now.damageMarked;
      if (now.samePublication(*damaged_) && !markerGone) {
         damaged_->damageMarked = now.damageMarked;
         return false;
      }
      damaged_.reset();
   }
   if (!now.published()) return false;
   if (refused_ != now) pollsBetween_ = 1;
   if (reason != Reason::polled || refused_ != now) return true;
   // What the system refused (memory, a right, a descriptor) may be had later.
   if (pollsToNext_ > 0 && --pollsToNext_ > 0) return false;
   pollsBetween_ = std::min(pollsBetween_ * 2, mostPollsBetween);
   return true;
}

/// @return whether to look once more, because the table changed in between
bool ReaderSentry::attach(std::string const& event, Reason reason, TableState const& now) {
   refused_ = now;
   pollsToNext_ = pollsBetween_;
   try {
      notifiee_->attach(event);
   } catch (Lomi::Exception const& e) {
      if (reason == Reason::asked || !notifiee_ || notifiee_->readerFullyAttached()) throw;
      LOMI_TRACE(handler_, 0, "ReaderSentry", "cannot attach {}: {}", rootPath_.str(), e.what());
   }
   if (!notifiee_ || !notifiee_->readerFullyAttached()) return false;
   refused_.reset();
   attached_ = now;
   attached_->kestor = notifiee_->kestorId();
   return attached_->kestor != now.kestor;
}

TableState ReaderSentry::look() {
   TableState const now = tableState(handler_, rootPath_);
   if (now != seen_)
      LOMI_TRACE(handler_, 3, "ReaderSentry", "{} kestorId:{} slots:{} damageMarked:{}", rootPath_.str(),
                 now.kestor, now.slots.inode, now.damageMarked);
   seen_ = now;
   return now;
}

} // namespace Mem
