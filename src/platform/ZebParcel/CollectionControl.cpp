// SPDX-License-Identifier: Apache-2.0
// What a control tells its notifiees. See CollectionControl.h.
#include "ZebParcel/CollectionControl.h"

namespace ZebParcel {

void CollectionControl::mountStatusIs(MountStatus status) {
   if (std::exchange(mountStatus_, status) != status) notifieeList_.visit(mountStatusAttribute);
}

void CollectionControl::quiescedIs(bool quiesced) {
   if (std::exchange(quiesced_, quiesced) != quiesced) notifieeList_.visit(quiescedAttribute);
}

void CollectionControl::entityRefIs(Zeb::Ptr<Zeb::Entity> const& entity) {
   if (entity.get() == entity_) entity_ = nullptr;
}

} // namespace ZebParcel
