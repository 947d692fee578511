// SPDX-License-Identifier: Apache-2.0
// Entities whose collections are mounted, as writer and as reader in one process: what a reader's entity
// answers and refuses, orphans, damage, and DelAll with notifiees that write, remove and let go meanwhile.
#include "Collections.h"
#include "Loop.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace Test {
namespace {

/// A writer's and a reader's entity at the same place, in trees of their own.
template <class C> struct Pair {
   Planted<C> writer, reader;

   Pair() { Lomi::Platform::defaultMaskIs(0); }
   ~Pair() { Lomi::Platform::defaultMaskIs(1); }
   void mount(bool strict = false) {
      writer.mount(MirakType::writer);
      reader.mount(MirakType::reader, strict);
      EXPECT_TRUE(
          runUntil([&] { return C::control(*reader)->mountStatus() == ZebParcel::MountStatus::mounted; }));
   }
};

template <class C> class Mounted : public testing::Test {};
TYPED_TEST_SUITE(Mounted, AllCollections, CollectionName);

TYPED_TEST(Mounted, ReadersSeeTheWritersRowsAndChangeNothing) {
   using C = TypeParam;
   using Key = typename C::Key;
   using Record = typename C::Record;
   Pair<C> pair;
   auto& reader = *pair.reader;
   pair.reader.mount(MirakType::reader); // waits
   EXPECT_EQ(pair.reader.rows(), 0u);
   EXPECT_THROW(C::is(reader, Record(keyNumber<Key>(1))), Lomi::NoPermissionException);
   std::vector<int> heard;
   C::control(reader)->newMember(Listener::make([&](Zeb::AttributeId id, void const*) {
      auto const& control = *C::control(reader);
      heard.push_back(id == ZebParcel::CollectionControl::mountStatusAttribute ? int(control.mountStatus())
                                                                               : 10 + control.quiesced());
   }));
   pair.writer.add(0, 5); // lost by the mount
   pair.writer.mount(MirakType::writer);
   EXPECT_EQ(C::control(*pair.writer)->mountStatus(), ZebParcel::MountStatus::mounted);
   EXPECT_TRUE(C::control(*pair.writer)->quiesced());
   EXPECT_EQ(pair.writer.rows(), 0u);
   pair.writer.add(1, 40);
   EXPECT_TRUE(runUntil([&] { return C::map(reader).ready(); }));
   EXPECT_EQ(heard, (std::vector{11, 1})); // quiesced, then mounted
   EXPECT_EQ(pair.reader.rows(), 39u);
   EXPECT_TRUE(C::get(reader, keyNumber<Key>(7)) == Record(keyNumber<Key>(7)));

   Cells const before = Cells::of(C::name);
   EXPECT_THROW(C::is(reader, Record(keyNumber<Key>(1))), Lomi::NoPermissionException);
   EXPECT_THROW(C::del(reader, keyNumber<Key>(1)), Lomi::NoPermissionException);
   EXPECT_THROW(C::delAll(reader), Lomi::NoPermissionException); // out of its first Del
   EXPECT_EQ(Cells::of(C::name) - before, (Cells{1, 2, 0}));     // counted, not told
   EXPECT_EQ(pair.writer.rows(), 39u);

   heard.clear();
   pair.reader.tree->entityDel("at");
   EXPECT_EQ(heard, (std::vector{10, 0}));
   EXPECT_FALSE(C::map(reader).initialized());
   EXPECT_TRUE(C::get(reader, keyNumber<Key>(7)) == Record());
}

TYPED_TEST(Mounted, OnlyTablesWithAQueueCanBeFollowed) {
   using C = TypeParam;
   constexpr bool hasQueue =
       std::is_same_v<typename C::Entity, HoFlowConfig> || std::is_same_v<typename C::Entity, HoFlowStatus>;
   for (auto const type : {MirakType::shadow, MirakType::keyshadow}) {
      Planted<C> planted;
      try {
         planted.mount(type);
         EXPECT_TRUE(hasQueue);
      } catch (Lomi::InvalidInitializeException const& refused) {
         EXPECT_FALSE(hasQueue);
         EXPECT_EQ(refused.msg(), "cannot initialize collection " + planted.path + "/e/" + C::name +
                                      " with DummyTesselWriter not supported in " + formatMirakType(type) +
                                      " mode");
         planted.mount(MirakType::reader); // nothing stayed behind
      }
   }
}

// The storage doesn't matter for these: one table with a queue, mounted.
using C = hoIpFlowConfigOfHoFlowConfig;
using Key = C::Key;
using Record = C::Record;

struct DelAll : testing::Test {
   Planted<C> planted;
   std::vector<Key> order;

