// SPDX-License-Identifier: Apache-2.0
// The eight collections of the four entities, each as one type with the same names, so that a test is written
// once and runs over all of them. Through these pass all operations that the entities spell out.
#pragma once

#include "FlowTracking/HoFlowConfigEntity.h"
#include "FlowTracking/HoFlowCounterEntity.h"
#include "FlowTracking/HoFlowStatusEntity.h"
#include "FlowTracking/HosStateCounter.h"
#include "TestRoot.h"
#include "Thrum/Writer.h"

#include <functional>
#include <gtest/gtest.h>

namespace Test {

using namespace FlowTracking;
using Mirak::MapDescriptor;
using Mirak::MirakType;

/// Distinct keys for distinct n (below 256).
template <class Key> Key keyNumber(unsigned n) {
   if constexpr (std::is_same_v<Key, HosStateCounterKey>) {
      return Key(static_cast<HoFlowState>(n));
   } else if constexpr (requires(Key k) { k.ipFlowKey(); }) {
      return Key(keyNumber<std::remove_cvref_t<decltype(std::declval<Key>().ipFlowKey())>>(n),
                 Nimbet::IntfId(7));
   } else {
      using Address = std::remove_cvref_t<decltype(std::declval<Key>().srcAddr())>;
      return Key(0, 0, Address(typename Address::Bytes{10}), Address(typename Address::Bytes{11}),
                 Ip::Protocol::udp, static_cast<std::uint16_t>(n), 53);
   }
}

// Pastes the names that each entity gives to its operations.
#define COLLECTION(ENTITY, NAME, RECORD, ID)                                                                 \
   struct NAME##Of##ENTITY {                                                                                 \
      using Entity = ENTITY;                                                                                 \
      using Record = RECORD;                                                                                 \
      using Key = Record::Key;                                                                               \
      static constexpr char const* name = #NAME;                                                             \
      static constexpr char const* entityType = "FlowTracking::" #ENTITY;                                    \
      static constexpr Zeb::AttributeId id = ID;                                                             \
      static Zeb::Ptr<Entity> make(char const* entityName) { return Entity::ENTITY##Is(entityName); }        \
      static void is(Entity& e, Record const& v) { e.NAME##Is(v); }                                          \
      static Record del(Entity& e, Key const& k) { return e.NAME##Del(k); }                                  \
      static void delAll(Entity& e) { e.NAME##DelAll(); }                                                    \
      static void commit(Entity& e, Record const* v) { e.NAME##Commit(v); }                                  \
      static void notify(Entity& e, Key const& k) { e.NAME##Notify(k); }                                     \
      static void notifyQuiesced(Entity& e, bool q) { e.NAME##NotifyQuiesced(q); }                           \
      static void notifyMountStatus(Entity& e) { e.NAME##NotifyMountStatus(); }                              \
      static Record get(Entity const& e, Key const& k) { return e.NAME(k); }                                 \
      static auto& map(Entity& e) { return e.NAME(); }                                                       \
      static auto const& control(Entity const& e) { return e.NAME##Control(); }                              \
      static void controlIs(Entity& e, Zeb::Ptr<ZebMirak::CollectionControl> const& c) {                     \
         e.NAME##ControlIs(c);                                                                               \
      }                                                                                                      \
   };
COLLECTION(HoFlowConfig, hoIpFlowConfig, HoIpFlowConfig, 258)
COLLECTION(HoFlowConfig, hoIp6FlowConfig, HoIp6FlowConfig, 260)
COLLECTION(HoFlowStatus, hoIpFlowStatus, HoIpFlowStatus, 258)
COLLECTION(HoFlowStatus, hoIp6FlowStatus, HoIp6FlowStatus, 260)
COLLECTION(HoFlowCounter, hoIpFlowCounter, HoIpFlowCounter, 258)
COLLECTION(HoFlowCounter, hoIp6FlowCounter, HoIp6FlowCounter, 260)
COLLECTION(HosStateCounter, hosStateIpCounter, HosStateCounterEntry, 258)
COLLECTION(HosStateCounter, hosStateIp6Counter, HosStateCounterEntry, 260)
#undef COLLECTION

using AllCollections =
    testing::Types<hoIpFlowConfigOfHoFlowConfig, hoIp6FlowConfigOfHoFlowConfig, hoIpFlowStatusOfHoFlowStatus,
                   hoIp6FlowStatusOfHoFlowStatus, hoIpFlowCounterOfHoFlowCounter,
                   hoIp6FlowCounterOfHoFlowCounter, hosStateIpCounterOfHosStateCounter,
                   hosStateIp6CounterOfHosStateCounter>;

struct CollectionName {
   template <class C> static std::string GetName(int) { return C::name; }
};

/// A collection's three statistics cells.
struct Cells {
   std::uint64_t is, del, notify;
   bool operator==(Cells const&) const = default;
   friend std::ostream& operator<<(std::ostream& out, Cells const& c) {
      return out << "Is " << c.is << ", Del " << c.del << ", Notify " << c.notify;
   }
   static Cells of(std::string const& name) {
      auto const cell = [&](char const* call) { return *Thrum::writer().cell((name + call).c_str()); };
      return {cell("Is"), cell("Del"), cell("Notify")};
   }
   Cells operator-(Cells const& o) const { return {is - o.is, del - o.del, notify - o.notify}; }
};

/// What a notifiee does when it hears of attribute and key.
class Listener final : public Zeb::PtrInterface::NotifieeConst {
public:
   using Hear = std::function<void(Zeb::AttributeId, void const*)>;
   static Zeb::Ptr<Listener> make(Hear hear) {
      Zeb::Ptr<Listener> made(new Listener(std::move(hear)), Zeb::Ptr<Listener>::adopt);
      made->hasNotificationActiveIs(true);
      return made;
   }
   void onAttribute(Zeb::AttributeId attribute, void const* key) override { hear_(attribute, key); }

private:
   explicit Listener(Hear hear)
      : hear_(std::move(hear)) {}
   Hear hear_;
};

/// A tree with one entity of C in it, its table's place being free.
template <class C> struct Planted {
   std::string const root = testRoot();
   Zeb::Ptr<Zeb::Dir> tree = Zeb::Dir::DirIs("");
   Zeb::Ptr<typename C::Entity> entity = C::make("e");
   std::string const path;

   explicit Planted(std::string place = {})
      : path(place.empty() ? std::string("at/") + C::name : place) {
      tree->entityIs(path + "/e", entity);
   }
   ~Planted() {
      if (C::control(*entity)->collection().initialized() && type == MirakType::writer)
         C::control(*entity)->cleanupAndDetach();
   }
   typename C::Entity& operator*() { return *entity; }
   void mount(MirakType as, bool strict = false) {
      MapDescriptor descriptor(100);
      descriptor.type = type = as;
      descriptor.assertOnOrphanAccess = strict;
      C::control(*entity)->init(descriptor);
   }
   void add(unsigned begin, unsigned end) {
      for (unsigned n = begin; n < end; ++n)
         C::is(*entity, typename C::Record(keyNumber<typename C::Key>(n)));
   }
   unsigned rows() { return C::map(*entity).members(); }
   MirakType type = MirakType::reader;
};

} // namespace Test
