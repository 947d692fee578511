// SPDX-License-Identifier: Apache-2.0
// The end of counted objects. See PtrInterface.h.
#include "Zeb/PtrInterface.h"

#include "Lomi/DeleteLater.h"
#include "Zeb/NotifieeList.h"
#include "Zeb/ZebType.h"

#include <memory>
#include <new>

namespace Zeb {

bool VFPtrInterface::threadSafePointers_ = false;

NotifieeListPtr PtrInterface::notifieeList() const { return {}; }

void PtrInterface::hasNotificationActiveIs(bool active) { active_ = active; }

void PtrInterface::zeroReferencesIs(bool zero) {
   if (auto const list = notifieeList(); zero && active_ && list.list) list.list->visitZeroReferences();
}

ZebType PtrInterface::fwkType() const { return {}; }

PtrInterface::~PtrInterface() = default;

void PtrInterface::lastReferenceGone() const noexcept {
   if (departing_ || life_ == Life::farewell) return; // whoever began it ends it
   if (auto const list = notifieeList(); list.list && list.list->visiting()) {
      departing_ = true;
      Lomi::deleteLater(std::shared_ptr<void>(nullptr, [this](void*) {
         departing_ = false;
         if (references() == 0) lastReferenceGone();
      }));
      return;
   }
   if (life_ == Life::alive) {
      life_ = Life::farewell;
      const_cast<PtrInterface*>(this)->zeroReferencesIs(true);
      life_ = Life::afterFarewell;
      if (references() != 0) return;
   }
   delete this;
}

void* PtrInterface::zebMemAlloc(std::size_t bytes) { return ::operator new(bytes); }
void PtrInterface::zebMemFree(void* memory) noexcept { ::operator delete(memory); }

void PtrInterface::NotifieeConst::onAttribute(AttributeId, void const*) {}

} // namespace Zeb
