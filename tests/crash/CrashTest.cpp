// SPDX-License-Identifier: Apache-2.0
// Each store and each file call of each operation as the last one before a crash. The files of that moment go
// to
//   1. a reader, before anybody else: right answers of before or after the operation, or, only where a table
//   was
//      just being opened, formatted or removed, a refusal;
//   2. the next writer: it adopts every row as it was before or after, under the generation that the kestor
//   file
//      named, or it formats the table anew under one that was never published; afterwards the table works;
//   3. where it formats, also a third writer, after the second one died at each of its own changes.
#include "Judge.h"
#include "Scenarios.h"

#include <gtest/gtest.h>

namespace Test {
namespace {

/// Ends a reader that takes more loads than any walk of these tables needs.
class LoadLimit : public Mem::Seam::Observer {
public:
   LoadLimit()
      : outer_(Mem::Seam::observer) {
      Mem::Seam::observer = this;
   }
   ~LoadLimit() override { Mem::Seam::observer = outer_; }
   void beforeLoad(void const*, std::size_t) override {
      if (++loads > 200000) throw Endless("the reader doesn't end");
   }
   std::size_t loads = 0;

private:
   Mem::Seam::Observer* outer_;
};

struct Tally {
   std::size_t points = 0, adopted = 0, formatted = 0, refused = 0, second = 0;
   void print(std::string const& name) const {
      fmt::print("{:45} {:4} points: adopted {}, formatted {}, reader refused {}; second crashes {}\n", name,
                 points, adopted, formatted, refused, second);
   }
};

/// Where to cut twice: around each file call, and at every `step`th store.
std::vector<std::size_t> someCuts(Events const& events, std::size_t step) {
   std::vector<std::size_t> cuts;
   auto const call = [&](std::size_t i) { return i < events.size() && events[i].kind != Event::Kind::store; };
   for (std::size_t i = 0; i <= events.size(); ++i)
      if (i % step == 0 || i == events.size() || call(i) || (i > 0 && call(i - 1))) cuts.push_back(i);
   return cuts;
}

/// A reader on what a dead writer left.
template <class R>
void readerJudges(std::string const& table, Recording<R> const& recording, std::size_t at, bool mayRefuse,
                  Tally& tally) {
   LoadLimit const limit;
   Mirak::MirakReader<OpsOf<R>> reader(quiet(), table, {});
   auto const lowest = recording.lowest(at), highest = recording.highest(at);
   try {
      if (!reader.initialize("test")) {
         ++tally.refused;
         EXPECT_TRUE(mayRefuse) << reader.initializeError();
         return;
      }
      Judge<R> const judge(recording.contents, lowest, highest, reader.headerCopy().hashSeed);
      for (Key key : keysOf(recording.contents)) {
         bool found = false;
         R row;
         R const seen = *reader.lookup(key, found, &row);
         EXPECT_EQ(judge.lookup(key, found, seen), "");
      }
      EXPECT_EQ(judge.walk(walkAll<R>(reader)), "");
   } catch (Lomi::CorruptionDetectedException const& e) {
      ADD_FAILURE() << "an opened table must be readable: " << e.what();
   }
}

/// What the files of a crash may become.
struct Rule {
   std::vector<Content> adoptable = {}; ///< under the generation `kestor`
   u32 kestor = 0;                      ///< as the kestor file named it
   std::set<u32> published = {};        ///< all that were ever valid
};

/// The next start on the table's directory. @return its changes
template <class R>
Events startJudges(std::string const& table, Mirak::MapDescriptor const& descriptor, Rule const& rule,
                   Tally& tally) {
   Mirak::MirakWriter<OpsOf<R>> writer(quiet(), table.c_str(), descriptor);
   Recorder recorder(tableDirectory(table));
   recorder.watch(
       {{"slots", &writer.slotTable().wrapper()}, {"buckets", &writer.hashMap().buckets().wrapper()}});
   EXPECT_NO_THROW(writer.initialize("test"));
   recorder.stop();
   if (!writer.initialized()) return recorder.events;
   u32 const kestor = writer.kestorId().value(), seed = Mem::loadShared(writer.slotTable().header().hashSeed);
   EXPECT_NE(kestor, 0u);
   if (kestor == rule.kestor) {
      ++tally.adopted;
      std::string wrong = "nothing may be adopted here";
      for (Content const& content : rule.adoptable)
         if ((wrong = judgeAll<R>(writer, content, seed)).empty()) break;
      EXPECT_EQ(wrong, "");
   } else {
      ++tally.formatted;
      EXPECT_EQ(judgeAll<R>(writer, {}, seed), "");
      EXPECT_FALSE(rule.published.count(kestor)) << "a generation that was valid before";
   }
   EXPECT_TRUE(writer.validate());
   EXPECT_FALSE(std::filesystem::exists(tableDirectory(table) + "/corruption-detected"));
   // And it works: one more row, or another one where the table is full.
   auto rows = walkAll<R>(writer);
   Key const fresh{3, 50};
   if (rows.size() >= descriptor.size) {
      R removed;
      EXPECT_TRUE(writer.remove(rows.back().key(), removed));
      rows.pop_back();
   }
   Content content{{fresh, 1000}};
   for (R const& row : rows) content[row.key()] = row.generation();
   writer.write(R::make(fresh, 1000), true);
   Mirak::MirakReader<OpsOf<R>> reader(quiet(), table, {});
   EXPECT_TRUE(reader.initialize("test")) << reader.initializeError();
   EXPECT_EQ(judgeAll<R>(reader, content, seed), "");
   return recorder.events;
}

template <class R> Rule ruleAt(Recording<R> const& recording, Image const& image, std::size_t at) {
   Rule rule{.kestor = kestorOf(image), .published = {kestorOf(recording.before), kestorOf(image)}};
   // A generation that the operation itself published has what the operation left.
   std::size_t const from =
       rule.kestor == kestorOf(recording.before) ? recording.lowest(at) : recording.contents.size() - 1;
   for (std::size_t i = from; i <= std::max(from, recording.highest(at)); ++i)
      rule.adoptable.push_back(recording.contents[i]);
   return rule;
}

/// Every cut of every scenario; where `twice`, the second start is cut, too.
template <class R> void crashEverywhere(std::vector<Scenario<R>> const& scenarios, bool twice) {
   for (auto const& scenario : scenarios) {
      Recording<R> const recording = record(scenario, "recorded");
      // HOFLOW_CRASH_STEP=1: every pair of crashes, for an hour's run.
      std::size_t const step = setting("HOFLOW_CRASH_STEP", 17 * slow);
      auto const secondCuts = someCuts(recording.events, step);
      Tally tally;
      Image image = recording.before;
      for (std::size_t at = 0; at <= recording.events.size(); ++at) {
         SCOPED_TRACE(fmt::format("{}: died before change {} of {}: {}", scenario.name, at,
                                  recording.events.size(),
                                  at < recording.events.size() ? recording.events[at].text() : "none"));
         if (at > 0) image.apply(recording.events[at - 1]);
         ++tally.points;
         image.store(tableDirectory("judged"));
         readerJudges(std::string("judged"), recording, at, scenario.restarts, tally);
         std::filesystem::remove(tableDirectory("judged") + "/corruption-detected");
         Rule const rule = ruleAt(recording, image, at);
         Events const recovery = startJudges<R>("judged", scenario.descriptor, rule, tally);
         if (!twice || !std::binary_search(secondCuts.begin(), secondCuts.end(), at)) continue;
         Image again = image;
         std::size_t done = 0;
         for (std::size_t cut : someCuts(recovery, std::max<std::size_t>(1, step - 2))) {
            SCOPED_TRACE(fmt::format("and its successor before change {} of {}", cut, recovery.size()));
            again.apply(recovery, done, cut);
            done = cut;
            again.store(tableDirectory("judged"));
            Rule next = rule;
            if (u32 const kestor = kestorOf(again); kestor != rule.kestor) {
               next.kestor = kestor;
               next.published.insert(kestor);
               next.adoptable = {Content{}};
            }
            startJudges<R>("judged", scenario.descriptor, next, tally);
            ++tally.second;
            if (testing::Test::HasFailure()) return;
         }
         if (testing::Test::HasFailure()) return; // one broken point is enough to look at
      }
      tally.print(scenario.name);
      EXPECT_GT(tally.adopted, 0u) << scenario.name;
   }
}

TEST(Crash, InChains) { crashEverywhere(chainScenarios(), false); }
TEST(Crash, InBucketResizes) { crashEverywhere(bucketScenarios(), false); }
TEST(Crash, InSlotGrowth) { crashEverywhere(slotScenarios(), false); }
TEST(Crash, BetweenOperations) { crashEverywhere(pairScenarios(), false); }
TEST(Crash, InStartsAndEnds) { crashEverywhere(lifeScenarios(), true); }

} // namespace
} // namespace Test
