// SPDX-License-Identifier: Apache-2.0
// The queue's writer against a model that remembers every change.
#include "Dice.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <map>

namespace Test {
namespace {

using Mem::u32;
using Mem::u64;
using Queue = Tessel::TesselWriter<Tessel::BasicSlot, u32>;

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
            u64 const before = crowd.wakes;
            bool const slept = dice.oneIn(8);
            if (slept) crowd.sleep();
            model.notify(dice.below(slots), false);
            ASSERT_EQ(crowd.wakes, before + slept) << "one wake-up for each sleep";
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

// Whoever attaches after a death inside a compaction sweeps from its start on, and needs the entries from
// there.
TEST(TesselWriter, ACompactionsEntriesOutliveItsFollowersReports) {
   Crowd crowd;
   Queue queue(handler(), tablePath("corral"), false, Tessel::PruneMode::prune, [] {});
   queue.followersIs(&crowd);
   queue.attach({1, 1});
   queue.reserve(64);
   crowd.connected = true;
   auto const untilTurn = [&](u32 slot) {
      u32 changes = 0;
      for (u64 const turns = queue.turns(); queue.turns() == turns; ++changes) {
         crowd.reported = queue.tail();
         queue.notify(slot);
      }
      return changes;
   };
   untilTurn(1);
   for (u32 left = untilTurn(1) - 2; left != 0; --left) queue.notify(1);
   queue.markShrinkStart();
   u64 const start = queue.corralStart();
   EXPECT_LT(untilTurn(2), 8u);
   EXPECT_LT(floorOf(queue), start);
   queue.markShrinkEnd();
   // All have taken in all: no reason to wake this process again and again.
   crowd.reported = queue.tail();
   for (int looks = 0; looks < 100 && queue.choresPending(); ++looks) queue.chores();
   EXPECT_FALSE(queue.choresPending());
   queue.notify(3);
   EXPECT_EQ(queue.corralStart(), 0u);
}

} // namespace
} // namespace Test
