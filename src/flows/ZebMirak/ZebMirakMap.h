// SPDX-License-Identifier: Apache-2.0
// ZebMirak::ZebMirakMap: binds a collection's front object (Mirak/MirakMap.h), which knows nothing of
// entities, to one attribute of one entity. It gives the front object its name, which follows the entity's
// place in the tree; the callbacks, which end in the entity's ...Notify operations; a first back end in
// private memory; and an iterator.
//
//   state     entered by                    back end                  name
//   bound     entity()                      private, 100 rows         ENTITY/ATTRIBUTE
//   parented  handleParent(), a parent      private, a new one        PATH/ATTRIBUTE
//   mounted   init()                        by the descriptor         PATH/ATTRIBUTE
//   orphan    handleParent(), none          placeholder               ENTITY/ATTRIBUTE
//
// A collection moves to a parent once in its life. Its entity holds it by value, on one thread.
#pragma once

#include "Mirak/MirakMap.h"
#include "Zeb/AllocTrack.h"
#include "Zeb/Entity.h"
#include "ZebParcel/Util.h"

#include <typeinfo>

namespace ZebMirak {

template <class Entity, class Record, class KeyType, class Ops>
class HOFLOW_EXPORT ZebMirakMap : public Mirak::MirakMap<Ops> {
public:
   using Key = KeyType;
   using Value = typename Ops::Value; ///< a Record with `fwkKey()`
   class IteratorConst;

   ZebMirakMap() = default;
   ~ZebMirakMap() override {
      if (this->debugHandler) LOMI_TRACE(*this->debugHandler, 2, "ZebMirakMap", "{}", "deleting state");
   }

   /// Binds it; from here on it answers. Called once, by the entity's constructor. @param id of the
   /// attribute; the entity itself passes it to its notifiees
   void entity(Zeb::String const& attributeName, Entity* e, Zeb::AttributeId id,
               void (Entity::*changed)(Key const&), void (Entity::*mountStatusChanged)(),
               void (Entity::*quiescedChanged)(bool));
   /// The entity's parent has changed, or is gone: see the table above.
   /// @throws Lomi::InvalidInitializeException: it had one before
   void handleParent();

   using Mirak::MirakMap<Ops>::validateFiles;
   bool validateFiles(std::string const& event, unsigned change) override {
      LOMI_TRACE(*this->debugHandler, 5, "ZebMirakMap", "{}", "delegating to MirakMap::validateFiles");
      return Mirak::MirakMap<Ops>::validateFiles(event, change);
   }
   /// The entity's type, such as "FlowTracking::HoFlowConfig". @throws std::bad_typeid before entity()
   std::string classType() const override { return Zeb::demangled(typeid(*entity_)); }

   Mem::u32 members() const { return this->back().members(); } ///< rows

private:
   void nameIs(std::string_view place) { this->name = fmt::format("{}/{}", place, this->traceName); }

   Entity* entity_ = nullptr; ///< holds this, so this keeps no reference
   bool parentSeen_ = false;
};

/// A walk, by copies: it holds no pointer into the table. The table may change meanwhile in any way, rows
/// come and go, also the current one, another back end may take its place: each step goes on from the last
/// key. The row isn't refreshed when it changes. Damage ends a walk, after doCorruptionDetected().
template <class Entity, class Record, class Key, class Ops>
class ZebMirakMap<Entity, Record, Key, Ops>::IteratorConst {
public:
   /// At the first row. Null: at the end.
   explicit IteratorConst(ZebMirakMap const* map);
   /// At the row of `key`; if there is none, at the one that follows it in the walk's order.
   IteratorConst(ZebMirakMap const* map, Key const& key);

   /// False at the end: then row() is the last one that was met, or a default row.
   bool valid() const { return valid_; }
   Value const& row() const { return row_; }
   /// To be called while valid().
   void advance();

private:
   void step(Key const& key);
   template <class Operation> void guarded(Operation operation);

