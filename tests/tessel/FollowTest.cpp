// SPDX-License-Identifier: Apache-2.0
// Followers of a writer that is interrupted anywhere: at rest each has the last state of every row, none was
// told of a removal that didn't happen, none sleeps through a change. And the simulation finds what it is
// there for.
#include "Poke.h"
#include "Stage.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace Test {
namespace {

struct Totals {
   u64 turns = 0, compactions = 0, sweeps = 0, refused = 0, formats = 0;
};

/// The table that is followed, and one random change of it after the other: phases of growth, of emptying, of
/// overwrites, so that all kinds of turns come about.
class Table {
public:
   Table(Dice& dice, Tessel::Followers& followers, Totals& totals)
      : dice_(dice)
      , followers_(followers)
      , totals_(totals)
      , keys_(3 + dice.below(60)) {
      descriptor_.pruneQueue = dice.oneIn(3);
      start();
   }
   ~Table() { count(); }

   void change() {
      if (dice_.oneIn(20)) mood_ = dice_.below(4);
      u32 const number = dice_.below(keys_);
      Key const any{number * 0x9e3779b1u, number};
      auto const present = [&] {
         if (truth.empty()) return any;
         return std::next(truth.begin(), dice_.below(static_cast<u32>(truth.size())))->first;
      };
      static constexpr u32 writesOfTen[] = {10, 0, 5, 10};
      if (dice_.below(10) < writesOfTen[mood_]) {
         Key const key = mood_ == 3 ? present() : any;
         ++generation_;
         truth.try_emplace(key, Held{generation_, generation_}).first->second.generation = generation_;
         writer->write(R::make(key, generation_), true);
      } else {
         Key const key = mood_ == 1 ? present() : any;
         R removed;
         truth.erase(key);
         writer->remove(key, removed);
      }
   }
   /// All rows are lost; the files stay. As after a crash in the middle of a change.
   void format() {
      count();
      writer.reset();
      truth.clear();
      interrupt("follow");
      start();
      ++totals_.formats;
   }
   std::string complaint() {
      std::string error;
      if (writer->members() != truth.size()) return "the table lost count";
      u32 const mostSlots = Mem::loadShared(writer->slotTable().header().mostSlots);
      if (writer->queue().tesselWriter.count() > Tessel::entriesFor(mostSlots) + Tessel::leastEntries)
         return "the queue outgrew its bound";
      return writer->validate(writer->kestorId(), error, false) ? std::string() : error;
   }

   Truth truth;
   std::unique_ptr<Mirak::MirakWriter<OpsOf<R>>> writer;

private:
   void start() {
      writer = std::make_unique<Mirak::MirakWriter<OpsOf<R>>>(quiet(), "follow", descriptor_);
      writer->initialize("test");
      writer->queue().tesselWriter.followersIs(&followers_);
   }
   void count() {
      totals_.turns += writer->writerCounters().queueTurns;
      totals_.compactions += writer->writerCounters().slotShrinks;
   }
   Dice& dice_;
   Tessel::Followers& followers_;
   Totals& totals_;
   u32 const keys_;
   Mirak::MapDescriptor descriptor_{64};
   u32 mood_ = 0, generation_ = 0;
};

/// One run. @return what went wrong
std::string playOnce(u64 seed, Mistake mistake, bool formats, Totals& totals) {
   Dice dice(seed);
   Stage stage(dice);
   SmallTables const small(2 + dice.below(12));
   std::filesystem::remove_all(testRoot() + "/follow"); // a seed alone gives the same run
   std::vector<std::unique_ptr<Sleeper>> copies;
   Mailbox mailbox(copies, !dice.oneIn(4));
   Table table(dice, mailbox, totals);
   for (u32 n = 1 + dice.below(2); n > 0; --n)
      copies.push_back(std::make_unique<Sleeper>(stage, dice, table.truth, mistake));
   bool done = false;
   stage.add([&] {
      for (u32 change = 50 + dice.below(250); change > 0 && stage.failure.empty(); --change) {
         table.change();
         mailbox.answer(table.writer->sequence(), mistake);
         if (formats && dice.oneIn(80)) {
            table.format();
            mailbox.disconnect();
         }
         stage.muted = true;
         if (std::string const complaint = table.complaint(); !complaint.empty()) stage.fail(complaint);
         stage.muted = false;
         if (dice.oneIn(5)) stage.pause();
      }
      mailbox.answer(table.writer->sequence(), mistake);
      for (auto& copy : copies)
         if (copy->oversleeps(table.writer->sequence())) stage.fail("a follower sleeps through a change");
      done = true;
   });
   for (auto& copy : copies) stage.add([&copy, &done] { copy->follow(done); });
   stage.play();
   for (auto& copy : copies) {
      if (stage.failure.empty()) stage.fail(copy->difference());
      totals.sweeps += copy->sweeps;
      totals.refused += copy->refused;
   }
   return stage.failure;
}

u64 runs(u64 usual) {
   char const* const wanted = std::getenv("HOFLOW_TESSEL_RUNS");
   return wanted ? std::strtoull(wanted, nullptr, 10) : usual;
}

TEST(TesselFollow, EndsWithTheLastStateOfEveryRow) {
   Totals totals;
   for (u64 seed = 1; seed <= runs(150); ++seed)
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
                         testing::Values(Mistake::startAfterTheSweep, Mistake::sweepToTheCapacity,
                                         Mistake::removalNotAsked, Mistake::sleepNotCompared));

} // namespace
} // namespace Test
