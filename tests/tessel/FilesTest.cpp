// SPDX-License-Identifier: Apache-2.0
// The queue's files: what is adopted, what is formatted, what a damaged word is answered with.
#include "TestRoot.h"

#include "Lomi/Exception.h"
#include "Tessel/TesselReader.h"
#include "Tessel/TesselWriter.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>

namespace Test {
namespace {

using Mem::u32;
using Mem::u64;
using Tessel::QueueHeader;
using Queue = Tessel::TesselWriter<Tessel::BasicSlot, u32>;
Parcel::KestorId const kestor(1, 1);

class TesselFiles : public testing::Test {
protected:
   TesselFiles()
      : path(handler(), testing::UnitTest::GetInstance()->current_test_info()->name(), false)
      , queue(handler(), path, false, Tessel::PruneMode::keep, [this] { ++formats; }) {}
   static Lomi::Platform::DebugHandler const& handler() {
      testRoot();
      return *Lomi::Platform::getDebugHandler("test", true);
   }
   /// Four slots, six changes, of which three are current: positions 3, 4 and 5 of slots 0, 1 and 2.
   void fill() {
      queue.attach(kestor);
      queue.reserve(4);
      for (u32 n = 0; n < 6; ++n) queue.notify(n % 3);
   }
   QueueHeader& header() { return *reinterpret_cast<QueueHeader*>(queue.wrappers()[0]->base()); }
   Tessel::QueueTable& table() {
      return *reinterpret_cast<Tessel::QueueTable*>(queue.wrappers()[1 + (queue.generation() & 1)]->base());
   }
   u32* positions() { return reinterpret_cast<u32*>(queue.wrappers()[3]->base()); }
   std::string complaint() {
      std::string error;
      return queue.validate(kestor, 4, error) && queue.validateBeyond(2, error) ? "" : error;
   }

