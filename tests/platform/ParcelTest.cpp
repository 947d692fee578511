// SPDX-License-Identifier: Apache-2.0
// Mapped files on a real tmpfs: blocks, lengths, a full file system, readers without rights. Blocks are asked
// of the kernel, never of the wrapper's own books.
#include "Mem/ParcelWrapper.h"

#include "Lomi/Exception.h"
#include "Lomi/Util.h"
#include "Scratch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>

using Mem::Mode;
using Mem::ParcelWrapper;
using Mem::u64;

namespace {

constexpr u64 page = 4096;

struct stat statOf(std::string const& path) {
   struct stat status {};
   if (::stat(path.c_str(), &status) != 0) status.st_size = -1;
   return status;
}
u64 blocks(std::string const& path) { return static_cast<u64>(statOf(path).st_blocks) * 512; }
u64 length(std::string const& path) { return static_cast<u64>(statOf(path).st_size); }

/// A child's: ends with the number of the first step that isn't as it must be.
class Steps {
public:
   void operator()(bool good) {
      if (++step_, !good) ::_exit(step_);
   }

private:
   int step_ = 0;
};

struct Slots : ParcelWrapper {
   explicit Slots(Mem::NaoRootPath const& path)
      : ParcelWrapper(handler(), path, "slots", false) {}
};

} // namespace

TEST(Parcel, AWriterReservesBlocksBeforeItMayStore) {
   Scratch const scratch;
   Slots writer(scratch.table());
   EXPECT_EQ(writer.memSize(), 0u);
   char* const base = writer.attach(3 * page, Mode::writer);
   ASSERT_NE(base, nullptr) << writer.lastError();
   EXPECT_EQ(statOf(writer.getFilename()).st_mode & 07777, 0644u);
   EXPECT_EQ(length(writer.getFilename()), 3 * page);
   EXPECT_EQ(blocks(writer.getFilename()), 3 * page);
   base[0] = 'a';
   for (u64 size = 4 * page; size <= 1024 * page; size *= 2) {
      ASSERT_EQ(writer.resize(size), base) << "growth keeps the base";
      EXPECT_EQ(blocks(writer.getFilename()), size);
      EXPECT_EQ(writer.mappedSize(), size);
      base[size - 1] = 'z';
   }
   EXPECT_EQ(base[0], 'a');
   EXPECT_EQ(writer.blockBytes(), 1024 * page);
   ASSERT_TRUE(writer.reserve(2048 * page));
   EXPECT_EQ(blocks(writer.getFilename()), 2048 * page);
   EXPECT_EQ(writer.mappedSize(), 1024 * page);
}

TEST(Parcel, AShrinkGivesBlocksBackLaterAndKeepsTheLength) {
   Scratch const scratch;
   Slots writer(scratch.table());
   char* const base = writer.attach(10000 * page, Mode::writer);
   ASSERT_NE(base, nullptr);
   std::memset(base, 'x', 10000 * page);
   ASSERT_EQ(writer.resize(10 * page + 5), base);
   auto const& file = writer.getFilename();
   auto const before = Lomi::time();
   writer.releaseTailAfter(10 * page + 5);
   writer.releaseTailIfDue();
   u64 const kept = blocks(file);
   // On a busy machine the 100 ms that readers have may be over already.
   EXPECT_TRUE(kept == 10000 * page || Lomi::time() - before > 0.09);
   ::usleep(110000);
   int pieces = 0;
   for (; writer.releasePending() && pieces < 100; ++pieces) writer.releaseTailIfDue();
   EXPECT_GT(pieces, 1) << "one call never takes long";
   EXPECT_EQ(blocks(file), 11 * page) << "whole pages only";
   EXPECT_EQ(length(file), 10000 * page);
   EXPECT_EQ(base[10 * page + 4], 'x');
   // The file is long enough, and yet its blocks must be asked for again.
   ASSERT_NE(writer.resize(5000 * page), nullptr);
   EXPECT_EQ(blocks(file), 5000 * page);
   EXPECT_EQ(writer.base()[20 * page], 0);
}

TEST(Parcel, LargeMappingsLieWhereHugePagesServeThem) {
   constexpr u64 huge = u64{2} << 20;
   Scratch const scratch;
   Slots writer(scratch.table()), reader(scratch.table());
   ASSERT_NE(writer.attach(3 * page, Mode::writer), nullptr);
   EXPECT_EQ(reinterpret_cast<u64>(writer.base()) % huge, 0u);
   std::memset(writer.base(), 'a', 3 * page);
   ASSERT_NE(reader.attach(page, Mode::reader), nullptr);
   for (u64 size : {3 * huge, huge + page, 4 * huge}) {
      ASSERT_NE(writer.resize(size), nullptr);
      std::memset(writer.base() + 3 * page, 'b', size - 3 * page);
      ASSERT_NE(reader.resize(size), nullptr);
      EXPECT_EQ(reinterpret_cast<u64>(reader.base()) % huge, 0u);
      EXPECT_EQ(std::memcmp(reader.base(), writer.base(), size), 0);
   }
   Slots late(scratch.table());
   ASSERT_NE(late.attach(2 * huge, Mode::reader), nullptr);
   EXPECT_EQ(reinterpret_cast<u64>(late.base()) % huge, 0u);
}

