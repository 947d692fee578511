// SPDX-License-Identifier: Apache-2.0
// Single operations of the writer where the model test can't look: what exactly is stored, how much a table
// grows, what a full file system does, and which misuse stops the process.
#include "Fixture.h"

#include "FlowTracking/Tables.h"
#include "Lomi/TaskSchedulerRoot.h"

#include <random>

#include <sys/mount.h>
#include <sys/resource.h>

namespace Test {
namespace {

using R = Row<3>;
using Wide = Row<61>;

Mirak::MapDescriptor localOf(u32 rows) {
   Mirak::MapDescriptor d(rows);
   d.local = true;
   return d;
}

template <class W> u32 wordOf(W& writer, u32 slot) {
   return Mem::loadShared(writer.slotTable().slot(slot).versionFlags);
}
template <class W> bool inSection(W& writer) {
   return Mem::loadShared(writer.slotTable().header().runtimeFlags) &
          Mirak::SlotTableHeader::inCriticalSection;
}

TEST(Growth, DoublesThenCreepsByTenths) {
   EXPECT_EQ(Mirak::grownCapacity(10, 15), 15u);
   EXPECT_EQ(Mirak::grownCapacity(15, 15), 17u);
   EXPECT_EQ(Mirak::grownCapacity(1, 1), 2u);
   EXPECT_EQ(Mirak::grownCapacity(1, 2), 2u);
   EXPECT_EQ(Mirak::grownCapacity(50, 50), 55u);
   EXPECT_EQ(Mirak::grownCapacity(100, 100), 110u);
   // In single precision the tenth is exact enough; a wider one gives 111 from 100.
   for (u32 c = 1; c <= 2'000'000; ++c)
      if (Mirak::grownCapacity(c, 1) != (11 * c + 9) / 10)
         FAIL() << c << " grows to " << Mirak::grownCapacity(c, 1);
}

TEST(Growth, OfATable) {
   Traces traces;
   auto writer = open<Wide>("grow", Mirak::MapDescriptor(12));
   std::vector<u32> capacities = {writer->capacity()};
   Content content;
   std::vector<Key> keys;
   for (u32 i = 0; i < 16; ++i) {
      keys.push_back({i, i});
      writer->write(Wide::make(keys.back(), i), true);
      content[keys.back()] = i;
      // Slots are handed out from below, also those of a growth.
      EXPECT_EQ(writer->slotTable().slot(i).link.version % 4, 0u);
      EXPECT_NE(wordOf(*writer, i) & 1, 0u) << i;
      if (writer->capacity() != capacities.back()) capacities.push_back(writer->capacity());
   }
   EXPECT_EQ(capacities, (std::vector<u32>{8, 12, 14, 16}));
   EXPECT_EQ(Mem::loadPair(writer->slotTable().header().numSlots).version, 3u);
   EXPECT_EQ(difference(*writer, content, keys), "");
   EXPECT_TRUE(traces.has(2, fmt::format("{} from 8 slots to 12", writer->rootPath().str())));
}

// Where a growth cuts the chains is found out beforehand; rows that come and go afterwards move those places.
TEST(Growth, PreparedCutsFollowTheRows) {
   auto writer = open<R>("cuts", Mirak::MapDescriptor(4096), quiet());
   Content content;
   std::vector<Key> keys, present;
   std::mt19937 random(11);
   R removed;
   auto const insert = [&] {
      auto const i = static_cast<u32>(keys.size());
      keys.push_back({i, i});
      present.push_back(keys.back());
      content[keys.back()] = i;
      if (i % 3) {
         writer->write(R::make(keys.back(), i), true);
      } else {
         writer->directWrite(R::make(keys.back(), i));
         writer->directCommit();
      }
   };
   for (u32 n : {256u, 512u, 1024u, 2048u}) {
      while (writer->members() < n) {
         insert();
         if (writer->members() <= n - n / 8 || random() % 8 == 0) continue;
         std::swap(present[random() % present.size()], present.back());
         EXPECT_TRUE(writer->remove(present.back(), removed));
         content.erase(present.back());
         present.pop_back();
      }
      EXPECT_EQ(writer->buckets(), n);
      insert();
      EXPECT_EQ(writer->buckets(), 2 * n);
      ASSERT_EQ(difference(*writer, content, keys), "");
   }
}

TEST(Operations, WordsAndCounters) {
   Mirak::MapDescriptor keepsBuckets = localOf(10);
   keepsBuckets.shrinkBuckets_ = false;
   auto writer = open<R>("words", keepsBuckets);
   Key const key{5, 5};
   writer->write(R::make(key, 1), true);
   EXPECT_EQ(wordOf(*writer, 0), 5u); // two steps of 2, and OCCUPIED
   auto const& link = writer->hashMap().buckets()[5];
   u32 const linkVersion = link.version;
   writer->write(R::make(key, 2), true);
   writer->write(R::make(key, 2), true); // an equal value counts, too
   EXPECT_EQ(wordOf(*writer, 0), 13u);
   EXPECT_EQ(link.version, linkVersion);
   EXPECT_EQ(writer->write(R::make(key, 3), false)->generation(), 2u);
   EXPECT_EQ(wordOf(*writer, 0), 13u);
   R removed;
   EXPECT_TRUE(writer->remove(key, removed));
   EXPECT_EQ(wordOf(*writer, 0), 12u);
   EXPECT_EQ(link.version, linkVersion + 4);
   EXPECT_TRUE(Mirak::endsChain(link.next));
   EXPECT_FALSE(inSection(*writer));
   auto const c = writer->writerCounters();
   EXPECT_EQ(c.slotsAllocated, 1u);
   EXPECT_EQ(c.slotsFreed, 1u);

   bool found = true;
   R const* const none = writer->lookup(key, found, nullptr);
   EXPECT_FALSE(found);
   EXPECT_EQ(none, &OpsOf<R>::typeDefault());
   EXPECT_EQ(writer->getCacheVersionAnchor(), (Mem::CacheVersionAnchor{}));
}

// Values are copied in words; what lies behind a value that is no whole number of them is nobody's.
TEST(Operations, PaddingAndBuffersAreLeftAlone) {
   auto writer = open<R>("padding", localOf(10));
   static_assert(sizeof(R) == 20 && sizeof(WriterOf<R>::Slot) == 40);
   auto* const padding = writer->slotTable().slot(0).value + sizeof(R);
   std::memset(padding, 0x5a, 4);
   writer->write(R::make({1, 1}, 1), true);
   writer->write(R::make({1, 1}, 2), true);
   struct {
      R row;
      u32 canary = 0x5a5a5a5a;
   } out;
   Mirak::IterHint hint;
   EXPECT_TRUE(writer->first(out.row, hint));
   EXPECT_TRUE(writer->remove({1, 1}, out.row));
   EXPECT_EQ(std::string(padding, padding + 4), std::string(4, 0x5a));
   EXPECT_EQ(out.canary, 0x5a5a5a5au);
}

// A record's own bytes without meaning differ between equal keys: they must be one row.
TEST(Operations, EqualKeysWithOtherPaddingAreOneRow) {
   using Ops = FlowTracking::HoIpFlowCounterOps;
   testRoot();
   Mirak::MirakWriter<Ops> writer(quiet(), "flows", localOf(10));
   writer.initialize("test");
   Ops::Value row;
   for (int fill : {0x00, 0xff}) {
      auto* const bytes = reinterpret_cast<unsigned char*>(&row);
      for (u32 at : {14u, 15u, 25u, 26u, 27u}) bytes[at] = static_cast<unsigned char>(fill);
      writer.write(row, true);
   }
   EXPECT_EQ(writer.members(), 1u);
}

// The anchor's hook sees a copy; an anchor of a detached table is stale, not a fault.
TEST(Operations, AnchorsGoStale) {
   auto writer = open<R>("anchor", localOf(10));
   writer->write(R::make({1, 1}, 1), true);
   static int hooked;
   hooked = 0;
   writer->validateVersionAnchorHookIs([](Mem::VersionAnchor const&) { ++hooked; });
   bool found;
   writer->lookup({1, 1}, found, nullptr);
   writer->validateVersionAnchor();
   R removed;
   writer->remove({1, 1}, removed);
   EXPECT_THROW(writer->validateVersionAnchor(), Mem::VersionMismatchException);
   writer->write(R::make({1, 1}, 1), true);
   // A growth that moves the mapping leaves nothing at the old place.
   writer->lookup({1, 1}, found, nullptr);
   Mem::ParcelWrapper::moveAlways = true;
   u32 const capacity = writer->capacity();
   for (u32 i = 2; writer->capacity() == capacity; ++i) writer->write(R::make({i, i}, 1), true);
   Mem::ParcelWrapper::moveAlways = false;
   EXPECT_THROW(writer->validateVersionAnchor(), Mem::VersionMismatchException);
   writer->lookup({1, 1}, found, nullptr);
   writer->detach(false);
   EXPECT_THROW(writer->validateVersionAnchor(), Mem::VersionMismatchException);
   EXPECT_EQ(hooked, 4);
   writer->lookup({1, 1}, found, nullptr);
   EXPECT_FALSE(found); // nothing open, nothing found
}

// --- misuse stops the process ---

template <class Act> void dies(char const* message, Act&& act) {
   // A forked child has no mapping of its parent's files, so each table is private memory.
   EXPECT_DEATH(
       {
          auto writer = open<R>("dies", localOf(10), quiet());
          writer->write(R::make({1, 1}, 1), true);
          act(*writer);
       },
       message);
}

TEST(WriterDeath, UnpairedDirectOperations) {
   R row = R::make({1, 1}, 2), removed;
   std::string const pair = ".* - Make sure the DirectIs/Commit are properly paired!";
   auto const unbalanced = [&](std::string const& what) {
      return "unbalanced directSlot:0 containing value:0x1/1@1 when " + what + "0x1/1" + pair;
   };
   dies(unbalanced("writing value:").c_str(), [&](auto& w) { w.directWrite(row), w.write(row, true); });
   dies(unbalanced("writing value:").c_str(),
        [&](auto& w) { w.directUpdate(row.key()), w.directWrite(row); });
   dies(unbalanced("removing key:").c_str(),
        [&](auto& w) { w.directWrite(row), w.remove(row.key(), removed); });
   dies(unbalanced("modifying key:").c_str(),
        [&](auto& w) { w.directWrite(row), w.directUpdate(row.key()); });
   dies(("unbalanced directSlot:1 containing value:0x2/2@2" + pair).c_str(), [&](auto& w) {
      w.directWrite(R::make({2, 2}, 2)), w.detach(false);
   });
   dies("not in direct mode! Make sure the DirectIs/Commit are properly paired!",
        [&](auto& w) { w.directCommit(); });
   dies("should not be called on a default-constructed VersionAnchor",
        [](auto& w) { w.validateVersionAnchor(); });
   dies("no open table", [&](auto& w) { w.detach(false), w.write(row, true); });
}

/// Makes a grow of the buckets slow enough for critical tasks, by a pause before one of its stores.
struct SlowGrow : Mem::Seam::Observer {
   WriterOf<R>& writer;
   u32 const buckets;
   bool paused = false;
   explicit SlowGrow(WriterOf<R>& w)
      : writer(w)
      , buckets(w.buckets()) {
      Mem::Seam::observer = this;
   }
   ~SlowGrow() override { Mem::Seam::observer = nullptr; }
   void beforeStore(void*, void const*, std::size_t) override {
      if (paused || writer.buckets() == buckets) return;
      paused = true;
      usleep(12000);
   }
};

void growWith(WriterOf<R>& writer, std::function<void()> task) {
   writer.criticalTaskCheckIs(true);
   auto const held =
       Lomi::TaskSchedulerRoot::root().deferredTask(std::move(task), Lomi::TaskPriority::critical);
   SlowGrow const slow(writer);
   for (u32 i = 0; i < 300; ++i) writer.write(R::make({i, i}, i), true);
}

TEST(CriticalTasks, RunInsideAGrowAndCantTearIt) {
   auto writer = open<R>("critical", localOf(10), quiet());
   int ran = 0;
   growWith(*writer, [&] {
      ++ran;
      throw std::runtime_error("a task's own trouble");
   });
   EXPECT_EQ(ran, 1);
   EXPECT_EQ(writer->buckets(), 512u);
   EXPECT_FALSE(inSection(*writer));
   std::string error;
   EXPECT_TRUE(writer->validate(writer->kestorId(), error, false)) << error;
}

// Each operation asks in the same way; CompactionTest.cpp goes through them.
TEST(WriterDeath, AnOperationOnATableFromInsideItsGrow) {
   dies("Mirak reentrancy detected: ", [](auto& w) {
      growWith(w, [&] { w.write(R::make({7, 7}, 2), true); });
   });
}

// --- no space ---

/// A file system of its own with few pages.
class FullFileSystem : public testing::Test {
protected:
   void SetUp() override {
      std::filesystem::create_directories(directory());
      if (mount("tmpfs", directory().c_str(), "tmpfs", 0, "size=96k") != 0)
         GTEST_SKIP() << "no right to mount a small file system";
      mounted_ = true;
   }
   void largerIs(char const* size) {
      ASSERT_EQ(mount("tmpfs", directory().c_str(), "tmpfs", MS_REMOUNT, size), 0);
   }
   void TearDown() override {
      if (mounted_) umount2(directory().c_str(), MNT_DETACH);
   }
   static std::string directory() { return testRoot() + "/small"; }
   void fill() {
      std::ofstream out(directory() + "/filler", std::ios::binary);
      std::string const page(4096, 'x');
      while (out.write(page.data(), 4096).flush()) {
      }
   }
   /// The table is as it was before the refused insert, this process can't go on with it, and the next start
   /// says so.
   template <class Row>
   void refusedAndThenFormatted(std::unique_ptr<WriterOf<Row>> writer, Content const& content) {
      EXPECT_TRUE(inSection(*writer));
      EXPECT_EQ(writer->members(), content.size());
      Key const absent{12345, 12345};
      bool found;
      Row removed;
      EXPECT_FALSE(writer->remove(absent, removed)); // a miss touches no mark
      for (auto const& [key, generation] : content)
         EXPECT_TRUE(writer->lookup(key, found, nullptr)->generation() == generation && found);
      auto const kestor = writer->kestorId();
      writer.reset();
      std::filesystem::remove(directory() + "/filler");
      Traces traces;
      writer = open<Row>("small/table", Mirak::MapDescriptor(100));
      EXPECT_TRUE(traces.has(0, "bad critical section runtimeFlags:1")) << traces.text();
      EXPECT_EQ(writer->members(), 0u);
      EXPECT_EQ(writer->kestorId().low, kestor.low);
      EXPECT_EQ(writer->kestorId().high, kestor.high + 1);
   }

