// SPDX-License-Identifier: Apache-2.0
// Followers of a writer that is interrupted anywhere: at rest each has the last state of every row, none was
// told of a removal that didn't happen, none sleeps through a change. And the simulation finds what it is
// there for.
#include "Stage.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace Test {
namespace {

struct Totals {
   u64 turns = 0, compactions = 0, sweeps = 0, refused = 0, formats = 0, found = 0;
};

/// One run. @return what went wrong
std::string playOnce(u64 seed, Mistake mistake, bool formats, Totals& totals) {
   Dice dice(seed);
   Stage stage(dice);
   SmallTables const small(2 + dice.below(12));
   std::filesystem::remove_all(testRoot() + "/follow"); // a seed alone gives the same run
   Mem::NaoRootPath const path(*Lomi::Platform::getDebugHandler("test", true), "follow", false);
   Rows rows(path, dice.oneIn(3) ? Tessel::PruneMode::prune : Tessel::PruneMode::keep, 2 + 2 * dice.below(2),
             [&stage] { stage.step(); });
   rows.omitTombstone = mistake == Mistake::moveWithoutTombstone;
   std::vector<std::unique_ptr<Copy>> copies;
   for (u32 n = 1 + dice.below(2); n > 0; --n)
      copies.push_back(std::make_unique<Copy>(stage, dice, rows, path, mistake));
   Mailbox mailbox(copies, !dice.oneIn(4));
   rows.queue.followersIs(&mailbox);
   bool done = false;
   stage.add([&] {
      Habit habit(rows, dice, 3 + dice.below(24));
      for (u32 change = 50 + dice.below(250); change > 0 && stage.failure.empty(); --change) {
         habit.change();
         mailbox.answer(rows.queue.tail(), mistake);
         if (formats && dice.oneIn(80)) rows.format(), ++totals.formats;
         stage.muted = true;
         if (std::string const complaint = rows.complaint(); !complaint.empty()) stage.fail(complaint);
         stage.muted = false;
         if (dice.oneIn(5)) stage.pause();
      }
      mailbox.answer(rows.queue.tail(), mistake);
      for (auto& copy : copies)
         if (copy->sleep == Copy::Sleep::asleep && copy->asked != rows.queue.tail() &&
             copy->reader.attached())
            stage.fail("a follower sleeps through a change");
      done = true;
   });
   for (auto& copy : copies) stage.add([&copy, &done] { copy->follow(done); });
   stage.play();
   for (auto& copy : copies) {
      if (std::string const difference = copy->difference(); !difference.empty()) stage.fail(difference);
      totals.sweeps += copy->sweeps;
      totals.refused += copy->refused;
   }
   totals.turns += rows.queue.turns();
   totals.compactions += rows.compactions;
   return stage.failure;
}

u64 runs(u64 usual) {
   char const* const wanted = std::getenv("HOFLOW_TESSEL_RUNS");
   return wanted ? std::strtoull(wanted, nullptr, 10) : usual;
}

TEST(TesselFollow, EndsWithTheLastStateOfEveryRow) {
   Totals totals;
   for (u64 seed = 1; seed <= runs(250); ++seed)
      ASSERT_EQ(playOnce(seed, Mistake::none, seed % 3 == 0, totals), "") << "seed " << seed;
   fmt::print("turns {} compactions {} sweeps {} refused {} formats {}\n", totals.turns, totals.compactions,
              totals.sweeps, totals.refused, totals.formats);
   EXPECT_GT(totals.turns, 500u);
   EXPECT_GT(totals.compactions, 100u);
   EXPECT_GT(totals.refused, 10u);
   EXPECT_GT(totals.formats, 50u);
}

class TesselMistake : public testing::TestWithParam<Mistake> {};

TEST_P(TesselMistake, IsFound) {
   Totals totals;
   for (u64 seed = 1; seed <= 20'000; ++seed)
      if (std::string const failure = playOnce(seed, GetParam(), false, totals); !failure.empty()) {
         fmt::print("seed {}: {}\n", seed, failure);
         return;
      }
   FAIL() << "not found";
}

INSTANTIATE_TEST_SUITE_P(All, TesselMistake,
                         testing::Values(Mistake::startInsideACompaction, Mistake::startAfterTheSweep,
                                         Mistake::sweepToTheCapacity, Mistake::removalNotAsked,
                                         Mistake::moveWithoutTombstone, Mistake::sleepNotCompared));

} // namespace
} // namespace Test
