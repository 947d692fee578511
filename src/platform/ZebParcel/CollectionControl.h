// SPDX-License-Identifier: Apache-2.0
// ZebParcel::CollectionControl: what is known of one collection's mount, and the place where an agent listens
// to it. ZebMirak::CollectionControl adds the calls that mount and unmount.
//
// It belongs to an entity, which tells it of changes, and may outlive it: from the entity's farewell on it
// knows of none. One thread uses it.
#pragma once

#include "Zeb/Entity.h"
#include "Zeb/NotifieeList.h"

namespace ZebParcel {

enum class MountStatus : std::uint8_t { notMounted = 0, mounted = 1, synchronised = 2, flushing = 3 };

class HOFLOW_EXPORT CollectionControl : public Zeb::PtrInterface {
public:
   // What notifiees of a control hear, each without a key.
   static constexpr Zeb::AttributeId mountStatusAttribute = 258;
   static constexpr Zeb::AttributeId quiescedAttribute = 259;

   Zeb::NotifieeListPtr notifieeList() const override {
      return {1, const_cast<Zeb::NotifieeList*>(&notifieeList_), {0, 0}};
   }
   void newMember(Zeb::Ptr<NotifieeConst> const& notifiee) { notifieeList_.newMember(this, notifiee); }
   void deleteMember(Zeb::Ptr<NotifieeConst> const& notifiee) {
      notifieeList_.deleteMember(this, notifiee.get());
   }

   MountStatus mountStatus() const { return mountStatus_; }
   /// A writer's table takes rows; a follower's copy has taken in all that it was told of.
   bool quiesced() const { return quiesced_; }

   // For the entity. Notifiees hear of real changes alone.
   void mountStatusIs(MountStatus status);
   void quiescedIs(bool quiesced);

   /// The entity whose collection this controls; null once it is gone, or where there never was one.
   Zeb::Entity* entity() const { return entity_; }
   void entityIs(Zeb::Entity* entity) { entity_ = entity; }
   /// An entity's farewell: a control of a collection of this entity lets go of both.
   virtual void entityRefIs(Zeb::Ptr<Zeb::Entity> const& entity);

protected:
   CollectionControl() = default;

private:
   Zeb::Entity* entity_ = nullptr;
   MountStatus mountStatus_ = MountStatus::notMounted;
   bool quiesced_ = false;
   Zeb::NotifieeList notifieeList_;
};

} // namespace ZebParcel
