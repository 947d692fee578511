// SPDX-License-Identifier: Apache-2.0
// The four entities as an agent uses them, before any mount and as the writer of mounted tables: what each
// operation counts and tells, where rows live, parents and orphans, and the end. Readers, shadows and damage
// stand in MountTest.cpp.
#include "Collections.h"

namespace Test {
namespace {

template <class C> class Entity : public testing::Test {};
TYPED_TEST_SUITE(Entity, AllCollections, CollectionName);

TYPED_TEST(Entity, CountsAndTellsEachChange) {
   using C = TypeParam;
   using Key = typename C::Key;
   using Record = typename C::Record;
   auto const made = C::make("e");
   auto& e = *made;
   std::vector<std::pair<Zeb::AttributeId, Key>> told;
   e.newMember(Listener::make(
       [&](Zeb::AttributeId id, void const* key) { told.emplace_back(id, *static_cast<Key const*>(key)); }));
   Cells at = Cells::of(C::name);
   auto const counted = [&] { return Cells::of(C::name) - std::exchange(at, Cells::of(C::name)); };
   auto const hears = [&](std::vector<Key> keys) {
      std::vector<std::pair<Zeb::AttributeId, Key>> wanted;
      for (auto const& key : keys) wanted.emplace_back(C::id, key);
      return std::exchange(told, {}) == wanted;
   };
   Key const one = keyNumber<Key>(1), two = keyNumber<Key>(2);
   Record row(one);
   if constexpr (requires { row.updateTimeIs(1); })
      row.updateTimeIs(1234.5);
   else
      row.hoFlowsIs(1234);

   C::is(e, row);
   EXPECT_EQ(counted(), (Cells{1, 0, 1}));
   EXPECT_TRUE(hears({one}));
   C::is(e, row); // equal: told all the same
   EXPECT_EQ(counted(), (Cells{1, 0, 1}));
   EXPECT_TRUE(hears({one}));
   EXPECT_TRUE(C::get(e, one) == row);
   EXPECT_TRUE(C::get(e, two) == Record());

   EXPECT_TRUE(C::del(e, two) == Record()); // absent
   EXPECT_EQ(counted(), (Cells{0, 1, 0}));
   EXPECT_TRUE(hears({}));
   EXPECT_TRUE(C::del(e, one) == row);
   EXPECT_EQ(counted(), (Cells{0, 1, 1}));
   EXPECT_TRUE(hears({one}));

   // In place: a new row, and a change of one.
   auto* const place = C::map(e).back().directWrite(row);
   C::commit(e, place);
   EXPECT_EQ(counted(), (Cells{1, 0, 1}));
   EXPECT_TRUE(hears({one}));
   EXPECT_TRUE(C::get(e, one) == row);

   C::notify(e, two); // from elsewhere
   EXPECT_EQ(counted(), (Cells{0, 0, 1}));
   EXPECT_TRUE(hears({two}));

   // The row that is handed in is the table's own: what is told is still its key.
   bool found = false;
   C::is(e, *C::map(e).safeLookup(one, found, nullptr));
   EXPECT_TRUE(found && hears({one}));
   EXPECT_EQ(counted(), (Cells{1, 0, 1}));
   for (unsigned n = 2; n < 60; ++n) C::is(e, Record(keyNumber<Key>(n)));
   told.clear();
   counted();
   C::delAll(e);
   EXPECT_EQ(counted(), (Cells{0, 59, 59}));
   EXPECT_EQ(told.size(), 59u);
   EXPECT_EQ(C::map(e).members(), 0u);
   C::delAll(e);
   EXPECT_EQ(counted(), (Cells{0, 0, 0}));
}

TYPED_TEST(Entity, HandsRemovedRowsToTheirOwnCallersWhateverNotifieesDo) {
   using C = TypeParam;
   using Key = typename C::Key;
   auto const made = C::make("e");
   auto& e = *made;
   for (unsigned n = 1; n <= 3; ++n) C::is(e, typename C::Record(keyNumber<Key>(n)));
   e.newMember(Listener::make([&](Zeb::AttributeId, void const* key) {
      if (*static_cast<Key const*>(key) == keyNumber<Key>(1)) {
         EXPECT_TRUE(C::del(e, keyNumber<Key>(2)).key() == keyNumber<Key>(2));
         EXPECT_TRUE(C::get(e, keyNumber<Key>(1)) == typename C::Record()); // the change is done
      }
   }));
   EXPECT_TRUE(C::del(e, keyNumber<Key>(1)).key() == keyNumber<Key>(1));
   EXPECT_EQ(C::map(e).members(), 1u);
   // A default row has no bytes of an earlier one, not even where no field lies.
   auto const none = C::del(e, keyNumber<Key>(9));
   if constexpr (sizeof(none) == 8) {
      EXPECT_EQ(reinterpret_cast<std::uint64_t const&>(none), 0u);
   }
}

TYPED_TEST(Entity, ShowsTheControlThatItIsGivenAndTellsItsOwn) {
   using C = TypeParam;
   auto const made = C::make("e"), other = C::make("other");
   auto& e = *made;
   auto const own = C::control(e);
   std::vector<Zeb::AttributeId> told;
   e.newMember(Listener::make([&](Zeb::AttributeId id, void const* key) {
      EXPECT_EQ(key, nullptr);
      told.push_back(id);
   }));
   C::controlIs(e, own);
   EXPECT_TRUE(told.empty());
   C::controlIs(e, C::control(*other));
   C::controlIs(e, C::control(e)); // the very field
   EXPECT_EQ(told, std::vector{C::id + 1});
   EXPECT_TRUE(C::control(e) == C::control(*other));
   int heard = 0;
   own->newMember(Listener::make([&](Zeb::AttributeId id, void const*) {
      heard += id == ZebParcel::CollectionControl::quiescedAttribute;
   }));
   C::notifyQuiesced(e, true);
   C::notifyQuiesced(e, true);
   EXPECT_TRUE(own->quiesced());
   EXPECT_EQ(heard, 1);
   EXPECT_FALSE(C::control(*other)->quiesced());
   own->mountStatusIs(ZebParcel::MountStatus::mounted);
   C::notifyMountStatus(e);
   EXPECT_EQ(own->mountStatus(), ZebParcel::MountStatus::notMounted);
   C::controlIs(e, nullptr);
   EXPECT_FALSE(C::control(e));
   C::notifyQuiesced(e, false);
   EXPECT_FALSE(own->quiesced());
}

TYPED_TEST(Entity, LosesItsRowsWithItsFirstParentAndHasOneOnlyOnce) {
   using C = TypeParam;
   using Key = typename C::Key;
   testRoot();
   auto const e = C::make("e");
   auto const control = C::control(*e);
   auto const& map = C::map(*e);
   EXPECT_EQ(map.rootPath().name(), std::string("e/") + C::name);
   EXPECT_EQ(map.classType(), C::entityType);
   EXPECT_EQ(map.maxSize(), 100u);
   C::is(*e, typename C::Record(keyNumber<Key>(1)));
   EXPECT_THROW(control->init(MapDescriptor(100)), Lomi::InvalidInitializeException); // no parent
   EXPECT_EQ(map.members(), 1u);

   auto tree = Zeb::Dir::DirIs("");
   tree->entityIs("one/e", e);
   EXPECT_EQ(map.rootPath().name(), std::string("one/e/") + C::name);
   EXPECT_EQ(map.members(), 0u);
   C::is(*e, typename C::Record(keyNumber<Key>(1)));
   for (int time = 0; time < 2; ++time) {
      try {
         e->handleParent(e->parent());
         ADD_FAILURE();
      } catch (Lomi::InvalidInitializeException const& refused) {
         EXPECT_EQ(refused.msg(), "Entity e already initialized");
      }
   }
   EXPECT_EQ(map.members(), 1u);

   control->init(MapDescriptor(100));
   EXPECT_EQ(control->mountStatus(), ZebParcel::MountStatus::mounted);
   EXPECT_EQ(map.members(), 0u);
   C::is(*e, typename C::Record(keyNumber<Key>(1)));
   EXPECT_TRUE(map.exists());

   tree->entityDel("one"); // an orphan now
   EXPECT_EQ(control->mountStatus(), ZebParcel::MountStatus::notMounted);
   EXPECT_FALSE(control->collection().initialized());
   EXPECT_EQ(map.members(), 0u);
   EXPECT_THROW(C::is(*e, typename C::Record(keyNumber<Key>(2))), Lomi::NoPermissionException);
   EXPECT_THROW(control->init(MapDescriptor(100)), Lomi::InvalidInitializeException);
   EXPECT_THROW(tree->entityIs("two/e", e), Lomi::InvalidInitializeException);
   control->collection().cleanup(); // still reaches the table's files

   // Mounted past its control before it had a place: that mount ends with the first parent.
   auto const early = C::make("early");
   C::map(*early).init(MapDescriptor(100));
   tree->entityIs("one/early", early);
   EXPECT_FALSE(C::map(*early).initialized());
   EXPECT_EQ(C::map(*early).rootPath().name(), std::string("one/early/") + C::name);
}

TYPED_TEST(Entity, EndsWithItsLastReferenceAndItsControlsKnow) {
   using C = TypeParam;
   auto const living = [] { return C::Entity::zebAllocTrackTypeInfo_.figures().living; };
   auto const controls = [] { return ZebMirak::CollectionControl::zebAllocTrackTypeInfo_.figures().living; };
   auto const before = living(), controlsBefore = controls();
   auto e = C::make("e");
   auto other = C::make("other");
   EXPECT_EQ(living(), before + 2);
   EXPECT_EQ(controls(), controlsBefore + 4);
   auto own = C::control(*e);
   C::controlIs(*e, C::control(*other));
   e = nullptr;
   EXPECT_EQ(living(), before + 1);
   EXPECT_EQ(own->references(), 1u);
   EXPECT_EQ(own->entity(), nullptr);
   EXPECT_THROW(own->init(MapDescriptor(100)), Lomi::InvalidInitializeException);
   EXPECT_THROW(own->controlDetach(), Lomi::InvalidInitializeException);
   EXPECT_EQ(C::control(*other)->entity(), other.get()); // shown by the dead one, not its own

   // The last reference goes in a notification of a change, with more to be told and counted behind it.
   int told = 0;
   auto* const raw = other.get();
   raw->newMember(Listener::make([&](Zeb::AttributeId, void const*) {
      other = nullptr;
      ++told;
   }));
   raw->newMember(Listener::make([&](Zeb::AttributeId, void const*) { ++told; }));
   C::is(*raw, typename C::Record(keyNumber<typename C::Key>(1)));
   EXPECT_EQ(told, 2);
   while (living() != before) Lomi::TaskSchedulerRoot::root().run(1);
   EXPECT_EQ(controls(), controlsBefore + 1); // `own`

   {
      typename C::Entity onTheStack("s"); // counts no less, and its control lets go of it, too
      own = C::control(onTheStack);
      C::is(onTheStack, typename C::Record(keyNumber<typename C::Key>(1)));
      EXPECT_EQ(C::map(onTheStack).members(), 1u);
   }
   EXPECT_EQ(own->entity(), nullptr);
   EXPECT_THROW(own->controlDetach(), Lomi::InvalidInitializeException);
}

TYPED_TEST(Entity, WalksWhileRowsComeAndGo) {
   using C = TypeParam;
   using Key = typename C::Key;
   using Iterator =
       typename std::remove_reference_t<decltype(C::map(std::declval<typename C::Entity&>()))>::IteratorConst;
   auto const e = C::make("e");
   auto* const map = &C::map(*e);
   EXPECT_FALSE(Iterator(nullptr).valid() || Iterator(map).valid());
   std::vector<Key> order;
   for (unsigned n = 0; n < 40; ++n) C::is(*e, typename C::Record(keyNumber<Key>(n)));
   for (Iterator row(map); row.valid(); row.advance()) order.push_back(row.row().key());
   ASSERT_EQ(order.size(), 40u);

   Iterator at(map, order[10]);
   EXPECT_TRUE(at.valid() && at.row().key() == order[10]);
   C::del(*e, order[10]); // the current one, and two behind it
   C::del(*e, order[11]);
   C::del(*e, order[12]);
   EXPECT_TRUE(at.row().key() == order[10]);
   at.advance();
   EXPECT_TRUE(at.valid() && at.row().key() == order[13]);
   Iterator const copy = at; // stands for itself
   at.advance();
   EXPECT_TRUE(copy.row().key() == order[13] && at.row().key() == order[14]);
   EXPECT_TRUE(Iterator(map, order[11]).row().key() == order[13]); // absent: its successor
   C::del(*e, order[39]);
   EXPECT_FALSE(Iterator(map, order[39]).valid()); // absent and the last one
   Iterator end(map, order[38]);
   end.advance();
   EXPECT_FALSE(end.valid());
   EXPECT_TRUE(end.row().key() == order[38]);

   // Everything goes under the walk, then it stands on another table.
   unsigned steps = 0;
   for (Iterator row(map); row.valid(); row.advance(), ++steps) C::del(*e, row.row().key());
   EXPECT_EQ(steps, 36u);
   for (auto const& key : order) C::is(*e, typename C::Record(key));
   Iterator across(map, order[20]);
   across.advance();
   auto const tree = Zeb::Dir::DirIs("");
   tree->entityIs("walk/e", e); // an empty table takes the place of the full one
   C::is(*e, typename C::Record(order[5]));
   C::is(*e, typename C::Record(order[30]));
   std::vector<Key> rest;
   for (across.advance(); across.valid(); across.advance()) rest.push_back(across.row().key());
   EXPECT_LE(rest.size(), 2u); // another seed of the hash, another order
   EXPECT_EQ(Iterator(map).row().key() == order[5] || Iterator(map).row().key() == order[30], true);
}

TEST(EntityPaths, AreTheMountPaths) {
   EXPECT_EQ(HoFlowConfig::mountPath("default"), "flowtracking/default/hwOffload/config");
   EXPECT_EQ(HoFlowStatus::mountPath(""), "flowtracking//hwOffload/status");
   EXPECT_EQ(HosStateCounter::mountPath("default"), "flowtracking/default/hwOffload/counter/status");
   EXPECT_EQ(HoFlowCounter::mountPath("default", "a"), "flowtracking/default/hwOffload/counter/a");
   EXPECT_EQ(HoFlowCounter::mountPath("default", ""), "flowtracking/default/hwOffload/counter/");
   EXPECT_EQ(hoFlowConfigFactory("a")->name(), "a");
   EXPECT_EQ(hoFlowStatusFactory("b")->name(), "b");
   EXPECT_EQ(hoFlowCounterFactory("c")->name(), "c");
   EXPECT_EQ(hosStateCounterFactory("d")->name(), "d");
}

} // namespace
} // namespace Test