   /// The row behind so many others is refused in these words. What is prepared after `fillAt` of them finds
   /// no room either, and that is no error yet.
   template <class Row> void refuses(u32 rows, u32 fillAt, std::string const& words) {
      auto writer = open<Row>("small/table", Mirak::MapDescriptor(1000));
      Content content;
      for (u32 i = 0; i < rows; ++i) {
         if (i == fillAt) fill();
         writer->write(Row::make({i, i}, content[{i, i}] = i + 1), true);
      }
      if (rows == fillAt) fill();
      try {
         writer->write(Row::make({500, 500}, 1), true);
         FAIL() << "the file system isn't full";
      } catch (Lomi::MemoryResourceException const& e) {
         EXPECT_NE(std::string(e.what()).find(words), std::string::npos) << e.what();
      }
      EXPECT_EQ(writer->capacity(), rows);
      refusedAndThenFormatted<Row>(std::move(writer), content);
   }

private:
   bool mounted_ = false;
};

TEST_F(FullFileSystem, SlotsCantGrow) {
   refuses<Wide>(256, ~0u, "failed to resize " + directory() + "/table/slots from 256 to 512 slots, needed ");
}
// A growth that is prepared in pieces says nothing when they find no room; the growth itself does.
TEST_F(FullFileSystem, PreparedSlotsCantGrow) {
   largerIs("size=2m");
   refuses<Row<1201>>(256, ~0u, "/slots from 256 to 512 slots, needed ");
}
// Where the queue has no room for more slots, a row in one of them must not become visible.
TEST_F(FullFileSystem, QueueCantGrow) { refuses<Row<3, true>>(128, 128, "tessel.0 for 256 slots"); }
TEST_F(FullFileSystem, BucketsCantGrow) { refuses<R>(256, 200, "buckets from 256 to 512 buckets"); }

// Nothing is asked of the system for a row that can't be stored.
TEST_F(FullFileSystem, AFullTableOfFixedSizeGoesOn) {
   Mirak::MapDescriptor fixed(256);
   fixed.fixedSize = true;
   auto writer = open<R>("small/table", fixed);
   for (u32 i = 0; i < 256; ++i) {
      if (i == 200) fill();
      writer->write(R::make({i, i}, 1), true);
   }
   for (bool direct : {false, true}) {
      R const row = R::make({500, 500}, 1);
      EXPECT_THROW(direct ? void(writer->directWrite(row)) : void(writer->write(row, true)),
                   Mirak::TableFullException);
      EXPECT_FALSE(inSection(*writer));
   }
   EXPECT_EQ(writer->write(R::make({7, 7}, 2), true)->generation(), 2u);
}

// The signal that the kernel sends to whoever writes beyond it would end an agent.
TEST(WriterDeath, ALimitOnFileSizesIsAnError) {
   auto const fill = [] {
      rlimit const limit{65536, 65536};
      setrlimit(RLIMIT_FSIZE, &limit);
      auto writer = open<R>("limited", Mirak::MapDescriptor(100000));
      try {
         for (u32 i = 0; i < 100000; ++i) writer->write(R::make({i, i}, 1), true);
      } catch (Lomi::MemoryResourceException const& e) {
         fmt::print(stderr, "{}", e.what());
         _exit(7);
      }
   };
   EXPECT_EXIT(fill(), testing::ExitedWithCode(7), "failed to resize .* File too large");
}

// A stray store in this process made a chain lead back. A walk must not go on for ever.
TEST(Operations, AWalkEndsOnLinksThatLeadBack) {
   auto writer = open<R>("loop", localOf(100));
   for (u32 i = 0; i < 3; ++i) writer->write(R::make({i * 0x100u, i}, 1), true);
   R row;
   Mirak::IterHint hint;
   u32 walked = 0, last = 0;
   for (bool more = writer->first(row, hint); more && ++walked < 3; more = writer->next(row.key(), row, hint))
      last = hint.slot;
   ASSERT_EQ(walked, 3u);
   publishLink(writer->slotTable().slot(hint.slot).link, last);
   u32 steps = 0;
   auto const walk = [&] {
      for (bool more = writer->first(row, hint); more && ++steps < 100;)
         more = writer->next(row.key(), row, hint);
   };
   EXPECT_THROW(walk(), Lomi::CorruptionDetectedException);
   EXPECT_EQ(steps, 3u);
}

// What a stray store leaves in the files of a writer that lives, in counts or behind the last row.
TEST(Operations, DamageUnderALiveWriterIsProved) {
   auto writer = open<R>("live", Mirak::MapDescriptor(1000));
   for (u32 i = 0; i < 8; ++i) writer->write(R::make({i, i}, 1), true);
   EXPECT_TRUE(writer->validate());
   auto& slots = writer->slotTable().header();
   auto const spoiled = [&](u32& word, u32 value) {
      u32 const old = std::exchange(word, value);
      EXPECT_FALSE(writer->validate()) << value;
      word = old;
      EXPECT_TRUE(writer->validate());
   };
   spoiled(slots.numSlots.value, slots.numSlots.value / 2);
   u32& buckets = const_cast<u32&>(writer->hashMap().buckets().header().numBuckets.value);
   spoiled(buckets, buckets / 2);
   // The last row of the walk, far from the last bucket: the heads behind it would be seen by nobody.
   R last;
   Mirak::IterHint hint;
   for (bool more = writer->first(last, hint); more;) more = writer->next(last.key(), last, hint);
   ASSERT_LT(hint.bucket, writer->buckets() - 1);
   spoiled(writer->slotTable().slot(hint.slot).link.next, Mirak::noSlot);
}

} // namespace
} // namespace Test