TEST(Parcel, AGrowthTakesBackWhatWasToBeReleased) {
   Scratch const scratch;
   Slots writer(scratch.table());
   ASSERT_NE(writer.attach(100 * page, Mode::writer), nullptr);
   ASSERT_NE(writer.resize(10 * page), nullptr);
   writer.releaseTailAfter(10 * page);
   ASSERT_NE(writer.resize(50 * page), nullptr);
   std::memset(writer.base(), 'k', 50 * page);
   writer.releaseTailIfDue(true);
   EXPECT_EQ(blocks(writer.getFilename()), 50 * page);
   EXPECT_EQ(writer.base()[50 * page - 1], 'k');
   writer.releaseTailAfter(page); // less than the table has: its own pages stay
   writer.releaseTailIfDue(true);
   EXPECT_EQ(writer.base()[page], 'k');
   ASSERT_NE(writer.resize(20 * page), nullptr);
   writer.releaseTailAfter(20 * page);
   ASSERT_NE(writer.resize(100 * page), nullptr);
   EXPECT_FALSE(writer.releasePending()) << "nothing is left to release";
}

TEST(Parcel, ASparseFileGetsItsBlocksAtAdoption) {
   Scratch const scratch;
   auto const path = scratch.table();
   path.makeDirectories();
   int const fd = ::open((path.str() + "/slots").c_str(), O_RDWR | O_CREAT, 0644);
   ASSERT_EQ(::ftruncate(fd, 100 * page), 0);
   ASSERT_EQ(::pwrite(fd, "row", 3, 50 * page), 3);
   ::close(fd);
   Slots writer(path);
   EXPECT_EQ(writer.memSize(), 100 * page);
   ASSERT_NE(writer.attach(page, Mode::writer), nullptr);
   EXPECT_EQ(length(writer.getFilename()), 100 * page);
   ASSERT_NE(writer.resize(100 * page), nullptr);
   EXPECT_EQ(blocks(writer.getFilename()), 100 * page);
   EXPECT_EQ(std::memcmp(writer.base() + 50 * page, "row", 3), 0);
}

TEST(Parcel, AReaderMapsNoMoreThanThereIs) {
   Scratch const scratch;
   Slots writer(scratch.table()), reader(scratch.table());
   ASSERT_NE(writer.attach(2 * page, Mode::writer), nullptr);
   char* const base = reader.attach(600, Mode::reader);
   ASSERT_NE(base, nullptr) << reader.lastError();
   EXPECT_EQ(reader.resize(3 * page), nullptr);
   EXPECT_NE(reader.lastError().find(reader.getFilename()), std::string::npos);
   EXPECT_EQ(reader.base(), base);
   EXPECT_EQ(reader.mappedSize(), 600u);
   ASSERT_NE(writer.resize(500 * page), nullptr);
   writer.base()[499 * page] = 's';
   ASSERT_NE(reader.resize(500 * page), nullptr);
   EXPECT_EQ(reader.base()[499 * page], 's');
   reader.releaseTailAfter(page);
   reader.releaseTailIfDue(true);
   EXPECT_FALSE(reader.reserve(1000 * page));
   EXPECT_EQ(blocks(reader.getFilename()), 500 * page);
}

TEST(Parcel, ABadSizeIsRefused) {
   Scratch const scratch;
   Slots wrapper(scratch.table());
   EXPECT_EQ(wrapper.attach(page, Mode::reader), nullptr) << "absent";
   EXPECT_EQ(length(wrapper.getFilename()), ~u64{0}) << "a reader makes no file";
   EXPECT_EQ(wrapper.attach(0, Mode::writer), nullptr);
   EXPECT_EQ(wrapper.attach(Mem::Local::maxMappingSize() + 1, Mode::writer), nullptr);
   EXPECT_FALSE(wrapper.isAttached());
   EXPECT_NE(wrapper.lastError().find(wrapper.getFilename()), std::string::npos);
}

