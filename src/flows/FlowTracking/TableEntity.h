// SPDX-License-Identifier: Apache-2.0
// FlowTracking::TableEntity: what the four table entities share. An entity is a name, two collections (IPv4
// and IPv6), each with its control, and a list of notifiees; the four differ in their rows and in the names
// of their operations, which each of them spells out.
//
// Life: constructed (rows in private memory) -> in the tree (empty again) -> mounted, each collection through
// its control -> orphan -> gone. The last reference going releases the controls first, then the collections.
// IPv6 comes first in every step.
//
// An entity belongs to one thread.
#pragma once

#include "FlowTracking/Types.h"
#include "Zeb/Entity.h"
#include "Zeb/NotifieeList.h"
#include "ZebMirak/CollectionAttribute.h"

namespace FlowTracking {

template <class E> struct EntityInterface;

template <class Self, class Record4, class Ops4, class Record6, class Ops6>
class HOFLOW_EXPORT TableEntity : public Zeb::Entity, public Zeb::Tracked<Self> {
public:
   using Attribute4 = ZebMirak::CollectionAttribute<Self, Record4, Ops4>;
   using Attribute6 = ZebMirak::CollectionAttribute<Self, Record6, Ops6>;
   using Zeb::Tracked<Self>::operator new;
   using Zeb::Tracked<Self>::operator delete;

   /// Hears of the entity's last reference and releases its controls.
   class ZeroReferencesNotifiee final : public Zeb::PtrInterface::NotifieeConst {
   public:
      void onZeroReferences() override { entity_->farewell(); }

   private:
      friend TableEntity;
      TableEntity* entity_ = nullptr;
   };

   Zeb::NotifieeListPtr notifieeList() const override {
      return {1, const_cast<Zeb::NotifieeList*>(&notifieeList_), {0, 0}};
   }
   Zeb::ZebType fwkType() const override { return Zeb::typeOf<Self>; }
   Zeb::String name() const override { return name_; }
   void handleParent(Zeb::Ptr<Zeb::Entity> const&) override {
      try {
         ip6_.map().handleParent();
      } catch (...) { // of a client that heard of its mount's end; the other mount ends, too
         if (!this->parent()) ip_.map().handleParent();
         throw;
      }
      ip_.map().handleParent();
   }

   void newMember(Zeb::Ptr<NotifieeConst> const& notifiee) { notifieeList_.newMember(this, notifiee); }
   void deleteMember(Zeb::Ptr<NotifieeConst> const& notifiee) {
      notifieeList_.deleteMember(this, notifiee.get());
   }

protected:
   TableEntity(Zeb::String const& name, typename Attribute4::Binding const& ip,
               typename Attribute6::Binding const& ip6)
      : name_(name)
      , ip_(notifieeList_, ip)
      , ip6_(notifieeList_, ip6) {}
   ~TableEntity() override { notifieeList_.deleteAll(); }

   /// The constructor's second half. Called by that of Self, since callbacks may name an entity of its type
   /// only from there on.
   void construct(Self* self) {
      ip6_.fetchCells();
      ip_.fetchCells();
      zeroReferencesNotifiee_ = {new ZeroReferencesNotifiee, Zeb::Ptr<ZeroReferencesNotifiee>::adopt};
      zeroReferencesNotifiee_->entity_ = this;
      zeroReferencesNotifiee_->hasNotificationActiveIs(true);
      notifieeList_.newMember(this, zeroReferencesNotifiee_);
      ip6_.bind(self);
      ip_.bind(self);
   }

   static Zeb::Ptr<Self> make(Zeb::String const& name) {
      Zeb::Ptr<Self> entity(new Self(name), Zeb::Ptr<Self>::adopt);
      entity->hasNotificationActiveIs(true);
      return entity;
   }

private:
   friend EntityInterface<Self>;

   void farewell() {
      ip6_.farewell(this);
      ip_.farewell(this);
      Zeb::NotifieeListPtr::deleteMember(notifieeList(), this, zeroReferencesNotifiee_.get());
   }

   Zeb::Ptr<ZeroReferencesNotifiee> zeroReferencesNotifiee_;
   Zeb::String name_;
   Zeb::NotifieeList notifieeList_; ///< emptied first

protected:
   Attribute4 ip_;
   Attribute6 ip6_;
};

} // namespace FlowTracking
