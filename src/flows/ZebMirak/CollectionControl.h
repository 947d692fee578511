// SPDX-License-Identifier: Apache-2.0
// ZebMirak::CollectionControl: how an agent mounts a collection, and hears how the mount stands. Each
// collection of an entity has one.
//
//    Mirak::MapDescriptor descriptor(100000);
//    descriptor.type = Mirak::MirakType::reader;
//    entity->hoIpFlowConfigControl()->init(descriptor);
//
// It may outlive its entity. Calls of a control whose collection is gone throw
// Lomi::InvalidInitializeException. It belongs to its collection's thread.
#pragma once

#include "Mirak/ControlBase.h"
#include "ZebParcel/CollectionControl.h"

namespace ZebMirak {

class HOFLOW_EXPORT CollectionControl final : public ZebParcel::CollectionControl,
                                              public Zeb::Tracked<CollectionControl> {
public:
   /// @param collection may end before this control, if it says so by collectionGone()
   explicit CollectionControl(Mirak::ControlBase* collection)
      : collection_(collection) {}
   static Zeb::Ptr<CollectionControl> CollectionControlIs(Mirak::ControlBase* collection);

   /// Mounts the collection, at the entity's path. What its descriptor may say and what this may throw:
   /// Mirak::ControlBase::init.
   /// @throws Lomi::InvalidInitializeException also if the entity has no parent: its table would have no
   /// place, and the first parent takes the place of whatever is mounted
   void init(Mem::CollectionDescriptor const& descriptor);
   /// Ends the mount; files stay.
   void controlDetach() { collection().controlDetach(); }
   /// Ends the mount and removes the table's files. The process stops if nothing is mounted.
   void cleanupAndDetach() { collection().cleanupAndDetach(); }
   /// Attaches a waiting reader now, if its table is there.
   void tryAttach() { collection().tryAttach(); }
   /// For the rest: facts, counters, settings of the mount.
   Mirak::ControlBase& collection() const;

   void entityRefIs(Zeb::Ptr<Zeb::Entity> const& entity) override;
   void collectionGone();

private:
   Mirak::ControlBase* collection_; ///< null once its entity is gone
};

} // namespace ZebMirak