TEST(Parcel, AForkedChildHasNoPartInAWritersMapping) {
   Scratch const scratch;
   Slots writer(scratch.table());
   char* const base = writer.attach(100 * page, Mode::writer);
   ASSERT_NE(base, nullptr);
   unsigned char resident;
   Child child([&] {
      Steps must;
      must(::mincore(base, page, &resident) != 0);
      // Something of the child's own stands at the same place; the wrapper's end must leave it alone.
      void* const own = ::mmap(base, page, PROT_READ | PROT_WRITE,
                               MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
      must(own == base);
      writer.detach();
      *base = 'c'; // or it ends with a signal
      must(*base == 'c');
   });
   EXPECT_EQ(child.wait(), 0);
   base[0] = 'p';
   EXPECT_EQ(length(writer.getFilename()), 100 * page);
   // A reader's mapping is the child's, too, and goes with the child's wrapper.
   Slots reader(scratch.table());
   char* const seen = reader.attach(100 * page, Mode::reader);
   Child second([&] {
      Steps must;
      must(seen[0] == 'p');
      reader.detach();
      must(::mincore(seen, page, &resident) != 0);
   });
   EXPECT_EQ(second.wait(), 0);
   EXPECT_EQ(seen[0], 'p');
}

TEST(Parcel, WorksWithoutReservedAddresses) {
   if (sanitized) GTEST_SKIP() << "the sanitizers need the address space that this test forbids";
   Scratch const scratch;
   Child child([&] {
      Steps must;
      rlimit const limit{u64{2} << 30, u64{2} << 30};
      must(::setrlimit(RLIMIT_AS, &limit) == 0);
      Slots writer(scratch.table());
      must(writer.attach(page, Mode::writer));
      writer.base()[0] = 'f';
      for (u64 size = 2 * page; size <= u64{32} << 20; size *= 2) {
         must(writer.resize(size));
         writer.base()[size - 1] = 'l';
      }
      must(writer.base()[0] == 'f');
      // More than the limit: refused, and everything is as it was.
      char* const base = writer.base();
      u64 const before = length(writer.getFilename());
      must(!writer.resize(u64{3} << 30));
      must(writer.base() == base && writer.mappedSize() == before);
      must(length(writer.getFilename()) == before && base[before - 1] == 'l');
   });
   EXPECT_EQ(child.wait(), 0);
}

TEST(Parcel, GrowsUnderConstantSignals) {
   Scratch const scratch;
   Child child([&] {
      Steps must;
      static volatile int signals = 0;
      ::signal(SIGALRM, [](int) { signals = signals + 1; });
      itimerval const often{{0, 500}, {0, 500}}; // far less than a 64 MiB piece takes
      must(::setitimer(ITIMER_REAL, &often, nullptr) == 0);
      Slots writer(scratch.table());
      must(writer.attach(page, Mode::writer));
      for (u64 size = u64{8} << 20; size <= u64{128} << 20; size *= 2)
         must(writer.resize(size) && blocks(writer.getFilename()) == size);
      must(signals > 0);
   });
   EXPECT_EQ(child.wait(), 0);
}

TEST(Parcel, AFullFileSystemIsAnErrorAndNeverASignal) {
   Scratch const scratch;
   auto const root = scratch.path() + "/small";
   std::filesystem::create_directory(root);
   Child child([&] {
      if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          ::mount("tmpfs", root.c_str(), "tmpfs", 0, "size=1m") != 0)
         return 77;
      Steps must;
      Mem::RootPath::set(root);
      Slots writer(scratch.table());
      must(writer.attach(page, Mode::writer));
      std::memset(writer.base(), 'a', page);
      must(writer.resize(128 * page));
      std::memset(writer.base(), 'b', 128 * page);
      must(!writer.resize(300 * page));
      for (auto const& part :
           {writer.getFilename(), std::to_string(300 * page), std::string("No space left on device")})
         must(writer.lastError().find(part) != std::string::npos);
      must(writer.mappedSize() == 128 * page && length(writer.getFilename()) == 128 * page);
      must(writer.base()[128 * page - 1] == 'b');
      must(!writer.reserve(300 * page) && length(writer.getFilename()) == 128 * page);
      // A hole that was given back, in a file system that has filled up since: the length is there, the
      // blocks aren't.
      must(writer.resize(8 * page));
      writer.releaseTailAfter(8 * page);
      writer.releaseTailIfDue(true);
      ParcelWrapper other(handler(), scratch.table("b"), "slots", false);
      must(other.attach(page, Mode::writer));
      while (other.resize(other.mappedSize() + 8 * page)) {
      }
      must(!writer.resize(128 * page));
      must(writer.base()[8 * page - 1] == 'b');
      other.remove();
      other.detach();
      must(writer.resize(128 * page));
      std::memset(writer.base(), 'c', 128 * page);
      return 0;
   });
   if (child.wait() == 77) GTEST_SKIP() << "may not mount a small tmpfs here";
   EXPECT_EQ(child.wait(), 0);
}
