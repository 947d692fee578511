// SPDX-License-Identifier: Apache-2.0
#include "Mem/WriterSentry.h"

#include "Lomi/Exception.h"

namespace Mem {

WriterSentry::WriterSentry(Lomi::Platform::DebugHandler const& handler, Notifiee* notifiee,
                           NaoRootPath const& rootPath)
   : handler_(handler)
   , rootPath_(rootPath)
   , notifiee_(notifiee)
   , watch_(handler, rootPath, [this](bool) { process(eventFiles); }) {}

WriterSentry::~WriterSentry() = default;

void WriterSentry::close() {
   notifiee_ = nullptr;
   watch_.stop();
   deferred_.cancel();
}

void WriterSentry::event(std::string const& name, bool) {
   if (!notifiee_) return;
   if (name == eventInit) {
      seen_ = tableState(handler_, rootPath_);
      // The writer removes the old one before it lets readers in: this is of a reader that was quick.
      seen_.damageMarked = false;
   } else if (!deferred_.active()) {
      deferred_ = Lomi::TaskSchedulerRoot::root().deferredTask([this, name] { process(name); });
   }
}

void WriterSentry::process(std::string const& event) {
   if (!notifiee_ || !enabled || inCall()) return;
   TableState const now = tableState(handler_, rootPath_);
   bool const marked = now.damageMarked && !seen_.damageMarked;
   if (now == seen_ || now.unseen || (marked && !mayProve())) return; // the next poll looks again
   seen_ = now;
   Call const call(*this);
   if (marked) prove();
   checkFiles(event);
}

bool WriterSentry::mayProve() {
   if (notifiee_->inDirectMode()) return false;
   auto const now = std::chrono::steady_clock::now();
   if (proved_ && now - *proved_ < std::chrono::minutes(1)) return false;
   proved_ = now;
   return true;
}

void WriterSentry::prove() {
   LOMI_TRACE(handler_, 0, "WriterSentry", "a reader says that {} is damaged", rootPath_.str());
   bool const sound = notifiee_->validate();
   LOMI_ASSERT(sound, handler_, "corruption detected in {}: the table doesn't pass its proof",
               rootPath_.str());
}

void WriterSentry::checkFiles(std::string const& event) {
   try {
      notifiee_->validateFiles(event, 0);
      seen_ = tableState(handler_, rootPath_);
      seen_.damageMarked = false; // it was removed; what stands there is a new one
   } catch (Lomi::Exception const& e) {
      LOMI_TRACE(handler_, 0, "WriterSentry",
                 "the table {} that is written here is no longer where it was: {}", rootPath_.str(),
                 e.what());
   }
}

} // namespace Mem