   ZebMirakMap const* map_;
   Mirak::IterHint hint_;
   Mem::u64 backEnd_ = 0; ///< what the hint belongs to
   Value row_;
   bool valid_ = false;
};

template <class Entity, class Record, class Key, class Ops>
void ZebMirakMap<Entity, Record, Key, Ops>::entity(Zeb::String const& attributeName, Entity* e,
                                                   Zeb::AttributeId, void (Entity::*changed)(Key const&),
                                                   void (Entity::*mountStatusChanged)(),
                                                   void (Entity::*quiescedChanged)(bool)) {
   entity_ = e;
   this->traceName = attributeName.str();
   this->debugHandler = Lomi::Platform::getDebugHandler("MirakTemp", false);
   nameIs(e->name());
   // Keys are passed on as copies: the first notifiee may detach the table that holds the row.
   auto const key = [this, changed](Key const& k) {
      Key const copy = k;
      (entity_->*changed)(copy);
   };
   Mem::Notify<Key, Value> callbacks;
   callbacks.changeFn = [key](Value const& row) { key(row.key()); };
   callbacks.keyFn = key;
   callbacks.keyDelFn = key;
   callbacks.mountStatusFn = [this, mountStatusChanged] { (entity_->*mountStatusChanged)(); };
   callbacks.quiescedFn = [this, quiescedChanged](bool q) { (entity_->*quiescedChanged)(q); };
   this->notify = std::move(callbacks);
   LOMI_TRACE(*this->debugHandler, 5, "ZebMirakMap", "creating local MirakWriter {}", this->name);
   this->backIs(this->createDefaultLocalWriter(*this->debugHandler));
}

template <class Entity, class Record, class Key, class Ops>
void ZebMirakMap<Entity, Record, Key, Ops>::handleParent() {
   std::string const oldName = this->name;
   bool const hasParent = bool(entity_->parent());
   nameIs(hasParent ? ZebParcel::Util::fullName(entity_) : entity_->name());
   if (!hasParent) {
      LOMI_TRACE(*this->debugHandler, 5, "ZebMirakMap", "{} is now an orphan", this->name);
      this->assertOnOrphanAccess = this->descriptor.assertOnOrphanAccess;
      this->controlDetach();
      return;
   }
   if (parentSeen_)
      throw Lomi::InvalidInitializeException(fmt::format("Entity {} already initialized", entity_->name()));
   parentSeen_ = true;
   LOMI_TRACE(*this->debugHandler, 5, "ZebMirakMap", "old:{} new:{}", oldName, this->name);
   if (this->initialized()) this->controlDetach(); // a mount at the old name, made past the control
   this->backIs(this->createDefaultLocalWriter(*this->debugHandler));
}

template <class Entity, class Record, class Key, class Ops>
template <class Operation>
void ZebMirakMap<Entity, Record, Key, Ops>::IteratorConst::guarded(Operation operation) {
   valid_ = false;
   try {
      operation();
   } catch (Lomi::CorruptionDetectedException const& e) {
      valid_ = false;
      map_->doCorruptionDetected(e.msg());
   }
}

template <class Entity, class Record, class Key, class Ops>
ZebMirakMap<Entity, Record, Key, Ops>::IteratorConst::IteratorConst(ZebMirakMap const* map)
   : map_(map) {
   if (!map_) return;
   backEnd_ = map_->backChanges();
   guarded([this] { valid_ = map_->back().first(row_, hint_); });
}

template <class Entity, class Record, class Key, class Ops>
ZebMirakMap<Entity, Record, Key, Ops>::IteratorConst::IteratorConst(ZebMirakMap const* map, Key const& key)
   : map_(map) {
   if (!map_) return;
   Key const from = key;
   guarded([&] {
      bool found = false; // a lookup that throws may have found it, in a table that isn't the one any more
      row_ = *map_->back().lookup(from, found, nullptr);
      valid_ = found;
   });
   if (!valid_) step(from);
}

template <class Entity, class Record, class Key, class Ops>
void ZebMirakMap<Entity, Record, Key, Ops>::IteratorConst::advance() {
   if (map_) step(Key(row_.key()));
}

template <class Entity, class Record, class Key, class Ops>
void ZebMirakMap<Entity, Record, Key, Ops>::IteratorConst::step(Key const& key) {
   // A hint of another back end would lead into a foreign chain.
   if (backEnd_ != map_->backChanges()) hint_ = {};
   backEnd_ = map_->backChanges();
   guarded([&] { valid_ = map_->back().next(key, row_, hint_); });
}

} // namespace ZebMirak
