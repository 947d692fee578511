// SPDX-License-Identifier: Apache-2.0
// The queue's writer against a model that remembers every change, and what a notify costs.
#include "Rows.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <linux/seccomp.h>
#include <optional>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace Test {
namespace {

Lomi::Platform::DebugHandler const& handler() { return *Lomi::Platform::getDebugHandler("test", true); }
Mem::NaoRootPath tablePath(std::string const& name) {
   testRoot();
   return {handler(), name, false};
}

/// Says what it is told to say.
struct Crowd : Tessel::Followers {
   void wake() noexcept override {
      asleep_ = false;
      ++wakes;
   }
   bool anyConnected() const override { return connected; }
   Rusk::Sequence reportedByAll() const override { return connected ? reported : 0; }
   u64 clientQuiesced(std::string const&, Rusk::Sequence tail) override { return reported >= tail; }
   void sleep() { asleep_ = true; }
   bool connected = false;
   Rusk::Sequence reported = 0;
   u64 wakes = 0;
};

/// What the queue must hold above its floor, by the rules alone: no tables, no positions, no turns.
class Model {
public:
   explicit Model(Queue& queue)
      : queue_(queue) {}

   std::string compare(u64 floor) {
      std::map<u64, u32> held;
      for (u32 at = 0; at < queue_.count(); ++at) {
         auto const [offset, slot] = queue_.notification(at);
         if (slot != Tessel::tombstoneSlot) held[queue_.baseSequence() + offset] = slot;
      }
      wanted_.erase(wanted_.begin(), wanted_.upper_bound(floor));
      if (held == wanted_) return {};
      return fmt::format("held {} wanted {}\n{}", held.size(), wanted_.size(), queue_.dump());
   }
   void notify(u32 slot, bool moving) {
      takeBack(slot);
      queue_.notify(slot);
      wanted_[queue_.tail()] = slot;
      if (!moving) current_[slot] = queue_.tail();
   }
   void tombstone(u32 slot) {
      takeBack(slot);
      queue_.tombstone(slot);
   }

private:
   void takeBack(u32 slot) {
      if (auto const older = current_.find(slot); older != current_.end()) {
         wanted_.erase(older->second);
         current_.erase(older);
      }
   }
   Queue& queue_;
   std::map<u64, u32> wanted_;
   std::map<u32, u64> current_;
};

u64 floorOf(Queue const& queue) {
   return reinterpret_cast<Tessel::QueueHeader const*>(queue.wrappers()[0]->base())->floor;
}

// Turns, compactions, drops, pruning, growth and restarts in any order: after each step the queue holds each
// slot's last change in order, the changes of compactions, and nothing else above its floor.
TEST(TesselWriter, HoldsWhatTheModelHolds) {
   u64 turns = 0, drops = 0, pruned = 0;
   for (u64 seed = 1; seed <= 60; ++seed) {
      Dice dice(seed);
      SmallTables const small(2 + dice.below(12));
      bool const prune = dice.oneIn(2);
      Queue queue(handler(), tablePath(fmt::format("model/{}", seed)), false,
                  prune ? Tessel::PruneMode::prune : Tessel::PruneMode::keep);
      ASSERT_EQ(queue.attach({1, 1}), Tessel::queueNew);
      u32 slots = 2 + dice.below(4);
      queue.reserve(slots);
      Crowd crowd;
      crowd.connected = dice.oneIn(2);
      queue.followersIs(&crowd);
      Model model(queue);
      for (u32 step = 0; step < 400; ++step) {
         u64 const floor = floorOf(queue);
         crowd.reported =
             std::max(crowd.reported, queue.tail() - std::min<u64>(queue.tail(), dice.below(30)));
         switch (dice.below(40)) {
         case 0:
            if (slots < 64) queue.reserve(slots *= 2);
            break;
         case 1:
            if (queue.shrinkMarker() != 0) break;
            queue.markShrinkStart();
            for (u32 n = dice.below(Tessel::corralBound(slots) / 2 + 1); n > 0; --n) {
               u32 const from = dice.below(slots);
               model.notify(dice.below(slots), true);
               model.tombstone(from);
               model.notify(from, true);
            }
            queue.markShrinkEnd();
            break;
         case 2:
            queue.detach();
            ASSERT_EQ(queue.attach({1, 1}), Tessel::queueExisting);
            queue.reserve(slots);
            break;
         case 3:
            queue.chores();
            break;
         default:
            model.notify(dice.below(slots), false);
         }
         std::string error = model.compare(floorOf(queue));
         ASSERT_EQ(error, "") << "seed " << seed << " step " << step;
         ASSERT_TRUE(queue.validate({1, 1}, slots, error)) << error << " seed " << seed << " step " << step;
         if (floorOf(queue) != floor) (prune ? pruned : drops) += 1;
      }
      turns += queue.turns();
   }
   EXPECT_GT(turns, 1000u);
   EXPECT_GT(drops, 20u);
   EXPECT_GT(pruned, 100u);
}

// A whole table over the queue: its rules hold after each change, and compactions happen again and again.
TEST(TesselWriter, TablesRulesHoldAfterEachChange) {
   for (u64 seed = 1; seed <= 40; ++seed) {
      Dice dice(seed);
      SmallTables const small(2 + dice.below(20));
      Crowd crowd;
      crowd.connected = dice.oneIn(2); // and, never reporting, stopped for good
      Rows rows(tablePath(fmt::format("rules/{}", seed)), Tessel::PruneMode::keep, 2 + 2 * dice.below(2),
                [] {});
      rows.queue.followersIs(&crowd);
      Habit habit(rows, dice, 3 + dice.below(60));
      for (u32 change = 0; change < 500; ++change) {
         habit.change();
         if (dice.oneIn(50)) rows.restart();
         ASSERT_EQ(rows.complaint(), "") << "seed " << seed << " change " << change;
         ASSERT_LE(rows.queue.count(), Tessel::entriesFor(rows.mostSlots) + Tessel::leastEntries);
      }
   }
}

// A follower that stopped for good is in nobody's way: a table that fills and empties compacts every time.
TEST(TesselWriter, EveryCycleCompacts) {
   for (bool const stopped : {false, true}) {
      Crowd crowd;
      crowd.connected = stopped;
      Rows rows(tablePath(fmt::format("cycle/{}", stopped)), Tessel::PruneMode::keep, 4, [] {});
      rows.queue.followersIs(&crowd);
      for (u64 cycle = 1; cycle <= 100; ++cycle) {
         u64 const before = rows.compactions;
         for (int key = 0; key < 200; ++key) rows.write(key, 1);
         for (int key = 0; key < 200; ++key) rows.remove(key);
         ASSERT_GT(rows.compactions, before) << cycle;
         ASSERT_EQ(rows.capacity, 4u) << cycle;
      }
   }
}

TEST(TesselWriter, GivesMemoryBackAfterACompaction) {
   Crowd crowd;
   crowd.connected = true;
   Rows rows(tablePath("memory"), Tessel::PruneMode::keep, 32, [] {});
   rows.queue.followersIs(&crowd);
   auto blocks = [&] {
      u64 sum = 0;
      for (auto const* wrapper : rows.queue.wrappers()) sum += wrapper->blockBytes();
      return sum;
   };
   u64 const empty = blocks();
   for (int round = 0; round < 2; ++round) {
      for (int key = 0; key < 20000; ++key) rows.write(key, 1);
      EXPECT_GT(blocks(), 20000u * 40);
      for (int key = 0; key < 20000; ++key) rows.remove(key);
      // The followers have taken all in: then the compaction's entries go without being asked for.
      crowd.reported = rows.queue.tail();
      for (u64 wait = 0; wait < 3 && blocks() > 4 * empty; ++wait) {
         for (int n = 0; n < 600; ++n) {
            rows.write(1, n);
            crowd.reported = rows.queue.tail();
            rows.queue.chores();
         }
         ::usleep(150'000); // the blocks go a moment after the smaller size was published
         rows.queue.chores();
      }
      EXPECT_LE(blocks(), 4 * empty);
      EXPECT_EQ(rows.queue.shrinkMarker(), 0u);
      EXPECT_EQ(rows.complaint(), "");
   }
}

TEST(TesselWriter, WakesOnceForEachSleep) {
   Crowd crowd;
   Rows rows(tablePath("wake"), Tessel::PruneMode::keep, 4, [] {});
   rows.queue.followersIs(&crowd);
   for (u64 n = 1; n <= 3; ++n) {
      crowd.sleep();
      for (int k = 0; k < 10; ++k) rows.write(1, k);
      EXPECT_EQ(crowd.wakes, n);
   }
   EXPECT_EQ(rows.queue.clientQuiesced(""), 0u);
   crowd.reported = rows.queue.tail();
   EXPECT_NE(rows.queue.clientQuiesced("reader"), 0u);
}

// In a process that may only read, write and exit: notify, tombstone, turns and compactions call nothing.
TEST(TesselWriter, CallsNothing) {
   tablePath("silent");
   pid_t const child = ::fork();
   if (child == 0) {
      Crowd crowd;
      crowd.connected = true;
      Queue own(handler(), tablePath("silent"), false, Tessel::PruneMode::keep);
      own.attach({1, 1});
      own.reserve(1000);
      own.followersIs(&crowd);
      if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0) ::_exit(77);
      for (u32 n = 0; n < 200'000; ++n) {
         own.notify(n * 7919 % 1000);
         if (n % 20'000 == 0 && own.shrinkMarker() == 0) {
            own.markShrinkStart();
            own.notify(3);
            own.tombstone(5);
            own.notify(5);
            own.markShrinkEnd();
         }
      }
      ::syscall(SYS_exit, own.turns() > 20 ? 0 : 1); // exit_group isn't allowed any more
   }
   int status = 0;
   ASSERT_EQ(::waitpid(child, &status, 0), child);
   if (WIFEXITED(status) && WEXITSTATUS(status) == 77) GTEST_SKIP() << "no seccomp here";
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// A long turn lets the table's critical tasks run, and they may ask where the queue stands.
TEST(TesselWriter, LongTurnsRunTheHook) {
   constexpr u32 slots = 1'000'000;
   Queue queue(handler(), tablePath("hook"), false, Tessel::PruneMode::keep);
   u64 calls = 0, wrong = 0;
   queue.longOperationHookIs([&] {
      ++calls;
      wrong += queue.tail() < slots;
   });
   queue.attach({1, 1});
   queue.reserve(slots);
   Dice dice(1);
   for (u32 slot = 0; slot < slots; ++slot) queue.notify(slot * 7919ull % slots);
   u64 const turns = queue.turns();
   calls = wrong = 0;
   for (u32 n = 0; n < 5 && calls == 0; ++n)
      for (u64 const before = queue.turns(); queue.turns() == before;) queue.notify(dice.below(slots));
   EXPECT_GT(queue.turns(), turns);
   EXPECT_EQ(wrong, 0u);
   RecordProperty("calls", static_cast<int>(calls)); // how many is a matter of the machine
   std::string error;
   EXPECT_TRUE(queue.validate({1, 1}, slots, error)) << error;
}

TEST(TesselWriter, LocalTablesHaveAQueueOfLengthZero) {
   Queue queue(handler(), {handler(), "anything", true}, true, Tessel::PruneMode::keep);
   EXPECT_EQ(queue.attach({1, 0}), Tessel::queueNew);
   queue.reserve(1u << 30);
   for (u32 n = 0; n < 10; ++n) {
      queue.notify(n);
      queue.tombstone(n);
   }
   queue.markShrinkStart();
   queue.notify(1);
   EXPECT_EQ(queue.shrinkMarker(), 0u);
   queue.markShrinkEnd();
   EXPECT_FALSE(queue.choresPending());
   std::string error;
   EXPECT_TRUE(queue.validate({1, 0}, 4, error));
   EXPECT_TRUE(queue.validateBeyond(0, error));
   EXPECT_EQ(queue.count(), 0u);
   EXPECT_EQ(queue.tesselSlot(0), Tessel::noPosition);
   EXPECT_EQ(queue.tail(), 0u);
   queue.validateFile();
   queue.cleanup();
   EXPECT_EQ(queue.attach({1, 0}), Tessel::queueNew);
}

} // namespace
} // namespace Test
