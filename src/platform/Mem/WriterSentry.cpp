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
   } else if (!deferred_.active()) {
      deferred_ = Lomi::TaskSchedulerRoot::root().deferredTask([this, name] { process(name); });
   }
}

void WriterSentry::process(std::string const& event) {
   if (!notifiee_ || !enabled || inCall()) return;
   TableState const before = seen_;
   seen_ = tableState(handler_, rootPath_);
   bool const marked = seen_.damageMarked && !before.damageMarked;
   if (marked && !mayProve()) seen_.damageMarked = false; // a later look sees it
   if (seen_ == before) return;
   Call const call(*this);
   if (seen_.damageMarked && !before.damageMarked) prove();
   checkFiles(event);
}

bool WriterSentry::mayProve() {
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
      seen_ = tableState(handler_, rootPath_); // it removed the marker
   } catch (Lomi::Exception const& e) {
      LOMI_TRACE(handler_, 0, "WriterSentry",
                 "the table {} that is written here is no longer where it was: {}", rootPath_.str(),
                 e.what());
   }
}

} // namespace Mem
