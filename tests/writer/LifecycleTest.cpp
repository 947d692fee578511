// SPDX-License-Identifier: Apache-2.0
// From start to end of a writer: what it does with the files that it finds, who may be a directory's writer,
// what is left behind. Damage inside the files is tested in tests/damage.
#include "Fixture.h"

#include "Mirak/MirakDummy.h"

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace Test {
namespace {

namespace fs = std::filesystem;
using R = Row<1201>; // longer than a page, so a table of three rows has pages that a hole can take

Mirak::MapDescriptor localOf(u32 rows) {
   Mirak::MapDescriptor d(rows);
   d.local = true;
   return d;
}

Content fill(WriterOf<R>& writer, u32 rows) {
   Content content;
   for (u32 i = 0; i < rows; ++i) writer.write(R::make({i, i}, content[{i, i}] = i + 1), true);
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

// --- what is found ---

enum class Outcome { adopted, anew, formatted, refused };

struct Found {
   char const* file;
   char const* state;
   std::function<void(fs::path const&)> make;
   Outcome outcome;
};

auto shorter(u64 by) {
   return [by](fs::path const& file) { fs::resize_file(file, fs::file_size(file) - by); };
}
auto longer() {
   return [](fs::path const& file) { fs::resize_file(file, fs::file_size(file) + 8192); };
}
auto cutTo(u64 size) {
   return [size](fs::path const& file) { fs::resize_file(file, size); };
}
auto foreign(u64 kestorAt) {
   return [kestorAt](fs::path const& file) {
      std::fstream out(file, std::ios::in | std::ios::out | std::ios::binary);
      out.seekp(static_cast<long>(kestorAt));
      out.write("\7\7\7\7", 4);
   };
}
void hugeIndex(fs::path const& file) {
   u32 const buckets = u32{1} << 29;
   fs::resize_file(file, MirakCore::bucketFileSize(buckets));
   std::fstream out(file, std::ios::in | std::ios::out | std::ios::binary);
   out.seekp(20);
   out.write(reinterpret_cast<char const*>(&buckets), 4);
}
void absent(fs::path const& file) { fs::remove(file); }
auto replaced(std::function<void(fs::path const&)> by) {
   return [by](fs::path const& file) {
      fs::rename(file, file.string() + ".real");
      by(file);
   };
}
auto const directory = replaced([](fs::path const& at) { fs::create_directory(at); });
auto const symlink =
    replaced([](fs::path const& at) { fs::create_symlink(at.filename().string() + ".real", at); });
auto const fifo = replaced([](fs::path const& at) { mkfifo(at.c_str(), 0644); });

std::vector<Found> const findings = {
    {"slots", "as it was", [](auto const&) {}, Outcome::adopted},
    {"slots", "absent", absent, Outcome::formatted},
    {"slots", "empty", cutTo(0), Outcome::formatted},
    {"slots", "a piece of header", cutTo(100), Outcome::formatted},
    {"slots", "header alone", cutTo(584 + 4832), Outcome::formatted},
    {"slots", "a page short", shorter(4096), Outcome::formatted},
    {"slots", "longer", longer(), Outcome::adopted},
    {"slots", "longer than anybody can map", cutTo(u64{5} << 30), Outcome::formatted},
    {"slots", "foreign", foreign(12), Outcome::formatted},
    {"slots", "a directory", directory, Outcome::refused},
    {"slots", "a symbolic link", symlink, Outcome::refused},
    {"slots", "a pipe", fifo, Outcome::refused},
    {"buckets", "absent", absent, Outcome::formatted},
    {"buckets", "empty", cutTo(0), Outcome::formatted},
    {"buckets", "short", shorter(8), Outcome::formatted},
    {"buckets", "longer", longer(), Outcome::adopted},
    {"buckets", "longer than anybody can map", cutTo(u64{5} << 30), Outcome::adopted},
    {"buckets", "of more buckets than anybody can map", hugeIndex, Outcome::formatted},
    {"buckets", "foreign", foreign(12), Outcome::formatted},
    {"buckets", "a directory", directory, Outcome::refused},
    {"buckets", "a symbolic link", symlink, Outcome::refused},
    {"kestor", "absent", absent, Outcome::formatted},
    {"kestor", "empty", cutTo(0), Outcome::formatted},
    {"kestor", "short", shorter(1), Outcome::formatted},
    {"kestor", "foreign", foreign(8), Outcome::formatted},
    {"kestor", "a directory", directory, Outcome::refused},
    {"owner", "absent", absent, Outcome::formatted},
    {"owner", "empty", cutTo(0), Outcome::formatted},
    {"owner", "short", shorter(1), Outcome::formatted},
    {"owner", "foreign", foreign(40), Outcome::formatted},
    {"owner", "a directory", directory, Outcome::refused},
    {"owner", "a symbolic link", symlink, Outcome::refused},
};

// Files of a table are trusted together or not at all.
TEST(Lifecycle, WhatAStartFinds) {
   for (auto const& one : findings) {
      SCOPED_TRACE(fmt::format("{} is {}", one.file, one.state));
      fs::path const at = testRoot() + "/found";
      fs::remove_all(at);
      auto writer = open<R>("found", Mirak::MapDescriptor(10), quiet());
      Content content = fill(*writer, 3);
      auto const kestor = writer->kestorId();
      writer.reset();
      one.make(at / one.file);
      Traces traces;
      if (one.outcome == Outcome::refused) {
         try {
            open<R>("found", Mirak::MapDescriptor(10));
            ADD_FAILURE() << "started";
         } catch (Lomi::Exception const& e) {
            EXPECT_NE(std::string(e.what()).find(one.file), std::string::npos) << e.what();
         }
         continue;
      }
      writer = open<R>("found", Mirak::MapDescriptor(10));
      bool const lost = one.outcome == Outcome::formatted;
      EXPECT_EQ(traces.has(1, "all entries from " + at.string() + " will be lost"), lost) << traces.text();
      EXPECT_EQ(difference(*writer, lost ? Content() : content, keys), "") << traces.text();
      EXPECT_EQ(writer->kestorId() == kestor, !lost);
      if (lost && one.file != std::string("kestor")) {
         EXPECT_EQ(writer->kestorId(), Parcel::KestorId(kestor.low, static_cast<Mem::u16>(kestor.high + 1)));
      }
      // The table is whole again, and the next start has nothing to say.
      content = fill(*writer, 4);
      writer.reset();
      writer = open<R>("found", Mirak::MapDescriptor(10));
      EXPECT_EQ(difference(*writer, content, keys), "");
   }
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

// A file copied sparse, or cut by a shrink that a crash followed, has its length but not its blocks; a store
// into a hole of a full file system would end the writer.
TEST(Lifecycle, AdoptionReservesBlocks) {
   auto writer = open<R>("sparse", Mirak::MapDescriptor(40), quiet());
   Content content = fill(*writer, 3);
   for (u32 i = 3; i < 9; ++i) writer->write(R::make({i, i}, 1), true);
   R removed;
   for (u32 i = 3; i < 9; ++i) writer->remove({i, i}, removed);
   auto const capacity = writer->capacity();
   writer.reset();
   std::string const file = testRoot() + "/sparse/slots";
   // The last slots were never used: their values are zeros, and only the pages with their heads say
   // anything.
   int const fd = ::open(file.c_str(), O_RDWR);
   auto const size = static_cast<off_t>(fs::file_size(file));
   std::string page(4096, '\0');
   u32 holes = 0;
   for (off_t at = 0; at < size; at += 4096)
      if (pread(fd, page.data(), 4096, at) == 4096 && page == std::string(4096, '\0')) {
         fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, at, 4096);
         ++holes;
      }
   close(fd);
   ASSERT_GT(holes, 0u);
   writer = open<R>("sparse", Mirak::MapDescriptor(40), quiet());
   EXPECT_EQ(writer->capacity(), capacity);
   EXPECT_EQ(difference(*writer, content, keys), "");
   struct stat status;
   ASSERT_EQ(stat(file.c_str(), &status), 0);
   EXPECT_GE(status.st_blocks * 512, static_cast<off_t>(writer->slotTable().wrapper().mappedSize()));
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
   foreign(40)(owner);
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
      Mirak::Tmp<OpsOf<R>> table(quiet(), "no/such/name", localOf(100));
      table.initialize("none");
      Content content = fill(table, 4);
      EXPECT_EQ(difference(table, content, keys), "");
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

// --- two processes ---

/// A writer in a child process; it lives until it is killed.
class ForeignWriter {
public:
   explicit ForeignWriter(char const* name, u32 rows) {
      testRoot();
      int ready[2];
      if (pipe(ready) != 0) std::abort();
      pid_ = fork();
      if (pid_ == 0) {
         alarm(60);
         auto writer = open<R>(name, Mirak::MapDescriptor(10), quiet());
         fill(*writer, rows);
         if (write(ready[1], "!", 1) != 1) _exit(1);
         for (;;) pause();
      }
      close(ready[1]);
      char c;
      EXPECT_EQ(read(ready[0], &c, 1), 1);
      close(ready[0]);
   }
   ~ForeignWriter() { kill(); }
   void kill() {
      if (pid_ > 0) {
         ::kill(pid_, SIGKILL);
         waitpid(pid_, nullptr, 0);
      }
      pid_ = 0;
   }
   pid_t pid() const { return pid_; }

private:
   pid_t pid_;
};

TEST(Lifecycle, OneWriterForADirectory) {
   ForeignWriter foreigner("claimed", 3);
   fs::path const at = testRoot() + "/claimed";
   WriterOf<R> writer(quiet(), "claimed", Mirak::MapDescriptor(10));
   for (bool cleaning : {false, true}) try {
         cleaning ? writer.cleanup() : void(writer.initialize("test"));
         ADD_FAILURE() << "taken from a live writer";
      } catch (Lomi::InvalidInitializeException const& e) {
         EXPECT_NE(std::string(e.what()).find(
                       fmt::format("{} already has a writer: process {}", at.string(), foreigner.pid())),
                   std::string::npos)
             << e.what();
      }
   for (char const* file : {"slots", "buckets", "kestor", "owner"})
      EXPECT_TRUE(fs::exists(at / file)) << file;
   foreigner.kill();
   // The kernel let the lock go; the rows of the dead writer are kept.
   EXPECT_TRUE(writer.initialize("test"));
   EXPECT_EQ(writer.members(), 3u);
   // A second object of this process is no second writer either.
   EXPECT_THROW(open<R>("claimed", Mirak::MapDescriptor(10), quiet()), Lomi::InvalidInitializeException);
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
