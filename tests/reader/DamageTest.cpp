// SPDX-License-Identifier: Apache-2.0
// Damage in files that a reader has open: it says what is wrong or goes on, but never crashes, never hangs,
// and never loses its way for good. The named cases state the exact words; the random one overwrites any word
// of either file with values that hurt, and looks up and walks everything after each. It can't see wrong
// values in rows: nothing protects those bytes against damage. HOFLOW_SEED and HOFLOW_ROUNDS repeat or
// lengthen it.
#include "TableFiles.h"

#include <gtest/gtest.h>
#include <random>

namespace {

struct DamageTest : testing::Test {
   void SetUp() override { handler().maskIs(0); }
};

/// What `read` throws, "" if nothing. Any other type of exception fails the test.
template <class Read> std::string thrown(Read const& read) {
   try {
      read();
   } catch (Lomi::CorruptionDetectedException const& e) {
      return e.what();
   }
   return "";
}

/// Ten rows in one chain of bucket 1 of 4, in slots 0 to 9 and in this order.
struct OneChain {
   TableFiles files;
   Reader reader{handler(), "a/table", Ops{}};

   OneChain()
      : files(chainRows(), 16, 4) {
      EXPECT_TRUE(reader.initialize("test"));
      EXPECT_EQ(walked(reader).size(), 10u);
      for (u32 i = 0; i < 10; ++i) EXPECT_EQ(files.order()[i], i);
   }
   static std::vector<Row> chainRows() {
      std::vector<Row> rows;
      for (u32 i = 0; i < 10; ++i) rows.push_back(Row::make({reversed(0x80000000 + i), 0}, 1));
      return rows;
   }
   static Key key(u32 i) { return {reversed(0x80000000 + i), 0}; }
   void linkIs(u32 slot, u32 next) const { files.slotWordIs(Layout::slot(slot) + Layout::linkNext, next); }
   void headIs(u32 next) const { files.bucketWordIs(Layout::head(1) + Layout::linkNext, next); }
   std::string lookup(Key wanted) const {
      bool found;
      return thrown([&] { reader.lookup(wanted, found, nullptr); });
   }
   std::string walk() const {
      return thrown([&] { EXPECT_LT(walked(reader, 1000).size(), 1000u) << "the walk doesn't end"; });
   }
   std::string bytes(u32 i) const {
      Key const wanted = key(i);
      return Lomi::dumpHex(&wanted, sizeof wanted);
   }
};

TEST_F(DamageTest, aLoopInAChain) {
   OneChain const table;
   table.linkIs(7, 3);
   EXPECT_EQ(table.lookup(OneChain::key(8)), "hash chain cycle detected, slotCount:17 capacity:16");
   EXPECT_EQ(table.reader.readerCounters().retries, 1u); // it tried twice
   EXPECT_EQ(table.walk(), "hash chain cycle detected, slotCount:17 capacity:16");
   EXPECT_EQ(table.lookup(OneChain::key(5)), "");
   table.linkIs(7, 7);
   EXPECT_EQ(table.walk(), "hash chain cycle detected, slotCount:17 capacity:16");
   table.linkIs(7, 8);
   EXPECT_EQ(table.walk(), "");
}

TEST_F(DamageTest, aChainThatEndsAtTheWrongBucket) {
   OneChain const table;
   for (u32 end : {0x80000000u, 0x80000002u, 0x80000001u, 0x80000004u, 0xbfffffffu}) {
      table.linkIs(9, end);
      EXPECT_EQ(table.walk(),
                fmt::format("has bucket: 1 with next bucket: {} and numBuckets: 4", end & 0x7fffffff));
   }
   // At half and at twice the size the successor is another one; a resize may be under way. The twice is out
   // of reach, and nothing moved: it stays damage.
   table.linkIs(9, 0x80000005);
   EXPECT_EQ(table.walk(), "out-of-range, index:5 max:3");
   EXPECT_EQ(table.lookup({reversed(0x8fffffff), 0}), "out-of-range, index:5 max:3");
   table.linkIs(9, 0x80000003);
   // The end of the table at its begin.
   table.files.bucketWordIs(Layout::head(0) + Layout::linkNext, 0xffffffff);
   EXPECT_EQ(table.walk(), "has bucket: 0 with next bucket: 0 and numBuckets: 4");
   EXPECT_EQ(table.lookup({reversed(0x0fffffff), 0}), "");
   table.files.bucketWordIs(Layout::head(0) + Layout::linkNext, 0x80000002);
   // The last bucket's head begins the walk anew.
   table.files.bucketWordIs(Layout::head(3) + Layout::linkNext, 0x80000000);
   EXPECT_EQ(table.walk(), "has bucket: 3 with next bucket: 0 and numBuckets: 4");
}

TEST_F(DamageTest, slotsThatCantBeInTheChain) {
   using namespace Layout;
   OneChain const table;
   table.linkIs(4, 16);
   EXPECT_EQ(table.lookup(OneChain::key(8)), "out-of-range index:16 numSlots:16");
   EXPECT_EQ(table.walk(), "out-of-range index:16 numSlots:16");
   table.headIs(0x7fffffff);
   EXPECT_EQ(table.lookup(OneChain::key(0)), "out-of-range index:2147483647 numSlots:16");
   EXPECT_EQ(table.walk(), "out-of-range index:2147483647 numSlots:16");
   table.headIs(0);
   table.linkIs(4, 12); // a free slot, its value never written
   EXPECT_EQ(table.lookup(OneChain::key(8)), "slot:12 not marked as occupied key:0000000000000000");
   EXPECT_EQ(table.walk(), "slot:12 not marked as occupied key:0000000000000000");
   table.linkIs(4, 5);
   table.files.slotWordIs(slot(0) + word, 4);
   EXPECT_EQ(table.walk(), "slot:0 not marked as occupied key:" + table.bytes(0));
   Row row;
   Mirak::IterHint hint;
   EXPECT_EQ(thrown([&] { table.reader.next(OneChain::key(0), row, hint); }),
             "slow-path slot:0 not marked as occupied key:" + table.bytes(0) + " slotCount:1");
}

TEST_F(DamageTest, aKeyInTheWrongBucket) {
   using namespace Layout;
   OneChain const table;
   u32 const at = slot(4) + value;
   table.files.slotWordIs(at, table.files.slotWord(at) ^ 1); // now a key of bucket 0
   Key const other{OneChain::key(4).hashBits ^ 1, 0};
   std::string const dump = Lomi::dumpHex(&other, sizeof other);
   EXPECT_EQ(table.lookup(OneChain::key(8)), "corrupt key detected. key:" + dump + " bucketIndex:1");
   EXPECT_EQ(table.lookup({reversed(0x80000003), 9}), "corrupt key detected. key:" + dump + " bucketIndex:1")
       << "the row that shows the place to be passed is checked, too";
   EXPECT_EQ(table.walk(), "corrupt key detected. key:" + dump + " bucketIndex 1");
   table.headIs(4);
   EXPECT_EQ(table.walk(), "corrupt key detected, key:" + dump + " bucket:1");
}

TEST_F(DamageTest, aPlaceInTheOrderThatIsNotTheKeys) {
   using namespace Layout;
   OneChain const table;
   // Raised: whoever searches what follows the row would meet the row itself again and again.
   table.files.slotWordIs(slot(4) + rhash, 0x80000100);
   EXPECT_EQ(table.walk(), "corrupt rhash detected, slotId: 4 slot.rhash:80000100 rhash:80000004");
   // Lowered: the walk passes over the row.
   table.files.slotWordIs(slot(4) + rhash, 0x80000000);
   EXPECT_EQ(table.walk(), "");
}

TEST_F(DamageTest, aBucketCountThatCantBeFollowed) {
   using namespace Layout;
   OneChain const table;
   for (auto [count, says] :
        {std::pair{0u, "bad numBuckets: 0, wanted a power of two up to 268435456"},
         {3u, "bad numBuckets: 3, wanted a power of two up to 268435456"},
         {0x80000000u, "bad numBuckets: 2147483648, wanted a power of two up to 268435456"},
         {8u, "bad bucket file size:56 wanted:88 for 8 buckets"}}) {
      table.files.bucketWordIs(bucketCount, count);
      table.files.bucketWordIs(bucketVersion, 10 + count);
      EXPECT_EQ(table.lookup(OneChain::key(3)), says); // a hit
      EXPECT_EQ(table.lookup({12345, 0}), says);       // an absent key
      EXPECT_EQ(table.walk(), says);
      EXPECT_EQ(table.reader.buckets(), 4u) << "the private count must stay";
   }
   table.files.bucketWordIs(bucketCount, 4);
   EXPECT_EQ(table.lookup(OneChain::key(3)), "");
   EXPECT_EQ(table.walk(), "");
}

TEST_F(DamageTest, aSlotCountThatCantBeFollowed) {
   using namespace Layout;
   OneChain const table;
   auto const claim = [&](u32 count) {
      table.files.slotWordIs(numSlots, count);
      table.files.slotWordIs(numSlotsVersion, table.files.slotWord(numSlotsVersion) + 1);
   };
   claim(1000);
   std::string const says = "requesting to map " + table.files.path("slots") +
                            " 1000 slots. Requested file resize to 65536 but real file size is 4096";
   EXPECT_EQ(table.lookup(OneChain::key(3)), says);
   EXPECT_EQ(table.walk(), says);
   EXPECT_EQ(table.reader.capacity(), 16u);
   claim(0x7fffffff);
   EXPECT_EQ(table.lookup(OneChain::key(3)).find("bad newNumSlots:2147483647 message:"), 0u);
   claim(5); // a real cut: the old rows behind it can't be reached any more
   EXPECT_EQ(table.lookup(OneChain::key(3)), "");
   EXPECT_EQ(table.lookup(OneChain::key(7)), "hash chain cycle detected, slotCount:6 capacity:5");
   claim(16);
   EXPECT_EQ(table.lookup(OneChain::key(7)), "");
   EXPECT_EQ(table.walk(), "");
}

TEST_F(DamageTest, anyWordOfEitherFile) {
   u64 const seed = ::Test::setting("HOFLOW_SEED", 1);
   u64 const rounds = ::Test::setting("HOFLOW_ROUNDS", sanitized ? 1500 : 6000);
   RecordProperty("seed", static_cast<int>(seed));
   std::mt19937_64 random(seed);
   TableFiles const files(someRows(24, 0x20000001, 8), 40, 8);
   u32 const slotWords = (Layout::headerSize + 40 * Layout::slotSize) / 4,
             bucketWords = (Layout::heads + 64) / 4;
   u64 refused = 0, survived = 0, thrownReads = 0;
   Reader reader(handler(), "a/table", Ops{});
   for (u64 round = 0; round < rounds; ++round) {
      ASSERT_TRUE(reader.initialize("test")) << reader.initializeError();
      struct Change {
         bool slots;
         u32 at, old;
      };
      std::vector<Change> changes;
      for (u64 n = 1 + random() % 3; n; --n) {
         bool const slots = random() % 3 != 0;
         u32 at = 4 * static_cast<u32>(random() % (slots ? slotWords : bucketWords));
         if (slots && at >= 20 && at < 532)
            at = Layout::slot(static_cast<u32>(random() % 40)) + 4 * (random() % 6);
         u32 const old = slots ? files.slotWord(at) : files.bucketWord(at);
         u32 const values[] = {0,
                               1,
                               static_cast<u32>(random() % 48),
                               0x80000000 | static_cast<u32>(random() % 17),
                               0x80000000,
                               0xffffffff,
                               0x7fffffff,
                               old ^ 1u << random() % 32,
                               old + 4,
                               static_cast<u32>(random())};
         u32 const value = values[random() % std::size(values)];
         changes.push_back({slots, at, old});
         slots ? files.slotWordIs(at, value) : files.bucketWordIs(at, value);
      }
      u64 const before = thrownReads;
      bool found;
      for (Row const& row : files.rows())
         thrownReads += !thrown([&] { reader.lookup(row.key(), found, nullptr); }).empty();
      thrownReads += !thrown([&] { reader.lookup({static_cast<u32>(random()), 0}, found, nullptr); }).empty();
      thrownReads += !thrown([&] {
                         ASSERT_LT(walked(reader, 2000).size(), 2000u)
                             << "endless walk, seed " << seed << " round " << round;
                      }).empty();
      if (HasFatalFailure()) return;
      (thrownReads == before ? survived : refused) += 1;
      for (auto change = changes.rbegin(); change != changes.rend(); ++change)
         change->slots ? files.slotWordIs(change->at, change->old)
                       : files.bucketWordIs(change->at, change->old);
      // Repaired, the table reads as before; a moved generation needs a new start.
      if (round % 16 == 0) reader.detach(false);
   }
   EXPECT_GT(refused, rounds / 4);
   EXPECT_GT(survived, rounds / 10);
}

} // namespace