   Mem::NaoRootPath path;
   int formats = 0;
   Queue queue;
};

TEST_F(TesselFiles, AdoptedAsTheyWere) {
   EXPECT_EQ(queue.attach(kestor), Tessel::queueNew);
   EXPECT_EQ(formats, 1);
   fill();
   EXPECT_EQ(formats, 1);
   queue.markShrinkStart();
   queue.notify(0);
   u64 const start = queue.corralStart();
   EXPECT_EQ(complaint(), fmt::format("unfinished compaction corralStart:{}", start));
   queue.markShrinkEnd();
   std::string const before = queue.dump();
   queue.detach();
   EXPECT_EQ(queue.attach(kestor), Tessel::queueExisting);
   EXPECT_EQ(queue.dump(), before);
   EXPECT_EQ(complaint(), "");
   EXPECT_EQ(formats, 1);
}

TEST_F(TesselFiles, FormattingMovesEverythingOn) {
   fill();
   u32 const generation = queue.generation();
   u64 const tail = queue.tail();
   EXPECT_EQ(queue.attach({1, 2}), Tessel::queueReformatted);
   EXPECT_EQ(formats, 2);
   EXPECT_EQ(queue.generation(), generation + 1);
   EXPECT_EQ(queue.tail(), tail + 1);
   EXPECT_EQ(header().floor, queue.tail()); // a follower that had taken in all of the old content is below
   EXPECT_EQ(queue.count(), 0u);
   EXPECT_EQ(queue.tesselSlot(0), Tessel::noPosition);
   queue.reserve(4);
   EXPECT_EQ(queue.tesselSlot(0), Tessel::noPosition);
}

TEST_F(TesselFiles, AnIncompleteSetIsFormatted) {
   for (std::string const name : {"tessel", "tessel.0", "tessel.1", "tessel.slots"}) {
      fill();
      while (queue.generation() % 2 != (name == "tessel.1")) queue.notify(0); // the current table is the one
      queue.detach();
      std::filesystem::resize_file(path.str() + "/" + name, name == "tessel.slots" ? 8 : 4);
      EXPECT_EQ(queue.attach(kestor), Tessel::queueReformatted) << name;
      queue.detach();
      std::filesystem::remove(path.str() + "/" + name);
      EXPECT_EQ(queue.attach(kestor), Tessel::queueReformatted) << name;
      queue.cleanup();
      queue.detach();
      EXPECT_FALSE(std::filesystem::exists(path.str() + "/" + name));
   }
}

TEST_F(TesselFiles, DamagedConstantsAreNotAdopted) {
   for (std::size_t const offset : {0u, 8u, 12u, 16u, 20u, 24u}) {
      fill();
      reinterpret_cast<char*>(&header())[offset] ^= 1;
      EXPECT_NE(complaint(), "") << offset;
      queue.detach();
      EXPECT_EQ(queue.attach(kestor), Tessel::queueReformatted) << offset;
      EXPECT_EQ(complaint(), "") << offset;
   }
   fill();
   header().next = ~0ull - 1; // formatting a queue with an absurd sequence begins anew
   EXPECT_EQ(queue.attach({1, 3}), Tessel::queueReformatted);
   EXPECT_EQ(queue.tail(), 0u);
   table().count = table().capacity + 1;
   EXPECT_EQ(queue.attach({1, 3}), Tessel::queueReformatted);
   table().capacity = 1u << 28;
   EXPECT_EQ(queue.attach({1, 3}), Tessel::queueReformatted);
   header().slotsLength = 1u << 28;
   EXPECT_EQ(queue.attach({1, 3}), Tessel::queueReformatted);
}

TEST_F(TesselFiles, EachDamageHasItsWords) {
   auto damaged = [&](std::string const& words, auto&& spoil) {
      fill();
      ASSERT_EQ(complaint(), "");
      spoil();
      EXPECT_NE(complaint().find(words), std::string::npos) << complaint() << " wanted " << words;
      queue.cleanup();
   };
   damaged("bad generation of queue table", [&] { table().generation += 2; });
   damaged("bad queue capacity", [&] { table().capacity += 1; });
   damaged("bad queue count", [&] { table().count = table().capacity + 1; });
   damaged("bad slotsLength", [&] { header().slotsLength = 1u << 20; });
   damaged("bad queue next:0", [&] { header().next = 0; });
   damaged("bad queue floor", [&] { header().floor = header().next; });
   damaged("unfinished compaction corralStart:2", [&] { header().corralStart = 2; });
   damaged("bad corralStart:3 corralEnd:2", [&] { header().corralStart = 3, header().corralEnd = 2; });
   damaged("bad corralStart:3 corralEnd:9", [&] { header().corralStart = 3, header().corralEnd = 9; });
   damaged("bad sequence:1 pos:4", [&] { table().entries()[4].relative = 0; });
   damaged("bad sequence:8 pos:5", [&] { table().entries()[5].relative = 7; });
   damaged("bad slot:4 pos:3 mostSlots:4", [&] { table().entries()[3].slot = 4; });
   damaged("slot:2 beyond the table has bad tessel index:1", [&] { positions()[2] = 1; });
   damaged("slot:3 beyond the table has bad tessel index:6", [&] { positions()[3] = 6; });
   fill();
   EXPECT_THROW(queue.notification(6), Lomi::CorruptionDetectedException);
   try {
      queue.notification(6);
   } catch (Lomi::CorruptionDetectedException const& error) {
      EXPECT_STREQ(error.what(), "out-of-range index:6 max:5");
   }
}

TEST_F(TesselFiles, ValidatedByTheirLength) {
   fill();
   queue.validateFile();
   std::filesystem::resize_file(path.str() + "/tessel.slots", 8);
   EXPECT_THROW(queue.validateFile(), Lomi::CorruptionDetectedException);
   std::filesystem::remove(path.str() + "/tessel.slots");
   EXPECT_THROW(queue.validateFile(), Lomi::CorruptionDetectedException);
}

// Where the file system has no more room, reserve says so, and the queue is as it was.
TEST_F(TesselFiles, NoRoomIsAnExceptionOfReserve) {
   fill();
   std::string const before = queue.dump();
   auto const handlerBefore = std::signal(SIGXFSZ, SIG_IGN);
   rlimit old{};
   ::getrlimit(RLIMIT_FSIZE, &old);
   rlimit const tight{1u << 20, old.rlim_max};
   ::setrlimit(RLIMIT_FSIZE, &tight);
   EXPECT_THROW(queue.reserve(100'000), Lomi::MemoryResourceException);
   ::setrlimit(RLIMIT_FSIZE, &old);
   std::signal(SIGXFSZ, handlerBefore);
   EXPECT_EQ(queue.dump(), before);
   EXPECT_THROW(queue.reserve(400'000'000), Lomi::MemoryResourceException);
   queue.notify(3);
   EXPECT_EQ(complaint(), "");
   queue.reserve(100'000);
   queue.notify(99'999);
   std::string error;
   EXPECT_TRUE(queue.validate(kestor, 100'000, error)) << error;
}

struct Deaf : Tessel::SlotClient<Tessel::BasicSlot> {
   bool doSlot(Tessel::BasicSlot slot, Rusk::Sequence sequence, bool) override {
      slots.push_back(slot);
      if (throws) throw Lomi::RuntimeException("no");
      return sequence != 0;
   }
   std::vector<u32> slots;
   bool throws = false;
};

// A follower needs no more than read rights, and says what is wrong where there is nothing to follow.
TEST_F(TesselFiles, FollowersAttachReadOnly) {
   Deaf client;
   Tessel::TesselReader<Tessel::BasicSlot> reader(handler(), path, client);
   EXPECT_FALSE(reader.attach(kestor));
   EXPECT_NE(reader.lastError(), "");
   EXPECT_EQ(reader.walk(1), Tessel::WalkResult::detached);
   fill();
   EXPECT_FALSE(reader.attach({1, 2}));
   EXPECT_NE(reader.lastError().find("kestor"), std::string::npos);
   for (auto const& file : std::filesystem::directory_iterator(path.str()))
      std::filesystem::permissions(file, std::filesystem::perms::owner_read);
   ASSERT_TRUE(reader.attach(kestor)) << reader.lastError();
   EXPECT_EQ(reader.walk(10), Tessel::WalkResult::resync);
   EXPECT_FALSE(reader.quiesced());
   reader.sweptTo(reader.capture());
   EXPECT_EQ(reader.walk(10), Tessel::WalkResult::quiesced);
   EXPECT_TRUE(reader.quiesced());
   queue.notify(1);
   queue.notify(3);
   EXPECT_FALSE(reader.quiesced());
   // The same content after a detach: nothing was missed, nothing is told twice.
   reader.detach();
   EXPECT_EQ(reader.tail(), 0u);
   ASSERT_TRUE(reader.attach(kestor));
   client.throws = true;
   EXPECT_THROW(reader.walk(10), Lomi::RuntimeException);
   client.throws = false;
   EXPECT_EQ(reader.walk(10), Tessel::WalkResult::quiesced);
   EXPECT_EQ(client.slots, (std::vector<u32>{1, 1, 3}));
   EXPECT_EQ(reader.last(), queue.tail());
   // A sweep inside a compaction begins in front of it.
   u64 const before = queue.tail();
   queue.markShrinkStart();
   EXPECT_EQ(reader.capture(), before);
   queue.notify(0);
   EXPECT_EQ(reader.capture(), before);
   queue.markShrinkEnd();
   EXPECT_EQ(reader.capture(), queue.tail());
   queue.attach({1, 2});
   EXPECT_EQ(reader.walk(10), Tessel::WalkResult::otherTable);
   // Files that were removed and made again, by a writer that came to the same number and goes as far.
   reader.detach();
   queue.cleanup();
   queue.attach(kestor);
   queue.reserve(4);
   for (u32 n = 0; n < 20; ++n) queue.notify(n % 3);
   ASSERT_TRUE(reader.attach(kestor));
   EXPECT_EQ(reader.walk(10), Tessel::WalkResult::resync);
}

// Words that no writer leaves, with the generation standing still, are corruption; so are positions out of
// range.
TEST_F(TesselFiles, FollowersReportDamage) {
   Deaf client;
   auto damaged = [&](std::string const& words, auto&& spoil) {
      fill();
      Tessel::TesselReader<Tessel::BasicSlot> reader(handler(), path, client);
      ASSERT_TRUE(reader.attach(kestor));
      reader.sweptTo(queue.tail() - 2);
      EXPECT_EQ(reader.walk(1), Tessel::WalkResult::more); // finds its place
      spoil();
      try {
         while (reader.walk(10) == Tessel::WalkResult::more) {
         }
         ADD_FAILURE() << "nothing was noticed: " << words;
      } catch (Lomi::CorruptionDetectedException const& error) {
         EXPECT_NE(std::string(error.what()).find(words), std::string::npos) << error.what();
      }
      queue.cleanup();
   };
   damaged("bad queue table count:3", [&] { table().count = 3; });
   damaged("bad queue table count:4294967295", [&] { table().count = ~0u; });
   damaged("bad sequence:1 ", [&] { table().entries()[5].relative = 0; });
   damaged("bad sequence:1000 ", [&] { table().entries()[5].relative = 999; });
   fill();
   Tessel::TesselReader<Tessel::BasicSlot> reader(handler(), path, client);
   ASSERT_TRUE(reader.attach(kestor));
   reader.sweptTo(queue.tail());
   EXPECT_EQ(reader.walk(5), Tessel::WalkResult::quiesced);
   EXPECT_THROW(reader.validateNotif(), Lomi::CorruptionDetectedException); // behind the last entry
   reader.sweptTo(queue.tail());
   header().floor = queue.tail() + 1; // nobody could ever be above it
   EXPECT_THROW(reader.walk(1), Lomi::CorruptionDetectedException);
}

TEST_F(TesselFiles, AnEmptyQueueHoldsNoBlocksOfAnEarlierOne) {
   fill();
   queue.reserve(1 << 20);
   queue.attach({1, 2});
   ::usleep(150000); // followers of the earlier one had their time
   while (queue.choresPending()) queue.chores();
   for (auto const* wrapper : queue.wrappers())
      EXPECT_LE(wrapper->blockBytes(), 4096u) << wrapper->getFilename();
}

// No address space for a larger table is no damage: the copy stays, and the change is tried again.
TEST_F(TesselFiles, NoMemoryToFollowIsNoDamage) {
   fill();
   Deaf client;
   Tessel::TesselReader<Tessel::BasicSlot> reader(handler(), path, client);
   ASSERT_TRUE(reader.attach(kestor));
   reader.sweptTo(queue.tail());
   EXPECT_EQ(reader.walk(5), Tessel::WalkResult::quiesced);
   queue.reserve(1 << 20);
   for (u32 const generation = queue.generation(); queue.generation() < generation + 2;)
      for (u32 slot = 0; slot < (1 << 20); ++slot) queue.notify(slot);
   rlimit old{};
   ::getrlimit(RLIMIT_AS, &old);
   rlimit const none{1 << 20, old.rlim_max};
   ::setrlimit(RLIMIT_AS, &none);
   EXPECT_THROW(reader.walk(5), Lomi::MemoryResourceException);
   ::setrlimit(RLIMIT_AS, &old);
   EXPECT_EQ(reader.walk(1), Tessel::WalkResult::more);
}

} // namespace
} // namespace Test
