// SPDX-License-Identifier: Apache-2.0
// From start to end of a writer: what it does with the files that it finds, who may be a directory's writer,
// what is left behind. Damage inside the files is tested in tests/damage.
#include "Fixture.h"
#include "Processes.h"

#include "Mirak/MirakDummy.h"

namespace Test {
namespace {

namespace fs = std::filesystem;
using R = Row<1201>; // longer than a page: the table begins with one slot, and grows at the second row

Mirak::MapDescriptor localOf(u32 rows) {
   Mirak::MapDescriptor d(rows);
   d.local = true;
   return d;
}

template <class Writer> Content fill(Writer& writer, u32 rows) {
   Content content;
   for (u32 i = 0; i < rows; ++i) writer.write(Writer::Value::make({i, i}, content[{i, i}] = i + 1), true);
   return content;
}

std::vector<Key> const keys = {{0, 0}, {1, 1}, {2, 2}, {3, 3}};

TEST(Lifecycle, FirstStart) {
   Traces traces;
   auto writer = open<R>("first", Mirak::MapDescriptor(10));
   EXPECT_TRUE(traces.has(2, "to new file " + writer->rootPath().str() + "/slots"));
   EXPECT_FALSE(traces.has(1, "will be lost")) << traces.text();
   EXPECT_FALSE(traces.has(0, "")) << traces.text();
   EXPECT_EQ(writer->kestorId().low, static_cast<Mem::u16>(getpid()));
   auto const second = open<R>("second", Mirak::MapDescriptor(10));
   EXPECT_EQ(second->kestorId().high, writer->kestorId().high + 1);
   // Numbered through the process, whatever the rows are.
   auto const otherRows = open<Row<3>>("third", Mirak::MapDescriptor(10));
   EXPECT_EQ(otherRows->kestorId().high, writer->kestorId().high + 2);
   EXPECT_EQ(writer->mountStatus(), Mem::MountStatus::mounted);
   EXPECT_TRUE(writer->initialize("twice")); // harmless
   EXPECT_TRUE(writer->validateFiles());
   // The free list begins at slot 0.
   EXPECT_EQ(writer->slotTable().indexOf(*reinterpret_cast<WriterOf<R>::Slot const*>(
                 reinterpret_cast<char const*>(writer->write(R::make({1, 1}, 1), true)) - 16)),
             0u);
}

// Without slots and buckets there are no rows to lose, and the generation goes on.
TEST(Lifecycle, OnlyTheKestorFileIsLeft) {
   auto writer = open<R>("left", Mirak::MapDescriptor(10), quiet());
   auto const kestor = writer->kestorId();
   writer.reset();
   for (char const* file : {"slots", "buckets"}) fs::remove(testRoot() + "/left/" + file);
   Traces traces;
   writer = open<R>("left", Mirak::MapDescriptor(10));
   EXPECT_FALSE(traces.has(1, "will be lost")) << traces.text();
   EXPECT_EQ(writer->kestorId(), kestor);
}

// Every process of a container may have the same number: the id that it makes must not be one that stands in
// the files, or a table whose generation was taken back would be adopted.
TEST(Lifecycle, NewIdsStandInNoFile) {
   auto writer = open<R>("ids", Mirak::MapDescriptor(10), quiet());
   auto const kestor = writer->kestorId();
   fill(*writer, 3);
   writer.reset();
   u32 const coming = Parcel::KestorId(kestor.low, static_cast<Mem::u16>(kestor.high + 1)).value();
   for (char const* file : {"slots", "buckets"}) {
      std::fstream out(testRoot() + "/ids/" + file, std::ios::in | std::ios::out | std::ios::binary);
      out.seekp(12);
      out.write(reinterpret_cast<char const*>(&coming), 4);
   }
   fs::remove(testRoot() + "/ids/kestor");
   writer = open<R>("ids", Mirak::MapDescriptor(10), quiet());
   EXPECT_EQ(difference(*writer, {}, keys), "");
   EXPECT_EQ(writer->kestorId().high, kestor.high + 3); // one stepped over, one for the re-format
}

TEST(Lifecycle, OtherSettings) {
   auto writer = open<R>("other", Mirak::MapDescriptor(10), quiet());
   Content content = fill(*writer, 3);
   writer.reset();
   // Another size: the limit is this process's, the header keeps its own.
   writer = open<R>("other", Mirak::MapDescriptor(20), quiet());
   EXPECT_EQ(difference(*writer, content, keys), "");
   EXPECT_EQ(writer->maxSize(), 20u);
   EXPECT_EQ(Mem::loadShared(writer->slotTable().header().maxSlots), 10u);
   u32 const capacity = writer->capacity();
   writer.reset();
   Traces traces;
   Mirak::MapDescriptor fixed(7);
   fixed.fixedSize = true;
   writer = open<R>("other", fixed);
   EXPECT_TRUE(traces.has(
       1, fmt::format("wanted capacity:7 for fixed-size table, but existing file has capacity:{}", capacity)))
       << traces.text();
   EXPECT_EQ(difference(*writer, {}, keys), "");
   writer.reset();
   // Another type of the same name, and one of another name, are told by the header.
   auto const foreignType = open<Row<3>>("other", Mirak::MapDescriptor(10));
   EXPECT_TRUE(traces.has(1, "has valueSize:4812 slotSize:4832, wanted valueSize:20 slotSize:40"))
       << traces.text();
   EXPECT_EQ(foreignType->members(), 0u);
   EXPECT_THROW(open<R>("zero", Mirak::MapDescriptor(0)), Lomi::InvalidInitializeException);
}

TEST(Lifecycle, MarkerGoesAfterSuccess) {
   auto writer = open<R>("marker", Mirak::MapDescriptor(10), quiet());
   fs::path const marker = testRoot() + "/marker/corruption-detected";
   writer.reset();
   std::ofstream(marker) << "x";
   fs::rename(marker.parent_path() / "slots", marker.parent_path() / "aside");
   fs::create_directory(marker.parent_path() / "slots");
   EXPECT_THROW(open<R>("marker", Mirak::MapDescriptor(10), quiet()), Lomi::InvalidInitializeException);
   EXPECT_TRUE(fs::exists(marker));
   fs::remove(marker.parent_path() / "slots");
   writer = open<R>("marker", Mirak::MapDescriptor(10), quiet());
   EXPECT_FALSE(fs::exists(marker));
}

// A damaged owner record is neither made good nor in the way.
TEST(Lifecycle, DamagedOwnerFileUnderALiveWriter) {
   fs::path const owner = testRoot() + "/owned/owner";
   Traces traces;
   auto writer = open<R>("owned", Mirak::MapDescriptor(10));
   std::fstream(owner, std::ios::in | std::ios::out | std::ios::binary).seekp(40).write("\7\7\7\7", 4);
   EXPECT_FALSE(writer->validate());
   EXPECT_THROW(writer->validateFiles(), Lomi::CorruptionDetectedException);
   writer->detach(false);
   EXPECT_TRUE(traces.has(0, "ignoring owner file corruption:")) << traces.text();
   writer->detach(false); // twice is harmless
   writer->cleanup();
   EXPECT_TRUE(
       traces.has(1, "owner file corruption detected but continuing with cleanup, dumped owner file: "));
   EXPECT_TRUE(fs::is_empty(owner.parent_path()));
}

TEST(Lifecycle, CleanupOfAnOpenTable) {
   fs::path const at = testRoot() + "/clean";
   auto writer = open<R>("clean", Mirak::MapDescriptor(10), quiet());
   std::ofstream(at / "corruption-detected") << "x";
   std::ofstream(at / "foreign") << "x";
   std::ofstream(at / "kestor.new") << "x"; // left by a writer that was killed while it wrote its generation
   writer->cleanup();
   EXPECT_EQ(std::distance(fs::directory_iterator(at), {}), 1);
   EXPECT_TRUE(fs::exists(at / "foreign"));
   writer->detach(false);
   writer = open<R>("clean", Mirak::MapDescriptor(10), quiet());
   EXPECT_EQ(difference(*writer, {}, keys), "");
}

// --- local tables ---

TEST(Lifecycle, LocalTablesTouchNoFile) {
   struct Calls : Mem::Seam::Observer {
      std::vector<std::string> paths;
      void beforeFileCall(Mem::Seam::FileCall const& call) override { paths.push_back(call.path); }
   } calls;
   testRoot();
   auto const listing = [] { return std::distance(fs::directory_iterator(testRoot()), {}); };
   auto const before = listing();
   Mem::Seam::observer = &calls;
   {
      using Queued = Row<1201, true>;
      Mirak::Tmp<OpsOf<Queued>> table(quiet(), "no/such/name", localOf(100));
      table.initialize("none");
      Content content = fill(table, 4);
      EXPECT_EQ(difference<Queued>(table, content, keys), "");
      EXPECT_EQ(table.queue().tesselWriter.count() + table.queue().ruskSm.readers(), 0u);
      EXPECT_EQ(table.kestorId(), Parcel::KestorId(static_cast<Mem::u16>(getpid()), 0));
      EXPECT_EQ(table.mountStatus(), Mem::MountStatus::notMounted);
      EXPECT_TRUE(table.validateFiles());
      table.detach(false);
      table.cleanup();
   }
   Mem::Seam::observer = nullptr;
   EXPECT_TRUE(calls.paths.empty()) << calls.paths.front();
   EXPECT_EQ(listing(), before);
}

TEST(Lifecycle, OneWriterForADirectory) {
   auto writer = open<R>("claimed", Mirak::MapDescriptor(10), quiet());
   Content const content = fill(*writer, 3);
   Child foreigner([] {
      WriterOf<R> other(quiet(), "claimed", Mirak::MapDescriptor(10));
      for (bool cleaning : {false, true}) try {
            cleaning ? other.cleanup() : void(other.initialize("test"));
            return 1;
         } catch (Lomi::InvalidInitializeException const&) {
         }
      return 0;
   });
   EXPECT_EQ(foreigner.wait(), 0) << "taken from a live writer";
   EXPECT_THROW(open<R>("claimed", Mirak::MapDescriptor(10), quiet()), Lomi::InvalidInitializeException);
   EXPECT_TRUE(writer->validateFiles());
   EXPECT_EQ(difference(*writer, content, keys), "");
}

TEST(Lifecycle, CleanupAfterTheDirectoryWasReplaced) {
   fs::path const at = testRoot() + "/replaced";
   auto writer = open<R>("replaced", Mirak::MapDescriptor(10), quiet());
   fs::remove_all(at);
   Child other([] {
      auto mine = open<R>("replaced", Mirak::MapDescriptor(10), quiet());
      for (;;) ::pause();
   });
   while (!fs::exists(at / "kestor")) ::usleep(1000);
   EXPECT_THROW(writer->cleanup(), Lomi::InvalidInitializeException);
   EXPECT_TRUE(fs::exists(at / "slots"));
   other.kill();
   writer->cleanup();
   EXPECT_TRUE(fs::is_empty(at));
}

// --- placeholders ---

TEST(Placeholders, AnswerAsAnEmptyTableOrNotAtAll) {
   auto behind = open<R>("behind", Mirak::MapDescriptor(10), quiet());
   fs::path const at = testRoot() + "/behind";
   behind->detach(false);
   Mirak::MirakDummy<OpsOf<R>> dummy(quiet(), "behind", {}, std::move(behind));
   R row = R::make({1, 1}, 1), buffer = row;
   bool found = true;
   Mirak::IterHint hint;
   EXPECT_EQ(dummy.lookup({1, 1}, found, &buffer), &OpsOf<R>::typeDefault());
   EXPECT_TRUE(!found && buffer.generation() == 1);
   EXPECT_FALSE(dummy.first(row, hint));
   EXPECT_EQ(row.generation(), 0u);
   EXPECT_EQ(dummy.type(), Mirak::MirakType::reader);
   EXPECT_EQ(dummy.mirakName(), "behind");
   auto const refuses = [&](char const* text, auto&& act) {
      try {
         act();
         ADD_FAILURE() << text;
      } catch (Lomi::NoPermissionException const& e) {
         EXPECT_STREQ(e.what(), text);
      }
   };
   refuses("write to read-only Mirak table", [&] { dummy.write(row, true); });
   refuses("write to read-only Mirak table", [&] { dummy.directCommit(); });
   refuses("remove to read-only Mirak table", [&] { dummy.remove({1, 1}, row); });
   EXPECT_DEATH(dummy.validateVersionAnchor(), "it's impossible for a lookup to succeed");
   dummy.cleanup(); // reaches the writer behind
   EXPECT_TRUE(fs::is_empty(at));

   Mirak::MirakStrictDummy<OpsOf<R>> strict(quiet(), "orphan", {}, ". Why");
   strict.detach(true);
   strict.cleanup();
   EXPECT_TRUE(strict.validate());
   EXPECT_EQ(strict.mountStatus(), Mem::MountStatus::notMounted);
   std::string const where = "name:orphan rootpath:" + testRoot() + "/orphan";
   EXPECT_DEATH(strict.members(), "invoked, " + where + "\\. Why");
   EXPECT_DEATH(strict.lookup({1, 1}, found, nullptr), "invoked, " + where + " key:0x1/1\\. Why");
   EXPECT_DEATH(strict.initialize("e"), "orphan rootPath:" + testRoot() + "/orphan event:e\\. Why");
}

} // namespace
} // namespace Test
