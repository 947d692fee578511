// SPDX-License-Identifier: Apache-2.0
// Nobody sleeps through a change, and nobody asks all the time. Whether a follower was woken and not just
// polling shows in its counters: a change that is made while it sleeps is taken in without a poll.
#include "Support.h"

#include "Lomi/Exception.h"

#include <random>
#include <thread>

using namespace RuskTest;
using Wake = Served;
using WakeLater = Rooted;

// Changes fall into every moment of the follower's way to sleep; the writer looks at its loop now and then.
TEST_F(Wake, NoChangeIsSleptThrough) {
   Child child([&] { return followInChild(scratch, *shared); });
   std::mt19937_64 random(20260102);
   for (int round = 0; round < 300; ++round) {
      for (auto n = random() % 20; n > 0; --n) {
         writer.change();
         for (auto wait = random() % 3000; wait > 0; --wait) __builtin_ia32_pause();
         if (random() % 4 == 0) loop().run(0);
      }
      // Whatever happened: it ends with a follower that has everything and sleeps.
      ASSERT_TRUE(runUntil([&] {
         return writer.rusk.sleepingReaders() == 1 && shared->taken == writer.tail;
      })) << "round "
          << round << " taken " << shared->taken << " of " << writer.tail;
   }
   EXPECT_GT(writer.rusk.counters().wakesSent, 100u);
   EXPECT_EQ(writer.rusk.droppedPeers(), 0u) << "a proper follower is never taken for a stranger";
   shared->stop = true;
   EXPECT_EQ(child.wait(), 0);
}

TEST_F(Wake, AWriterThatDoesNotReachItsLoop) {
   Child child([&] { return followInChild(scratch, *shared); });
   auto const await = [&](auto done) {
      for (double const end = Lomi::monotonicTime() + 30; !done() && Lomi::monotonicTime() < end;)
         ::usleep(1000);
      return done();
   };
   // It never looks: the follower finds out by itself.
   for (u64 i = 1; i <= 3; ++i) {
      writer.change();
      ASSERT_TRUE(await([&] { return shared->taken == i; }));
   }
   EXPECT_FALSE(shared->connected);
   EXPECT_GT(shared->polls, 0u);
   // A long operation that does nothing but run critical tasks: connected, armed, woken.
   auto const operate = [&](auto done) {
      return await([&] {
         loop().runCriticalPriorityTasks();
         return done();
      });
   };
   ASSERT_TRUE(operate([&] { return writer.rusk.sleepingReaders() == 1 && shared->asleep; }));
   writer.change();
   ASSERT_TRUE(operate([&] { return shared->taken == 4 && writer.rusk.sleepingReaders() == 1; }));
   EXPECT_TRUE(shared->connected);
   EXPECT_GE(shared->wakes, 1u);
   shared->stop = true;
   EXPECT_EQ(child.wait(), 0);
}

TEST_F(Wake, AFollowerIsKilledInItsSleep) {
   Follower other(scratch, *shared, "other");
   other.start();
   Child child([&] { return followInChild(scratch, *shared); });
   ASSERT_TRUE(runUntil([&] { return writer.rusk.sleepingReaders() == 2; }));
   child.kill();
   writer.change(); // sends into a dead connection
   EXPECT_EQ(writer.rusk.readers(), 1u);
   EXPECT_TRUE(runUntil([&] { return other.taken == 1 && other.asleep(); }));
   EXPECT_EQ(writer.rusk.sleepingReaders(), 1u);
   EXPECT_EQ(writer.rusk.counters().left, 1u);

   // Stopped instead: one WAKE lies in its buffer, and it costs nothing from then on.
   Child stopped([&] { return followInChild(scratch, *shared); });
   ASSERT_TRUE(runUntil([&] { return writer.rusk.sleepingReaders() == 2; }));
   ::kill(stopped.pid(), SIGSTOP);
   auto const before = writer.rusk.counters().wakesSent;
   for (int i = 0; i < 1000; ++i) {
      writer.change();
      ASSERT_EQ(writer.rusk.readers(), 2u);
   }
   EXPECT_EQ(writer.rusk.counters().wakesSent, before + 2);
   ::kill(stopped.pid(), SIGCONT);
   EXPECT_TRUE(runUntil([&] { return shared->taken == 1001 && writer.rusk.sleepingReaders() == 2; }));
   shared->stop = true;
   EXPECT_EQ(stopped.wait(), 0);
}

TEST_F(WakeLater, TheWriterGoesAndComesBack) {
   Follower follower(scratch, *shared);
   follower.start(); // nobody there, no files
   shared->count = 1;
   ASSERT_TRUE(runUntil([&] { return follower.taken == 1; }));
   EXPECT_FALSE(follower.rusk->connected());
   u64 const times = 3;
   for (u64 i = 1; i <= times; ++i) {
      Pipe ready;
      Child writing([&] {
         Writer writer(scratch, *shared);
         runUntil([&] { return writer.rusk.sleepingReaders() == 1; });
         ready.signal();
         // A child of its own outlives the killed writer, and must not keep the connection up.
         if (::fork() == 0) {
            ::alarm(100); // longer than anybody here waits
            while (!shared->stop) ::usleep(1000);
            ::_exit(0);
         }
         ready.signal();
         while (true) loop().run(1);
         return 0;
      });
      ASSERT_TRUE(runUntil([&] { return follower.asleep(); }));
      ready.await();
      ready.await();
      writing.kill();
      ASSERT_TRUE(runUntil([&] { return follower.disconnects == i; }));
      EXPECT_FALSE(follower.rusk->connected());
      ++shared->count; // as adopted by a writer without a socket
      ASSERT_TRUE(runUntil([&] { return follower.taken == 1 + i; }));
   }
   shared->stop = true;
   // In this process: it lets go in order, and listens again under the same object.
   Writer writer(scratch, *shared);
   ASSERT_TRUE(runUntil([&] { return follower.asleep(); }));
   writer.rusk.disableListen();
   ASSERT_TRUE(runUntil([&] { return follower.disconnects == times + 1; }));
   EXPECT_FALSE(writer.rusk.asleep());
   writer.listen();
   ASSERT_TRUE(runUntil([&] { return follower.asleep(); }));
   EXPECT_EQ(follower.rusk->counters().connects, times + 2);
}

