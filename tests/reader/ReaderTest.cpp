// SPDX-License-Identifier: Apache-2.0
// The reader's own promises: what an open table answers, where a row goes to, what happens when the table's
// size or generation moves between two calls, and what the counters say of it. The table is that of the
// damage tests. Elsewhere: rows beside a writer (tests/writer, tests/stress), resizes and re-formats at every
// load (tests/schedules), what is refused and in which words (tests/damage).
#include "Damage.h"
#include "Processes.h"

#include "Mem/VersionMismatchException.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace Test {
namespace {

struct Opened : Bed {
   std::unique_ptr<Reader> const reader = newReader();
   u32 moves = 0;

   Opened() { EXPECT_TRUE(reader->initialize("test")) << reader->initializeError(); }
   bool holds(Key key) const {
      bool found;
      R row;
      reader->lookup(key, found, &row);
      EXPECT_EQ(found, row.sound() && row.key() == key);
      return found;
   }
   /// Pretends that the writer changed a count and changed it back.
   void bucketsMove() { spoil(put32("buckets", 16, word("buckets", 16) + ++moves)); }
   void slotsMove() {
      constexpr auto at = offsetof(Header, numSlots);
      spoil(put32("slots", at, word("slots", at) + ++moves));
   }
};

TEST(Reader, FactsOfAnOpenTable) {
   Opened table;
   Reader& reader = *table.reader;
   EXPECT_TRUE(reader.initialize("again"));
   EXPECT_EQ(reader.members(), rowKeys.size());
   EXPECT_EQ(reader.maxSize(), 50u);
   EXPECT_EQ(reader.buckets(), 8u);
   EXPECT_EQ(reader.kestorId().value(), word("kestor", 8));
   EXPECT_EQ(reader.type(), Mirak::MirakType::reader);
   EXPECT_EQ(reader.mountStatus(), Mem::MountStatus::mounted);
   EXPECT_EQ(reader.mirakName(), "damaged");
   EXPECT_EQ(reader.capacity(), 0u); // the slots are mapped by the first read
   EXPECT_TRUE(table.holds({9, 1}));
   EXPECT_EQ(reader.capacity(), 64u);
   EXPECT_EQ(reader.readerCounters().slotResizes, 1u);
   EXPECT_EQ(reader.readerCounters().wrapperRetries, 1u);
   EXPECT_EQ(reader.readerCounters().slotBytesMapped, 4096u);
   EXPECT_NE(reader.dumpHeaders().find("magic:0x544c534b4152494d version:24"), std::string::npos);

   reader.detach(false);
   reader.detach(false);
   EXPECT_EQ(reader.mountStatus(), Mem::MountStatus::notMounted);
   EXPECT_EQ(reader.members() + reader.maxSize() + reader.capacity() + reader.buckets(), 0u);
   bool found;
   R row;
   Mirak::IterHint hint;
   EXPECT_EQ(reader.lookup({9, 1}, found, nullptr), &OpsOf<R>::typeDefault());
   EXPECT_FALSE(found || reader.first(row, hint) || reader.next({9, 1}, row, hint));
   EXPECT_FALSE(reader.getValue(0, row, nullptr));
   Mirak::Reader::Counters counters;
   Reader counted(quiet(), "damaged", {}, &counters);
   EXPECT_TRUE(counted.initialize("test"));
   counted.lookup({9, 1}, found, nullptr);
   EXPECT_EQ(counters.lookups, 1u);
}

TEST(Reader, WhereARowGoes) {
   Opened table;
   Reader& reader = *table.reader;
   bool found;
   R const* const own = reader.lookup({9, 1}, found, nullptr);
   EXPECT_TRUE(found && own->sound());
   // A key inside the reader's own buffer, and one inside the caller's.
   EXPECT_TRUE(reader.lookup(own->key(), found, nullptr)->sound());
   EXPECT_TRUE(found);
   struct {
      R row = R::make({16, 1}, 99);
      u32 canary = 0x5a5a5a5a;
   } mine;
   table.slotsMove(); // the lookup runs twice
   EXPECT_EQ(reader.lookup(mine.row.key(), found, &mine.row), &mine.row);
   EXPECT_TRUE(found && mine.row.generation() == 1 && mine.row.key() == Key(16, 1));
   // One that the row's later words are copied over, while it is still sought.
   Key& within = reinterpret_cast<Key&>(mine.row.words[2]);
   within = {16, 1};
   table.slotsMove();
   reader.lookup(within, found, &mine.row);
   EXPECT_TRUE(found && mine.row.sound() && mine.row.key() == Key(16, 1));
   EXPECT_EQ(reader.lookup({77, 0}, found, &mine.row), &OpsOf<R>::typeDefault());
   EXPECT_TRUE(!found && mine.row.key() == Key{});
   R fallback = R::make({1, 2}, 3);
   EXPECT_TRUE(reader.getValue(7, mine.row, &fallback));
   EXPECT_EQ(mine.row.key(), Key(7, 1));
   EXPECT_TRUE(fallback.sound());
   EXPECT_FALSE(reader.getValue(8, mine.row, &fallback));
   EXPECT_FALSE(fallback.sound());
   EXPECT_FALSE(reader.getValue(64, mine.row, nullptr));
   EXPECT_FALSE(reader.getValue(0xffffffff, mine.row, nullptr));
   EXPECT_EQ(mine.canary, 0x5a5a5a5au);
}

TEST(Reader, AWalkGoesOnFromTheKeyWhenItsHintNoLongerFits) {
   Opened table;
   std::vector<Key> wanted = rowKeys;
   std::sort(wanted.begin(), wanted.end(), [](Key a, Key b) { return before(a, b, 0); });
   auto const walk = [&](auto const& disturb) {
      auto const begin = table.reader->readerCounters();
      std::vector<Key> keys;
      R row;
      Mirak::IterHint hint;
      for (bool more = table.reader->first(row, hint); more && keys.size() < 100;) {
         keys.push_back(row.key());
         disturb(hint);
         more = table.reader->next(row.key(), row, hint); // the key lies in the row that is overwritten
      }
      EXPECT_EQ(keys, wanted);
      auto counters = table.reader->readerCounters();
      counters.wrapperRetries -= begin.wrapperRetries;
      counters.buckets.resizes -= begin.buckets.resizes;
      return counters.nextSlowPath - begin.nextSlowPath == wanted.size() ? counters
                                                                         : Mirak::Reader::Counters{};
   };
   walk([](auto&) {});
   EXPECT_EQ(table.reader->readerCounters().nextSlowPath, 0u);
   EXPECT_GT(walk([](auto& hint) { hint = {}; }).nextSlowPath, 0u);
   EXPECT_GT(walk([](auto& hint) { hint.version += 4; }).nextSlowPath, 0u);
   EXPECT_GT(walk([](auto& hint) { hint.slot = 64; }).nextSlowPath, 0u);
   EXPECT_GT(walk([](auto& hint) { hint.bucket = 8; }).nextSlowPath, 0u);
   // A resize during each step: the step runs again, by the key.
   auto const resized = walk([&](auto&) { table.bucketsMove(); });
   EXPECT_EQ(resized.wrapperRetries, wanted.size());
   EXPECT_EQ(resized.buckets.resizes, wanted.size());
   // The row of the hint is gone: what follows it isn't lost.
   R row;
   Mirak::IterHint hint;
   EXPECT_TRUE(table.reader->next({16, 0xffffffff}, row, hint));
   EXPECT_EQ(row.key(), *(std::find(wanted.begin(), wanted.end(), Key(16, 1)) + 1));
}

TEST(Reader, AHitIsLookedUpAgainAfterAResize) {
   Opened table;
   table.holds({0, 1});
   int hooks = 0;
   table.reader->betweenRetriesIs([&] {
      if (++hooks < 3) table.slotsMove(); // and again, and again
   });
   table.bucketsMove();
   EXPECT_TRUE(table.holds({9, 1}));
   EXPECT_EQ(hooks, 3);
   // A row that goes while the table is resized isn't returned, though the first pass saw it.
   table.reader->betweenRetriesIs([&] { table.spoil(put32("buckets", entryAt(7) + 4, 0xffffffff)); });
   table.slotsMove();
   EXPECT_FALSE(table.holds({7, 1}));
}

template <class Act> std::string reformatted(Act&& act) {
   try {
      act();
   } catch (Mirak::TableReformattedException const& e) {
      return e.what();
   }
   return "";
}

TEST(Reader, AReformatIsToldFromDamage) {
   Parcel::KestorId const id(word("kestor", 8)), other(7, 7);
   auto const expectReformat = [&](Opened const& table, Parcel::KestorId now) {
      std::string const says = fmt::format("bad kestor:{} wanted:{}", now, id);
      R row;
      Mirak::IterHint hint;
      bool found;
      EXPECT_EQ(reformatted([&] { table.reader->lookup({9, 1}, found, &row); }), says);
      EXPECT_EQ(reformatted([&] { table.reader->lookup({500, 0}, found, &row); }), says);
      EXPECT_EQ(reformatted([&] { table.reader->first(row, hint); }), says);
      EXPECT_EQ(reformatted([&] { table.reader->next({9, 1}, row, hint); }), says);
      EXPECT_EQ(reformatted([&] { table.reader->getValue(1, row, nullptr); }), says);
   };
   { // the first store of a re-format, everything else still as it was
      Opened table;
      table.spoil(put32("slots", offsetof(Header, kestor), other.value()));
      expectReformat(table, other);
   }
   { // the same generation, another seed
      Opened table;
      table.spoil(put32("slots", offsetof(Header, hashSeed), 4711));
      expectReformat(table, id);
   }
   { // the bucket file's turn; it is looked at when the count moves
      Opened table;
      table.holds({0, 1});
      table.spoil(put32("buckets", 12, other.value()));
      EXPECT_TRUE(table.holds({9, 1}));
      table.bucketsMove();
      expectReformat(table, other);
   }
   // Damage is damage while the kestor file says so, and a re-format as soon as it doesn't.
   Opened table;
   table.spoil(put32("slots", slotAt(6) + 8, 4));
   EXPECT_THROW(reformatted([&] { table.holds({9, 1}); }), Lomi::CorruptionDetectedException);
   fs::remove(Bed::at() / "kestor");
   EXPECT_NE(reformatted([&] { table.holds({9, 1}); }), "");
   EXPECT_TRUE(table.holds({1, 1})); // a read that meets no trouble doesn't ask the file
}

TEST(Reader, Anchors) {
   Opened table;
   Reader& reader = *table.reader;
   EXPECT_DEATH(reader.validateVersionAnchor(),
                "should not be called on a default-constructed VersionAnchor");
   table.holds({9, 1});
   reader.validateVersionAnchor();
   EXPECT_EQ(reader.getCacheVersionAnchor().offset, slotAt(6) + 8);
   table.spoil(put32("slots", slotAt(6) + 8, 9));
   EXPECT_THROW(reader.validateVersionAnchor(), Mem::VersionMismatchException);
   table.holds({50, 0});
   EXPECT_DEATH(reader.validateVersionAnchor(), "default-constructed");
   R row;
   Mirak::IterHint hint;
   for (bool more = reader.first(row, hint); more; more = reader.next(row.key(), row, hint))
      reader.validateVersionAnchor();
   EXPECT_EQ(reader.getCacheVersionAnchor().offset, Mem::anchorUnset);
   table.holds({9, 1});
   reader.detach(false);
   EXPECT_THROW(reader.validateVersionAnchor(), Mem::VersionMismatchException);
   ASSERT_TRUE(reader.initialize("test"));
   EXPECT_THROW(reader.validateVersionAnchor(), Mem::VersionMismatchException);
   // A table that was formatted anew begins its words again: the same one may come up for another row.
   for (u64 changed : {offsetof(Header, kestor), offsetof(Header, hashSeed)}) {
      EXPECT_TRUE(table.holds({1, 1}));
      reader.validateVersionAnchor();
      table.spoil(put32("slots", changed, word("slots", changed) + 1));
      EXPECT_THROW(reader.validateVersionAnchor(), Mem::VersionMismatchException) << changed;
      table.spoil(put32("slots", changed, word("slots", changed)));
   }
}

// Whoever may write to the directory must not be able to stop its readers.
TEST(Reader, AMarkerThatIsNoFileStopsNobody) {
   Bed bed;
   bed.spoil(put32("slots", 0, 0));
   fs::path const marker = Bed::at() / "corruption-detected";
   ASSERT_EQ(::mkfifo(marker.c_str(), 0600), 0);
   auto const refused = [] { return Child([] { return newReader()->initialize("test") ? 1 : 0; }).wait(); };
   EXPECT_EQ(refused(), 0);
   int const otherEnd = ::open(marker.c_str(), O_RDONLY | O_NONBLOCK);
   EXPECT_EQ(refused(), 0);
   char c;
   EXPECT_EQ(::read(otherEnd, &c, 1), 0) << "something was written";
   ::close(otherEnd);
}

TEST(Reader, ReplacedFilesAreNoticed) {
   for (char const* file : {"slots", "buckets"}) {
      Opened table;
      EXPECT_FALSE(table.reader->filesReplaced());
      fs::copy_file(Bed::at() / file, Bed::at() / "copy");
      fs::rename(Bed::at() / "copy", Bed::at() / file);
      EXPECT_TRUE(table.reader->filesReplaced());
      EXPECT_TRUE(table.holds({9, 1})); // the old rows, still
      fs::remove(Bed::at() / file);
      EXPECT_TRUE(table.reader->filesReplaced());
      table.reader->detach(false);
      EXPECT_FALSE(table.reader->filesReplaced());
   }
}

// The kernel refuses the mapping of a sound bucket file: tried again later, and no marker is left.
TEST(Reader, NoMemoryToAttachIsNoDamage) {
   auto const writer = open<R>("large", Mirak::MapDescriptor(2000), quiet());
   for (u32 i = 0; i < 1500; ++i) writer->write(R::make({i, i}, 1), true);
   Reader reader(quiet(), "large", OpsOf<R>{});
   rlimit old{};
   ::getrlimit(RLIMIT_AS, &old);
   rlimit const none{1 << 20, old.rlim_max};
   // The headers are mapped by then.
   struct Refuse : Mem::Seam::Observer {
      rlimit const& limit;
      explicit Refuse(rlimit const& l)
         : limit(l) {}
      void beforeLoad(void const*, std::size_t) override { ::setrlimit(RLIMIT_AS, &limit); }
   } refuse(none);
   Mem::Seam::observer = &refuse;
   bool const opened = reader.initialize("test");
   Mem::Seam::observer = nullptr;
   ::setrlimit(RLIMIT_AS, &old);
   EXPECT_FALSE(opened || reader.damageFound());
   EXPECT_NE(reader.initializeError().find("failed to resize"), std::string::npos)
       << reader.initializeError();
   EXPECT_FALSE(fs::exists(testRoot() + "/large/corruption-detected"));
   EXPECT_TRUE(reader.initialize("test"));
}

} // namespace
} // namespace Test
