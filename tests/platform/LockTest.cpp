// SPDX-License-Identifier: Apache-2.0
// One writer for a directory, among real processes: dead holders, unlinked files, forked children.
#include "Mem/WriterLock.h"

#include "Lomi/Exception.h"
#include "Mem/LockedFile.h"
#include "Parcel/OwnerFile.h"
#include "Scratch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

using Mem::WriterLock;
using Parcel::OwnerFile;

namespace {

WriterLock acquire(Mem::NaoRootPath const& path, bool force = false) {
   OwnerFile owner(handler(), path, false);
   return WriterLock::acquireWriterLock(handler(), path, owner, force);
}

bool refused(Mem::NaoRootPath const& path, bool force, std::string* text = nullptr) {
   try {
      acquire(path, force);
      return false;
   } catch (Lomi::InvalidInitializeException const& error) {
      if (text) *text = error.what();
      return true;
   }
}

// A child that holds the writer lock and says so.
struct Holder {
   Pipe ready;
   Child child;
   explicit Holder(Mem::NaoRootPath const& path)
      : child([&] {
         auto const lock = acquire(path);
         OwnerFile owner(handler(), path, false);
         owner.typeNameIs("Type");
         ready.signal();
         ::pause();
         return 0;
      }) {
      ready.await();
   }
};

} // namespace

TEST(WriterLock, ALiveForeignWriterKeepsTheTable) {
   Scratch const scratch;
   auto const path = scratch.table();
   Holder holder(path);
   std::string text;
   EXPECT_TRUE(refused(path, false, &text));
   EXPECT_NE(text.find(path.str()), std::string::npos) << text;
   EXPECT_NE(text.find("process " + std::to_string(holder.child.pid())), std::string::npos) << text;
   EXPECT_TRUE(refused(path, true)) << "force takes no lock of another process";
   Mem::u32 pid = 0;
   EXPECT_TRUE(WriterLock::ownerIsAlive(handler(), path, &pid));
   EXPECT_EQ(pid, static_cast<Mem::u32>(holder.child.pid()));
   EXPECT_FALSE(WriterLock::ownerIsMe(handler(), path));
   // The short lock of starts and cleanups is another one.
   OwnerFile(handler(), path, false).lock();
   holder.child.kill();
   EXPECT_FALSE(WriterLock::ownerIsAlive(handler(), path, &pid)) << "the kernel drops the lock of the dead";
   auto const lock = acquire(path);
   EXPECT_TRUE(lock.held());
   EXPECT_TRUE(WriterLock::ownerIsMe(handler(), path));
   EXPECT_EQ(OwnerFile(handler(), path, false).pid(), static_cast<Mem::u32>(::getpid()))
       << "a takeover is on record at once";
}

TEST(WriterLock, WithinOneProcessOnlyForceJoins) {
   Scratch const scratch;
   auto const path = scratch.table();
   auto first = acquire(path);
   EXPECT_TRUE(refused(path, false));
   auto second = acquire(path, true);
   first.release();
   EXPECT_TRUE(WriterLock::ownerIsAlive(handler(), path)) << "still held by the second";
   second.release();
   EXPECT_FALSE(WriterLock::ownerIsAlive(handler(), path));
   EXPECT_FALSE(second.held());
   EXPECT_FALSE(refused(path, false));
}

TEST(WriterLock, AnUnlinkedFileDecidesNothing) {
   Scratch const scratch;
   auto const path = scratch.table();
   auto const cleaned = acquire(path);
   OwnerFile(handler(), path, false).remove();
   EXPECT_FALSE(WriterLock::ownerIsMe(handler(), path));
   EXPECT_FALSE(WriterLock::ownerIsAlive(handler(), path));
   auto const next = acquire(path);
   EXPECT_TRUE(refused(path, false)) << "the new file has one holder again";
}

// Many processes lock, clean up (unlink) and go on, all at once. Never two inside at a time.
TEST(WriterLock, WaitersSurviveUnlinkedFiles) {
   Scratch const scratch;
   auto const path = scratch.table();
   struct Shared {
      std::atomic<int> inside, most, rounds;
   };
   ::Test::SharedReport<Shared> const shared;
   std::vector<std::unique_ptr<Child>> children;
   for (int i = 0; i < 6; ++i)
      children.push_back(std::make_unique<Child>([&] {
         for (int round = 0; round < 200; ++round) {
            OwnerFile owner(handler(), path, false);
            owner.lock();
            int const now = ++shared->inside;
            if (now > shared->most) shared->most = now;
            ++shared->rounds;
            ::sched_yield();
            --shared->inside;
            if (round % 2) owner.remove(); // the last act of a cleanup
         }
         return 0;
      }));
   for (auto& child : children) EXPECT_EQ(child->wait(), 0);
   EXPECT_EQ(shared->most, 1);
   EXPECT_EQ(shared->rounds, 1200);
}

// A writer that forked (say, to run a program) and was then killed must not live on in its child.
TEST(WriterLock, AForkedChildHoldsNothing) {
   Scratch const scratch;
   auto const path = scratch.table();
   Pipe ready, release;
   Child writer([&] {
      auto const lock = acquire(path);
      OwnerFile owner(handler(), path, false);
      owner.lock();
      if (::fork() == 0) {
         ::alarm(20);
         ready.signal();
         release.await();
         ::_exit(0);
      }
      ::pause();
      return 0;
   });
   ready.await();
   EXPECT_TRUE(WriterLock::ownerIsAlive(handler(), path));
   writer.kill(); // the grandchild still runs
   ASSERT_FALSE(WriterLock::ownerIsAlive(handler(), path));
   EXPECT_FALSE(refused(path, false));
   OwnerFile(handler(), path, false).lock();
   release.signal();
}