TEST_F(Wake, QuiescedByName) {
   Follower a(scratch, *shared, "twin"), b(scratch, *shared, "twin"), c(scratch, *shared, "");
   for (auto* each : {&a, &b, &c}) each->start();
   ASSERT_TRUE(runUntil([&] { return writer.rusk.sleepingReaders() == 3; }));
   EXPECT_EQ(writer.rusk.clientQuiesced("twin", 0), 2u);
   b.rusk->processingIs(false); // sweeps
   writer.change();
   ASSERT_TRUE(runUntil([&] { return a.taken == 1 && c.taken == 1 && writer.rusk.sleepingReaders() == 2; }));
   EXPECT_EQ(b.taken, 0u) << "walked although it sweeps";
   EXPECT_EQ(writer.rusk.clientQuiesced("twin", 1), 0u);
   EXPECT_EQ(writer.rusk.reportedByAll(), 0u);
   b.taken = 1;
   b.rusk->report();
   EXPECT_EQ(writer.rusk.clientQuiesced("twin", 1), 2u) << "what was sent counts, without a turn of the loop";
   EXPECT_EQ(writer.rusk.reportedByAll(), 1u);
   EXPECT_EQ(writer.rusk.clientQuiesced("", 0), 0u);
   EXPECT_EQ(writer.rusk.clientQuiesced("nobody", 0), 0u);
   b.rusk->processingIs(true);
   EXPECT_TRUE(runUntil([&] { return writer.rusk.sleepingReaders() == 3; }));
   EXPECT_THROW(Follower(scratch, *shared, "two words"), Lomi::InvalidInitializeException);
   EXPECT_THROW(Follower(scratch, *shared, std::string(64, 'x')), Lomi::InvalidInitializeException);
}

// The client keeps the walk from running, throws out of it, and ends the object inside it.
TEST_F(Wake, WhatAFollowerMayDoInAWalk) {
   follower.start();
   ASSERT_TRUE(runUntil([&] { return follower.asleep(); }));
   follower.rusk->notifyingIs(false);
   writer.change();
   ASSERT_TRUE(runUntil([&] { return follower.rusk->counters().wakes == 1; }));
   EXPECT_EQ(follower.taken, 0u);
   follower.rusk->notifyingIs(true);
   ASSERT_TRUE(runUntil([&] { return follower.taken == 1 && follower.asleep(); }));

   int thrown = 0;
   follower.onWalk = [&] {
      if (thrown++ == 0) throw std::runtime_error("client");
   };
   writer.change();
   EXPECT_THROW(runUntil([&] { return follower.taken == 2; }), std::runtime_error);
   EXPECT_TRUE(runUntil([&] { return follower.taken == 2 && follower.asleep(); }));

   follower.onWalk = [&] { follower.rusk->detach(); };
   writer.change();
   ASSERT_TRUE(runUntil([&] { return writer.rusk.readers() == 0; }));
   u64 const taken = follower.taken;
   writer.change();
   loop().run(0.05);
   EXPECT_EQ(follower.taken, taken) << "walked after detach";
   follower.onWalk = nullptr;
   follower.start();
   ASSERT_TRUE(runUntil([&] { return follower.taken == 4 && follower.asleep(); }));

   follower.onWalk = [&] { follower.rusk.reset(); };
   writer.change();
   ASSERT_TRUE(runUntil([&] { return !follower.rusk && writer.rusk.readers() == 0; }));

   Follower second(scratch, *shared);
   second.onDisconnect = [&] { second.rusk.reset(); };
   second.start();
   ASSERT_TRUE(runUntil([&] { return second.asleep(); }));
   writer.rusk.disableListen();
   EXPECT_TRUE(runUntil([&] { return !second.rusk; }));
}

// A table in another thread has a socket of its own, so that everything of one table stays on one thread.
TEST_F(WakeLater, TablesOfTwoThreads) {
   SharedMemory theirs;
   Writer writer(scratch, *shared, "mine");
   std::atomic<bool> stop{false}, listening{false};
   std::string name;
   std::thread thread([&] {
      Writer other(scratch, *theirs, "theirs");
      name = other.socketName;
      listening = true;
      while (!stop) {
         loop().run(0.01);
         if (other.rusk.asleep() && other.tail < 5) other.change();
      }
   });
   while (!listening) ::usleep(1000);
   EXPECT_NE(name, writer.socketName);
   Follower a(scratch, *shared, "a", "mine"), b(scratch, *theirs, "b", "theirs");
   a.start();
   b.start();
   EXPECT_TRUE(runUntil([&] { return b.taken == 5 && a.asleep(); }));
   EXPECT_EQ(a.taken, 0u);
   stop = true;
   thread.join();
   EXPECT_TRUE(std::filesystem::exists(scratch.path() + "/" + writer.socketName));
   EXPECT_FALSE(std::filesystem::exists(scratch.path() + "/" + name))
       << "the last table takes the name along";
}
