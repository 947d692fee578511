// SPDX-License-Identifier: Apache-2.0
// What keeps a control from a collection that is gone or has no place. See CollectionControl.h.
#include "ZebMirak/CollectionControl.h"

#include "Lomi/Exception.h"

namespace ZebMirak {

Zeb::Ptr<CollectionControl> CollectionControl::CollectionControlIs(Mirak::ControlBase* collection) {
   Zeb::Ptr<CollectionControl> control(new CollectionControl(collection), Zeb::Ptr<CollectionControl>::adopt);
   control->hasNotificationActiveIs(true);
   return control;
}

void CollectionControl::init(Mem::CollectionDescriptor const& descriptor) {
   auto& mounted = collection();
   if (!entity() || !entity()->parent())
      throw Lomi::InvalidInitializeException(fmt::format(
          "cannot initialize collection {}: its entity has no parent", mounted.rootPath().name()));
   mounted.init(descriptor);
}

Mirak::ControlBase& CollectionControl::collection() const {
   if (!collection_)
      throw Lomi::InvalidInitializeException("the entity that held this control's collection is gone");
   return *collection_;
}

void CollectionControl::entityRefIs(Zeb::Ptr<Zeb::Entity> const& gone) {
   if (gone.get() == entity()) collectionGone();
}

void CollectionControl::collectionGone() {
   collection_ = nullptr;
   entityIs(nullptr);
}

} // namespace ZebMirak
