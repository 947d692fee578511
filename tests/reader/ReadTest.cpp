// SPDX-License-Identifier: Apache-2.0
// Lookups, walks, anchors and the wrapper on files made by hand (TableFiles.h): which row comes back, what
// happens when the table's size or generation moves between two calls, and what the counters say of it.
#include "TableFiles.h"

#include "Mem/VersionMismatchException.h"

#include <gtest/gtest.h>

namespace {

struct ReadTest : testing::Test {
   void SetUp() override { handler().maskIs(0); }
};

struct Open {
   TableFiles files;
   Reader reader{handler(), "a/table", Ops{}};

   Open(std::vector<Row> rows, u32 capacity, u32 buckets)
      : files(std::move(rows), capacity, buckets) {
      EXPECT_TRUE(reader.initialize("test")) << reader.initializeError();
   }
   /// The row of a key, a default row if there is none.
   Row row(Key key) const {
      Row out;
      bool found;
      Row const* at = reader.lookup(key, found, &out);
      EXPECT_EQ(found, at == &out);
      EXPECT_EQ(found, out.sound());
      return out;
   }
   bool holds(Key key) const { return row(key).sound(); }
   /// Pretends that the writer changed the bucket count and changed it back.
   void bucketsMove() const {
      files.bucketWordIs(Layout::bucketVersion, files.bucketWord(Layout::bucketVersion) + 1);
   }
   void slotsMove() const {
      files.slotWordIs(Layout::numSlotsVersion, files.slotWord(Layout::numSlotsVersion) + 1);
   }
};

TEST_F(ReadTest, findsEachRowAndNoOther) {
   for (u32 buckets : {1u, 2u, 4u, 32u, 256u}) {
      SCOPED_TRACE(buckets);
      Open const open(someRows(100, 37, 20), 120, buckets);
      for (Row const& row : open.files.rows()) {
         EXPECT_EQ(open.row(row.key()).key(), row.key());
         EXPECT_FALSE(open.holds({row.key().hashBits, 1000})); // same hash, another key
         EXPECT_FALSE(open.holds({row.key().hashBits + 1, 0}));
         EXPECT_FALSE(open.holds({row.key().hashBits ^ 0x80000000, 0}));
      }
      std::vector<Key> wanted;
      for (u32 slot : open.files.order()) wanted.push_back(open.files.rows()[slot].key());
      EXPECT_EQ(walked(open.reader), wanted);
      auto const counters = open.reader.readerCounters();
      EXPECT_EQ(counters.nextSlowPath, 0u);
      EXPECT_EQ(counters.retries, 0u);
      EXPECT_EQ(counters.lookasideReads, 0u);
   }
}

TEST_F(ReadTest, emptyTable) {
   for (u32 buckets : {1u, 2u, 256u}) {
      Open const open({}, 4, buckets);
      EXPECT_FALSE(open.holds({1, 0}));
      EXPECT_EQ(open.reader.capacity(), 4u); // absence, and then the slots are mapped
      Row row = Row::make({1, 1}, 1);
      Mirak::IterHint hint;
      EXPECT_FALSE(open.reader.first(row, hint));
      EXPECT_EQ(row.key(), Key{});
      EXPECT_FALSE(row.sound());
   }
}

TEST_F(ReadTest, eachBufferIsServed) {
   Open const open(someRows(9), 16, 4);
   bool found;
   Row const* own = open.reader.lookup({5, 0}, found, nullptr);
   EXPECT_TRUE(found && own->sound());
   // A key inside the reader's own buffer, and one inside the caller's.
   EXPECT_TRUE(open.reader.lookup(own->key(), found, nullptr)->sound());
   EXPECT_TRUE(found);
   Row mine = Row::make({6, 0}, 99);
   open.slotsMove(); // the lookup runs twice
   EXPECT_EQ(open.reader.lookup(mine.key(), found, &mine), &mine);
   EXPECT_TRUE(found && mine.generation() == 1 && mine.key() == Key(6, 0));
   EXPECT_EQ(open.reader.lookup({77, 0}, found, &mine), &Ops::typeDefault());
   EXPECT_TRUE(!found && mine.key() == Key{});
   // Nothing behind the row's last byte is touched.
   struct {
      Row row;
      u32 canary = 0xcafe;
   } guarded;
   open.reader.lookup({7, 0}, found, &guarded.row);
   EXPECT_EQ(guarded.canary, 0xcafeu);
}

TEST_F(ReadTest, anOverwriteUnderWayIsReadFromTheSpareSlot) {
   using namespace Layout;
   Open const open(someRows(9), 16, 4);
   open.holds({0, 0});
   Row const newer = Row::make({5, 0}, 2);
   for (u32 i = 0; i < sizeof(Row) / 4; ++i) {
      u32 word;
      std::memcpy(&word, reinterpret_cast<char const*>(&newer) + 4 * i, 4);
      open.files.slotWordIs(lookaside + value + 4 * i, word);
   }
   open.files.slotWordIs(lookaside + rhash, reversed(Key{5, 0}.hash(TableFiles::seed)));
   open.files.slotWordIs(slot(5) + word, 7);            // LOOKASIDE up
   open.files.slotWordIs(slot(5) + value + 20, 0xdead); // the writer is half through
   EXPECT_EQ(open.row({5, 0}).generation(), 2u);
   EXPECT_EQ(walked(open.reader).size(), 9u);
   Row row;
   EXPECT_TRUE(open.reader.getValue(5, row, nullptr));
   EXPECT_EQ(row.generation(), 2u);
   EXPECT_EQ(open.reader.readerCounters().lookasideReads, 3u);
}

TEST_F(ReadTest, getValueTellsOccupiedSlots) {
   Open const open(someRows(9), 16, 4);
   Row row, fallback = Row::make({1, 2}, 3);
   EXPECT_TRUE(open.reader.getValue(8, row, &fallback)); // maps the slots first
   EXPECT_EQ(row.key(), Key(8, 0));
   EXPECT_TRUE(fallback.sound());
   EXPECT_FALSE(open.reader.getValue(9, row, &fallback));
   EXPECT_FALSE(fallback.sound());
   EXPECT_FALSE(open.reader.getValue(16, row, nullptr));
   EXPECT_FALSE(open.reader.getValue(0xffffffff, row, nullptr));
}

TEST_F(ReadTest, aWalkGoesOnFromTheKeyWhenItsHintNoLongerFits) {
   Open const open(someRows(40, 11), 40, 8);
   std::vector<Key> wanted;
   for (u32 slot : open.files.order()) wanted.push_back(open.files.rows()[slot].key());
   auto const walk = [&](auto const& disturb) {
      std::vector<Key> keys;
      Row row;
      Mirak::IterHint hint;
      for (bool more = open.reader.first(row, hint); more && keys.size() < 100;) {
         keys.push_back(row.key());
         disturb(hint);
         more = open.reader.next(row.key(), row, hint); // the key lies in the row that is overwritten
      }
      EXPECT_EQ(keys, wanted);
      return open.reader.readerCounters();
   };
   EXPECT_EQ(walk([](auto&) {}).nextSlowPath, 0u);
   EXPECT_EQ(walk([](auto& hint) { hint = {}; }).nextSlowPath, 40u);
   EXPECT_EQ(walk([](auto& hint) { hint.version += 4; }).nextSlowPath, 80u);
   EXPECT_EQ(walk([](auto& hint) { hint.slot = 40; }).nextSlowPath, 120u);
   EXPECT_EQ(walk([](auto& hint) { hint.bucket = 8; }).nextSlowPath, 160u);
   // A resize during each step: the step runs again, by the key.
   auto const before = open.reader.readerCounters();
   auto const after = walk([&](auto&) { open.bucketsMove(); });
   EXPECT_EQ(after.nextSlowPath - before.nextSlowPath, 40u);
   EXPECT_EQ(after.wrapperRetries - before.wrapperRetries, 40u);
   EXPECT_EQ(after.buckets.resizes - before.buckets.resizes, 40u);
   // The row of the hint is gone: what follows it isn't lost.
   Row row;
   Mirak::IterHint hint;
   EXPECT_TRUE(open.reader.next({5 * 11, 0xffffffff}, row, hint));
   auto const place = std::find(wanted.begin(), wanted.end(), Key(5 * 11, 0));
   EXPECT_EQ(row.key(), *(place + 1));
   EXPECT_EQ(fmt::format("{}", hint), fmt::format("IterHint{{ version 5, slot {}, bucket {} }}",
                                                  row.key().hashBits / 11, row.key().hashBits % 8));
}

TEST_F(ReadTest, aHitIsLookedUpAgainAfterAResize) {
   Open open(someRows(9), 16, 4);
   open.holds({0, 0});
   int hooks = 0;
   open.reader.betweenRetriesIs([&] {
      if (++hooks < 3) open.slotsMove(); // and again, and again
   });
   open.bucketsMove();
   EXPECT_TRUE(open.holds({5, 0}));
   EXPECT_EQ(hooks, 3);
   // A row that goes while the table is resized isn't returned, though the first pass saw it.
   open.reader.betweenRetriesIs(
       [&] { open.files.bucketWordIs(Layout::head(1) + Layout::linkNext, 0x80000003); });
   open.slotsMove();
   EXPECT_FALSE(open.holds({1, 0}));
}

TEST_F(ReadTest, aReformatIsToldFromDamage) {
   using namespace Layout;
   auto const expectReformat = [](Open const& open, char const* says) {
      Row row;
      Mirak::IterHint hint;
      bool found;
      auto const check = [&](auto const& read) {
         try {
            read();
            ADD_FAILURE() << "nothing thrown";
         } catch (Mirak::TableReformattedException const& e) {
            EXPECT_STREQ(e.what(), says);
         }
      };
      check([&] { open.reader.lookup({5, 0}, found, &row); });
      check([&] { open.reader.lookup({500, 0}, found, &row); });
      check([&] { open.reader.first(row, hint); });
      check([&] { open.reader.next({5, 0}, row, hint); });
      check([&] { open.reader.getValue(1, row, nullptr); });
   };
   { // the first store of a re-format, everything else still as it was
      Open const open(someRows(9), 16, 4);
      open.files.slotWordIs(kestor, 0x00080123);
      expectReformat(open, "bad kestor:291:8 wanted:291:7");
   }
   { // the same generation, another seed
      Open const open(someRows(9), 16, 4);
      open.files.slotWordIs(hashSeed, 4711);
      expectReformat(open, "bad kestor:291:7 wanted:291:7");
   }
   { // the bucket file's turn
      Open const open(someRows(9), 16, 4);
      open.holds({0, 0});
      open.files.bucketWordIs(bucketKestor, 0x00080123);
      EXPECT_TRUE(open.holds({5, 0})); // looked at when the count moves
      open.bucketsMove();
      expectReformat(open, "bad kestor:291:8 wanted:291:7");
   }
   { // damage is damage while the kestor file says so, and a re-format as soon as it doesn't
      Open const open(someRows(9), 16, 4);
      open.files.slotWordIs(slot(5) + word, 4);
      try {
         open.holds({5, 0});
         ADD_FAILURE();
      } catch (Mirak::TableReformattedException const&) {
         ADD_FAILURE() << "taken for a re-format";
      } catch (Lomi::CorruptionDetectedException const& e) {
         EXPECT_EQ(std::string(e.what()).find("slot:5 not marked as occupied key:05000000"), 0u) << e.what();
      }
      open.files.removeKestorFile();
      EXPECT_THROW(open.holds({5, 0}), Mirak::TableReformattedException);
      open.files.kestorFileIs(Parcel::KestorId(1u));
      EXPECT_THROW(open.holds({5, 0}), Mirak::TableReformattedException);
      EXPECT_TRUE(open.holds({4, 0})); // a read that meets no trouble doesn't ask the file
   }
}

TEST_F(ReadTest, anchors) {
   using namespace Layout;
   Open open(someRows(9), 16, 4);
   EXPECT_DEATH(open.reader.validateVersionAnchor(),
                "should not be called on a default-constructed VersionAnchor");
   open.holds({5, 0});
   open.reader.validateVersionAnchor();
   auto const anchor = open.reader.getCacheVersionAnchor();
   EXPECT_EQ(anchor.word, 5u);
   EXPECT_EQ(anchor.offset, slot(5) + word);
   open.files.slotWordIs(slot(5) + word, 9);
   EXPECT_THROW(open.reader.validateVersionAnchor(), Mem::VersionMismatchException);
   open.holds({5, 0});
   open.reader.validateVersionAnchor();
   open.holds({50, 0});
   EXPECT_DEATH(open.reader.validateVersionAnchor(), "default-constructed");
   Row row;
   Mirak::IterHint hint;
   open.reader.first(row, hint);
   open.reader.validateVersionAnchor();
   while (open.reader.next(row.key(), row, hint)) open.reader.validateVersionAnchor();
   EXPECT_EQ(open.reader.getCacheVersionAnchor().offset, Mem::anchorUnset);
   open.holds({5, 0});
   open.reader.detach(false);
   EXPECT_THROW(open.reader.validateVersionAnchor(), Mem::VersionMismatchException);
   ASSERT_TRUE(open.reader.initialize("test"));
   EXPECT_THROW(open.reader.validateVersionAnchor(), Mem::VersionMismatchException);
   // A table that was formatted anew begins its words again: the same one may come up for another row.
   for (u32 changed : {kestor, hashSeed}) {
      open.holds({5, 0});
      open.reader.validateVersionAnchor();
      u32 const old = open.files.slotWord(changed);
      open.files.slotWordIs(changed, old + 1);
      EXPECT_THROW(open.reader.validateVersionAnchor(), Mem::VersionMismatchException) << changed;
      open.files.slotWordIs(changed, old);
   }
}

} // namespace
