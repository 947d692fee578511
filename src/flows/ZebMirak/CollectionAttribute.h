// SPDX-License-Identifier: Apache-2.0
// ZebMirak::CollectionAttribute: one collection as an attribute of an entity. It holds the typed adapter, the
// control and the statistics cells, and is the body of the entity's operations: count the call, hand it to
// the back end, tell the notifiees. Each entity names these operations after its collection
// (`hoIpFlowConfigIs`, `hoIpFlowConfigDel`, ...) and hands them on to one of these.
//
// Order of a change: cell, table, notifiees, cell. So a notifiee that looks the row up finds the change done,
// and where the table throws nobody is told. What the table throws passes to the caller, but for damage: a
// writer's damaged table stops the process, and DelAll alone ends quietly.
#pragma once

#include "Thrum/Writer.h"
#include "Zeb/NotifieeList.h"
#include "ZebMirak/CollectionControl.h"
#include "ZebMirak/ZebMirakMap.h"

#include <string>

namespace ZebMirak {

/// @tparam Record what callers see of a row; Ops' value is this with `fwkKey()`
template <class Entity, class RecordType, class Ops> class CollectionAttribute {
public:
   using Record = RecordType;
   using Key = typename Ops::Key;
   using Row = typename Ops::Value;
   using Map = ZebMirakMap<Entity, Record, Key, Ops>;

   /// The entity's names for this collection and for what the collection calls when something changes.
   struct Binding {
      char const* name;
      Zeb::AttributeId id; ///< of the collection; its control's is one higher
      void (Entity::*notify)(Key const&);
      void (Entity::*notifyMountStatus)();
      void (Entity::*notifyQuiesced)(bool);
   };

   /// `list` is the entity's and outlives this.
   CollectionAttribute(Zeb::NotifieeList& list, Binding const& binding)
      : binding_(binding)
      , notifieeList_(list) {}
   /// An entity that nobody counted, a plain variable, ends without a farewell.
   ~CollectionAttribute() {
      if (ownControl_) ownControl_->collectionGone();
   }
   CollectionAttribute(CollectionAttribute const&) = delete;
   CollectionAttribute& operator=(CollectionAttribute const&) = delete;

   // --- the steps of an entity's construction, in this order ---

   void fetchCells() {
      auto const cell = [this](char const* call) {
         return Thrum::writer().cell((std::string(binding_.name) + call).c_str());
      };
      isCount_ = cell("Is");
      delCount_ = cell("Del");
      notifyCount_ = cell("Notify");
   }
   void bind(Entity* entity) {
      control_ = CollectionControl::CollectionControlIs(&map_);
      control_->entityIs(entity);
      ownControl_ = control_;
      map_.entity(binding_.name, entity, binding_.id, binding_.notify, binding_.notifyMountStatus,
                  binding_.notifyQuiesced);
   }

   // --- rows ---

   void is(Record const& v) {
      ++*isCount_;
      Row const row(v); // the key that is told is that of the call, whatever `v` refers to
      map_.safeWrite(row);
      tell(row.key());
   }
   Record del(Key const& k) {
      ++*delCount_;
      Key const key = k;
      Row removed; // not shared with the calls that a notifiee may make
      if (!map_.safeRemove(key, removed)) return Ops::typeDefault();
      tell(k);
      return removed;
   }
   void delAll() {
      for (typename Map::IteratorConst at(&map_); at.valid(); at.advance()) del(at.row().key());
   }
   void commit(Record const* v) {
      ++*isCount_;
      Key const key = v->key(); // the slot may change once it is committed
      map_.directCommit();
      tell(key);
   }
   /// A copy of the row at `k`, the default row if there is none.
   Record get(Key const& k) const {
      bool found = false;
      Row buffer;
      return *static_cast<Row const*>(map_.safeLookup(k, found, &buffer));
   }

   bool has(Key const& k) const {
      bool found = false;
      map_.safeLookup(k, found, nullptr);
      return found;
   }

   // --- what the collection calls ---

   void notify(Key const& k) { tell(k); }
   void notifyQuiesced(bool q) {
      // A notifiee of the control may drop the entity while the table still stands in this call.
      Zeb::NotifieeList::Visit const visiting(notifieeList_);
      ownControl_->quiescedIs(q);
   }
   void notifyMountStatus() {
      Zeb::NotifieeList::Visit const visiting(notifieeList_);
      ownControl_->mountStatusIs(static_cast<ZebParcel::MountStatus>(map_.mountStatus()));
   }

   // --- the control ---

   Zeb::Ptr<CollectionControl> const& control() const { return control_; }
   /// Sets what the attribute shows. The collection goes on telling its own control, the constructor's.
   void controlIs(Zeb::Ptr<CollectionControl> const& control) {
      if (control == control_) return;
      control_ = control;
      notifieeList_.visit(binding_.id + 1);
   }
   /// The entity's last reference went.
   void farewell(Zeb::Ptr<Zeb::Entity> entity) {
      ownControl_->entityRefIs(entity);
      if (control_) control_->entityRefIs(entity);
      entity = nullptr;
      control_ = nullptr;
   }

   Map& map() { return map_; }
   Map const& map() const { return map_; }

private:
   void tell(Key const& key) {
      notifieeList_.visit(binding_.id, &key);
      ++*notifyCount_;
   }

   Binding const binding_;
   Zeb::NotifieeList& notifieeList_;
   std::uint64_t* isCount_ = nullptr;
   std::uint64_t* delCount_ = nullptr;
   std::uint64_t* notifyCount_ = nullptr;
   Zeb::Ptr<CollectionControl> ownControl_; ///< hears of the mount until the collection is gone
   Map map_;
   Zeb::Ptr<CollectionControl> control_;
};

} // namespace ZebMirak