   DelAll() {
      planted.mount(MirakType::writer);
      planted.add(0, 100);
      auto const& map = C::map(*planted);
      for (HoFlowConfig::Attribute4::Map::IteratorConst row(&map); row.valid(); row.advance())
         order.push_back(row.row().key());
   }
   void listen(std::function<void(Key const&)> hear) {
      (*planted).newMember(Listener::make([hear](Zeb::AttributeId, void const* key) {
         Key const copy = *static_cast<Key const*>(key);
         hear(copy);
      }));
   }
};

TEST_F(DelAll, ARowThatIsPutBackStays) {
   bool busy = false;
   listen([&](Key const& key) {
      if (!std::exchange(busy, true)) {
         C::is(*planted, Record(key));
         busy = false;
      }
   });
   C::delAll(*planted);
   EXPECT_EQ(planted.rows(), 100u);
}

TEST_F(DelAll, RowsThatComeAndGoMeanwhileAreMetIfTheyLieAhead) {
   std::set<Key> put;
   unsigned told = 0;
   bool busy = false;
   listen([&](Key const&) {
      if (std::exchange(busy, true)) return;
      ++told;
      // Growth of slots and buckets under the walk, removals before and behind it.
      for (unsigned n = 0; told <= 10 && n < 10; ++n) {
         Key const key = keyNumber<Key>(1000 + told * 10 + n);
         C::is(*planted, Record(key));
         put.insert(key);
      }
      C::del(*planted, order[told * 7 % order.size()]);
      busy = false;
   });
   C::delAll(*planted);
   for (unsigned n = 0; n < 100; ++n)
      EXPECT_FALSE(C::map(*planted).members() && C::get(*planted, keyNumber<Key>(n)));
   EXPECT_LT(planted.rows(), 100u); // what was put behind the walk
   busy = true;
   C::delAll(*planted);
   EXPECT_EQ(planted.rows(), 0u);
}

TEST_F(DelAll, LettingGoOfTheMountEndsIt) {
   unsigned told = 0;
   listen([&](Key const&) {
      if (++told == 3) C::control(*planted)->controlDetach();
   });
   C::delAll(*planted);
   EXPECT_EQ(told, 3u);
   planted.mount(MirakType::writer);
   EXPECT_EQ(planted.rows(), 97u);
}

TEST_F(DelAll, AnotherTableInItsPlaceIsWalkedFromAFreshHint) {
   unsigned told = 0;
   listen([&](Key const&) {
      if (++told != 3) return;
      C::control(*planted)->cleanupAndDetach();
      planted.mount(MirakType::writer); // formatted anew
      planted.add(0, 100);
   });
   C::delAll(*planted);
   EXPECT_LE(planted.rows(), 100u);
   C::delAll(*planted);
   EXPECT_EQ(planted.rows(), 0u);
   EXPECT_TRUE(C::map(*planted).validate());
}

TEST_F(DelAll, StopsTheProcessOnAStrictOrphan) {
   auto const orphan = [&] {
      planted.tree->entityDel("at");
      C::delAll(*planted);
   };
   C::control(*planted)->controlDetach();
   planted.mount(MirakType::writer, true);
   EXPECT_DEATH(orphan(), "operate on an orphan mirak entity");
}

TEST(Damage, StopsAWriterAndEndsAReadersWalkQuietly) {
   Pair<C> pair;
   pair.mount();
   pair.writer.add(0, 100);
   EXPECT_EQ(pair.reader.rows(), 100u);
   auto const place = C::map(*pair.reader).rootPath().str();
   {
      auto const header = sizeof(Mirak::SlotTable<HoIpFlowConfigOps>::Header);
      std::fstream file(place + "/slots", std::ios::binary | std::ios::in | std::ios::out);
      file.seekp(static_cast<std::streamoff>(header));
      file << std::string(std::filesystem::file_size(place + "/slots") - header, '\x7f');
   }
   EXPECT_DEATH(C::is(*pair.writer, Record(keyNumber<Key>(1))), "");
   EXPECT_DEATH(C::del(*pair.writer, keyNumber<Key>(1)), "");
   C::control(*pair.writer)->controlDetach(); // its sentry would stop it, too
   std::filesystem::remove(place + "/corruption-detected");

   Cells const before = Cells::of(C::name);
   C::delAll(*pair.reader);
   EXPECT_EQ(Cells::of(C::name), before);
   EXPECT_TRUE(std::filesystem::exists(place + "/corruption-detected"));
   EXPECT_FALSE(HoFlowConfig::Attribute4::Map::IteratorConst(&C::map(*pair.reader)).valid());
   EXPECT_TRUE(C::get(*pair.reader, keyNumber<Key>(1)) == Record());
   EXPECT_TRUE(runUntil(
       [&] { return C::control(*pair.reader)->mountStatus() == ZebParcel::MountStatus::notMounted; }));
   EXPECT_EQ(pair.reader.rows(), 0u); // a table that went away
}

/// exit() out of a callback: static entities are let go, and another is mounted, when the thread's loop has
/// ended.
[[noreturn]] void leaveInACallback() {
   static struct Late {
      Late() { testRoot(); }
      ~Late() {
         Planted<C> late("late");
         late.mount(MirakType::writer);
         late.add(0, 200);
         if (late.rows() != 200) ::_exit(1);
      }
   } const late;
   static Planted<C> writer, shadow;
   writer.mount(MirakType::writer);
   shadow.mount(MirakType::shadow);
   runUntil([&] { return C::map(*shadow).ready(); });
   shadow.entity->newMember(Listener::make([](Zeb::AttributeId, void const*) { std::exit(0); }));
   writer.add(1, 2);
   for (;;) Lomi::TaskSchedulerRoot::root().run(1);
}

TEST(Mounting, HoldsUntilTheLastStaticObjectHasGone) {
   EXPECT_EXIT(leaveInACallback(), testing::ExitedWithCode(0), "");
}

bool armed = false;
/// A notifiee that throws when it hears of `attribute`, while armed.
void throwOn(C::Entity& entity, Zeb::AttributeId attribute) {
   C::control(entity)->newMember(Listener::make([attribute](Zeb::AttributeId heard, void const*) {
      if (armed && heard == attribute) throw std::runtime_error("mine");
   }));
}

/// The control, to which an agent listens, says what the collection says.
void expectAgreement(C::Entity& entity, Mem::MountStatus status) {
   EXPECT_EQ(C::map(entity).mountStatus(), status);
   EXPECT_EQ(static_cast<Mem::MountStatus>(C::control(entity)->mountStatus()), status);
   EXPECT_EQ(C::control(entity)->quiesced(), status != Mem::MountStatus::notMounted);
}

TEST(Mounting, ANotifieeThatThrowsLeavesItsControlRight) {
   using Control = ZebParcel::CollectionControl;
   Pair<C> pair;
   throwOn(*pair.writer, Control::quiescedAttribute);
   throwOn(*pair.reader, Control::mountStatusAttribute);
   armed = true;
   EXPECT_THROW(pair.writer.mount(MirakType::writer), std::runtime_error);
   expectAgreement(*pair.writer, Mem::MountStatus::mounted);
   EXPECT_THROW(pair.reader.mount(MirakType::reader), std::runtime_error);
   expectAgreement(*pair.reader, Mem::MountStatus::notMounted);
   armed = false;
   std::size_t told = 0;
   C::control(*pair.reader)->newMember(Listener::make([&](Zeb::AttributeId, void const*) { ++told; }));
   pair.reader.mount(MirakType::reader);
   expectAgreement(*pair.reader, Mem::MountStatus::mounted);
   EXPECT_EQ(told, 2u);
   armed = true;
   EXPECT_THROW(C::control(*pair.reader)->controlDetach(), std::runtime_error);
   expectAgreement(*pair.reader, Mem::MountStatus::notMounted);
   armed = false;
}

TEST(Mounting, AnOrphanLosesBothMountsWhateverANotifieeThrows) {
   Planted<C> planted;
   planted.mount(MirakType::writer);
   auto const other = planted.entity->hoIp6FlowConfigControl();
   other->init(Mirak::MapDescriptor(100));
   armed = true;
   other->newMember(Listener::make([](Zeb::AttributeId, void const*) {
      if (armed) throw std::runtime_error("mine");
   }));
   EXPECT_THROW(planted.entity->parentIs(nullptr), std::runtime_error);
   armed = false;
   EXPECT_EQ(C::map(*planted).mountStatus(), Mem::MountStatus::notMounted);
   EXPECT_EQ(planted.entity->hoIp6FlowConfig().mountStatus(), Mem::MountStatus::notMounted);
}

/// The table begins to be formatted anew under an iterator that is made from a key.
TEST(Mounting, AnIteratorFromAKeyDoesNotStandOnARowThatIsNone) {
   Pair<C> pair;
   pair.mount();
   pair.writer.add(0, 10);
   auto const place = C::map(*pair.reader).rootPath().str();
   EXPECT_EQ(pair.reader.rows(), 10u);
   std::filesystem::remove(place + "/kestor");
   std::fstream file(place + "/slots", std::ios::binary | std::ios::in | std::ios::out);
   file.seekp(offsetof(Mirak::SlotTableHeader, kestor));
   file.write("\0\0\0\0", 4).flush();
   EXPECT_FALSE(
       HoFlowConfig::Attribute4::Map::IteratorConst(&C::map(*pair.reader), keyNumber<Key>(1)).valid());
}

} // namespace
} // namespace Test
