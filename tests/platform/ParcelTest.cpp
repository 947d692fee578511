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

TEST(Parcel, HugePagesKeepTheContentsAndGiveTheirBlocksBack) {
   constexpr u64 huge = Mem::hugePageSize;
   Mem::HugePages::evenIfCrowded = true;
   Scratch const scratch;
   Slots writer(scratch.table()), reader(scratch.table());
   char* const base = writer.attach(100 * page, Mode::writer);
   ASSERT_NE(base, nullptr);
   EXPECT_EQ(reinterpret_cast<u64>(base) % huge, 0u);
   std::memset(base, 'a', 100 * page);
   ASSERT_NE(reader.attach(page, Mode::reader), nullptr);
   auto const& file = writer.getFilename();
   ASSERT_TRUE(writer.reserve(110 * page, 150 * page));
   EXPECT_EQ(blocks(file), 110 * page) << "a table that stays small takes no huge page";
   ASSERT_TRUE(writer.reserve(200 * page, 3 * huge));
   u64 const taken = blocks(file); // a kernel without them takes small ones
   EXPECT_TRUE(taken == huge || taken == 200 * page) << taken;
   EXPECT_EQ(base[100 * page - 1], 'a');
   EXPECT_EQ(base[100 * page], 0);
   ASSERT_EQ(writer.resize(3 * huge), base);
   EXPECT_EQ(blocks(file), 3 * huge);
   std::memset(base + 100 * page, 'b', 3 * huge - 100 * page);
   ASSERT_NE(reader.resize(3 * huge), nullptr);
   EXPECT_EQ(reinterpret_cast<u64>(reader.base()) % huge, 0u);
   EXPECT_EQ(std::memcmp(reader.base(), base, 3 * huge), 0);
   // A part of a huge page is given back as exactly as small ones are.
   ASSERT_EQ(writer.resize(100 * page), base);
   writer.releaseTailAfter(100 * page);
   writer.releaseTailIfDue(true);
   EXPECT_EQ(blocks(file), 100 * page);
   EXPECT_EQ(reader.base()[100 * page - 1], 'a');
   EXPECT_EQ(reader.base()[100 * page], 0);
   ASSERT_EQ(writer.resize(2 * huge), base);
   EXPECT_EQ(blocks(file), 2 * huge);
   EXPECT_EQ(base[0], 'a');
   EXPECT_EQ(base[2 * huge - 1], 0);
   Mem::HugePages::evenIfCrowded = false;
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

TEST(Parcel, AReaderFollowsAndNeverChangesTheFile) {
   Scratch const scratch;
   Slots writer(scratch.table());
   ASSERT_NE(writer.attach(2 * page, Mode::writer), nullptr);
   Slots reader(scratch.table());
   char* base = reader.attach(600, Mode::reader);
   ASSERT_NE(base, nullptr) << reader.lastError();
   writer.base()[599] = 'r';
   EXPECT_EQ(base[599], 'r');
   EXPECT_EQ(reader.resize(3 * page), nullptr) << "a reader maps no more than there is";
   EXPECT_NE(reader.lastError().find(reader.getFilename()), std::string::npos);
   EXPECT_EQ(reader.base(), base);
   EXPECT_EQ(reader.mappedSize(), 600u);
   ASSERT_NE(writer.resize(500 * page), nullptr);
   writer.base()[499 * page] = 's';
   base = reader.resize(500 * page);
   ASSERT_NE(base, nullptr);
   EXPECT_EQ(base[499 * page], 's');
   auto const before = statOf(reader.getFilename());
   ASSERT_NE(reader.resize(page), nullptr);
   reader.releaseTailAfter(page);
   reader.releaseTailIfDue(true);
   EXPECT_FALSE(reader.reserve(1000 * page));
   auto const after = statOf(reader.getFilename());
   EXPECT_EQ(before.st_blocks, after.st_blocks);
   EXPECT_EQ(before.st_size, after.st_size);
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
   EXPECT_EQ(Child([&] {
                unsigned char resident;
                if (::mincore(base, page, &resident) == 0) return 1;
                // Something of the child's own stands at the same place; the wrapper's end must leave it
                // alone.
                char* const own =
                    static_cast<char*>(::mmap(base, page, PROT_READ | PROT_WRITE,
                                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0));
                if (own != base) return 2;
                writer.detach();
                own[0] = 'c';
                return own[0] == 'c' ? 0 : 3;
             }).wait(),
             0);
   base[0] = 'p';
   EXPECT_EQ(length(writer.getFilename()), 100 * page);
   // A reader's mapping is the child's, too, and goes with the child's wrapper.
   Slots reader(scratch.table());
   char* const seen = reader.attach(100 * page, Mode::reader);
   EXPECT_EQ(Child([&] {
                unsigned char resident;
                if (seen[0] != 'p') return 1;
                reader.detach();
                return ::mincore(seen, page, &resident) == 0 ? 2 : 0;
             }).wait(),
             0);
   EXPECT_EQ(seen[0], 'p');
}

TEST(Parcel, WorksWithoutReservedAddresses) {
   if (sanitized) GTEST_SKIP() << "the sanitizers need the address space that this test forbids";
   Scratch const scratch;
   EXPECT_EQ(Child([&] {
                rlimit const limit{u64{2} << 30, u64{2} << 30};
                if (::setrlimit(RLIMIT_AS, &limit) != 0) return 1;
                Slots writer(scratch.table());
                if (!writer.attach(page, Mode::writer)) return 2;
                writer.base()[0] = 'f';
                for (u64 size = 2 * page; size <= u64{32} << 20; size *= 2) {
                   if (!writer.resize(size)) return 3;
                   writer.base()[size - 1] = 'l';
                }
                if (writer.base()[0] != 'f') return 4;
                // More than the limit: refused, and everything is as it was.
                char* const base = writer.base();
                u64 const before = length(writer.getFilename());
                if (writer.resize(u64{3} << 30)) return 5;
                if (writer.base() != base || writer.mappedSize() != before) return 6;
                return length(writer.getFilename()) == before && base[before - 1] == 'l' ? 0 : 7;
             }).wait(),
             0);
}

TEST(Parcel, GrowsUnderConstantSignals) {
   Scratch const scratch;
   EXPECT_EQ(Child([&] {
                static volatile int signals = 0;
                ::signal(SIGALRM, [](int) { signals = signals + 1; });
                itimerval const often{{0, 500}, {0, 500}}; // far less than a 64 MiB piece takes
                if (::setitimer(ITIMER_REAL, &often, nullptr) != 0) return 1;
                Slots writer(scratch.table());
                if (!writer.attach(page, Mode::writer)) return 2;
                for (u64 size = u64{8} << 20; size <= u64{128} << 20; size *= 2)
                   if (!writer.resize(size) || blocks(writer.getFilename()) != size) return 3;
                return signals > 0 ? 0 : 4;
             }).wait(),
             0);
}

TEST(Parcel, AFullFileSystemIsAnErrorAndNeverASignal) {
   Scratch const scratch;
   auto const root = scratch.path() + "/small";
   std::filesystem::create_directory(root);
   int const result = Child([&] {
                         if (::unshare(CLONE_NEWNS) != 0 ||
                             ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                             ::mount("tmpfs", root.c_str(), "tmpfs", 0, "size=1m") != 0)
                            return 77;
                         Mem::RootPath::set(root);
                         Slots writer(scratch.table());
                         if (!writer.attach(page, Mode::writer)) return 1;
                         std::memset(writer.base(), 'a', page);
                         if (!writer.resize(128 * page)) return 2;
                         std::memset(writer.base(), 'b', 128 * page);
                         if (writer.resize(300 * page)) return 3;
                         std::string const error = writer.lastError();
                         if (error.find(writer.getFilename()) == std::string::npos ||
                             error.find(std::to_string(300 * page)) == std::string::npos ||
                             error.find("No space left on device") == std::string::npos)
                            return 4;
                         if (writer.mappedSize() != 128 * page || length(writer.getFilename()) != 128 * page)
                            return 5;
                         if (writer.base()[128 * page - 1] != 'b') return 6;
                         if (writer.reserve(300 * page) || length(writer.getFilename()) != 128 * page)
                            return 7;
                         // A hole that was given back, in a file system that has filled up since: the length
                         // is there, the blocks aren't.
                         if (!writer.resize(8 * page)) return 8;
                         writer.releaseTailAfter(8 * page);
                         writer.releaseTailIfDue(true);
                         ParcelWrapper other(handler(), scratch.table("b"), "slots", false);
                         if (!other.attach(page, Mode::writer)) return 9;
                         while (other.resize(other.mappedSize() + 8 * page)) {
                         }
                         if (writer.resize(128 * page)) return 10;
                         if (writer.base()[8 * page - 1] != 'b') return 11;
                         other.remove();
                         other.detach();
                         if (!writer.resize(128 * page)) return 12;
                         std::memset(writer.base(), 'c', 128 * page);
                         return 0;
                      }).wait();
   if (result == 77) GTEST_SKIP() << "may not mount a small tmpfs here";
   EXPECT_EQ(result, 0);
}

TEST(Parcel, CountsTrackedMappings) {
   Scratch const scratch;
   u64 const before = ParcelWrapper::trackedBytes();
   {
      Slots writer(scratch.table());
      ASSERT_NE(writer.attach(page, Mode::writer), nullptr);
      writer.trackMemoryIs(true);
      writer.dumpToCoreIs(true);
      ASSERT_NE(writer.resize(8 * page), nullptr);
      EXPECT_EQ(ParcelWrapper::trackedBytes(), before + 8 * page);
   }
   EXPECT_EQ(ParcelWrapper::trackedBytes(), before);
}
