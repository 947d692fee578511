// SPDX-License-Identifier: Apache-2.0
// The readers' operations against the writer's, in every schedule. HOFLOW_SCHEDULE_STEP=1 takes every change
// of the long formatting runs, too, and doubles the tables on which two stops are tried; the ordinary run
// thins those out.
#include "Campaign.h"

#include <gtest/gtest.h>

namespace Test {
namespace {

void expectClean(Report const& report, std::string const& name) {
   EXPECT_GT(report.schedules, 0u) << name;
   for (std::size_t i = 0; i < report.violations.size() && i < 5; ++i) ADD_FAILURE() << report.violations[i];
}

template <class R>
Report everyStop(Scenario<R> const& scenario, Recording<R> const& recording, std::size_t step,
                 bool opening = true, bool others = true) {
   Campaign<R> campaign(scenario, recording);
   if (others)
      for (auto const& operation : campaign.operations()) campaign.oneStop(operation, step);
   if (opening) campaign.oneStop(campaign.opening(), step);
   Report const report = campaign.finish();
   expectClean(report, scenario.name);
   return report;
}

template <class R> Report oneStopAll(std::vector<Scenario<R>> const& scenarios, std::size_t step = 1) {
   Report total;
   for (auto const& scenario : scenarios) total.add(everyStop(scenario, record(scenario, "recorded"), step));
   return total;
}

TEST(Schedules, Chains) {
   auto const total = oneStopAll(chainScenarios());
   EXPECT_GT(total.schedules, 50000u);
   EXPECT_GT(total.counters.retries, 0u);
   EXPECT_GT(total.counters.lookasideReads, 0u);
   EXPECT_GT(total.counters.nextSlowPath, 0u);
}

TEST(Schedules, Buckets) {
   auto const total = oneStopAll(bucketScenarios());
   EXPECT_GT(total.schedules, 10000u);
   EXPECT_GT(total.counters.buckets.resizes, 0u);
   EXPECT_GT(total.counters.wrapperRetries, 0u);
}

TEST(Schedules, Slots) {
   auto const total = oneStopAll(slotScenarios(), setting("HOFLOW_SCHEDULE_STEP", 2 * slow));
   EXPECT_GT(total.counters.slotResizes, 0u);
   EXPECT_GT(total.counters.buckets.resizes, 0u);
}

TEST(Schedules, Compactions) {
   auto const total = oneStopAll(compactionScenarios(), setting("HOFLOW_SCHEDULE_STEP", 3 * slow));
   EXPECT_GT(total.schedules, 50000u / slow);
   EXPECT_GT(total.counters.slotResizes, 0u);
   EXPECT_GT(total.counters.wrapperRetries, 0u);
   auto const again =
       oneStopAll(std::vector{compactAndGrowAgain()}, setting("HOFLOW_SCHEDULE_STEP", 7 * slow));
   EXPECT_GT(again.counters.slotResizes, 0u);
}

/// What a shrink cut off is given back a moment later, and readers that are late find zeros there.
TEST(Schedules, HolesBehindTheTable) {
   auto const scenario = bucketScenarios().back();
   auto recording = record(scenario, "recorded");
   for (u32 bucket = 4; bucket < 8; ++bucket)
      recording.events.push_back({.kind = Event::Kind::store,
                                  .file = "buckets",
                                  .offset = sizeof(MirakCore::BucketTableHeader) + bucket * 8,
                                  .length = 8,
                                  .bytes = std::string(8, '\0')});
   everyStop(scenario, recording, 1);

   auto const compacting = compactionScenarios().front();
   auto cut = record(compacting, "recorded");
   using Table = Mirak::SlotTable<OpsOf<Wide>>;
   for (std::size_t page = 4096; page < Table::headerSize + 16 * Table::slotSize; page += 4096)
      cut.events.push_back({.kind = Event::Kind::punch, .file = "slots", .offset = page, .length = 4096});
   everyStop(compacting, cut, 3 * slow);
}

/// A pointer that a reader keeps across a resize is a fault at once.
TEST(Schedules, WhereMappingsMove) {
   Mem::ParcelWrapper::moveAlways = true;
   auto const buckets = oneStopAll(bucketScenarios());
   auto const slots = oneStopAll(std::vector{slotScenarios().back()}, 11 * slow);
   Mem::ParcelWrapper::moveAlways = false;
   EXPECT_GT(buckets.counters.buckets.resizes, 0u);
   EXPECT_GT(slots.counters.slotResizes, 0u);
}

TEST(Schedules, TwoActs) {
   auto const total = oneStopAll(pairScenarios());
   EXPECT_GT(total.schedules, 50000u);
   EXPECT_GT(total.counters.retries, 0u);
}

/// Readers that had the table open when its writer died.
TEST(Schedules, StartsUnderReaders) {
   std::size_t const step = setting("HOFLOW_SCHEDULE_STEP", 13 * slow);
   for (bool seeded : {false, true}) {
      Key::seeded = seeded;
      Report total;
      for (auto const& scenario : lifeScenarios()) {
         bool const open = scenario.name == "re-format: died inside an operation" ||
                           scenario.name == "restart, adopt" ||
                           scenario.name == "re-format: damaged owner file";
         total.add(everyStop(scenario, record(scenario, "recorded"), step, true, open));
      }
      EXPECT_GT(total.reformats, 1000u / slow);
      EXPECT_GT(total.refusals, 1000u / slow);
      Key::seeded = false;
   }
}

/// A writer dies in an operation, the next one formats the table anew and stores the same row again, in the
/// same slot, under a reader that stood in the middle of it.
TEST(Schedules, CrashAndTheSameRowAgain) {
   std::size_t const step = setting("HOFLOW_SCHEDULE_STEP", 13 * slow);
   Scenario<Small> const over{
       "overwrite", fixedOf(2), holding<Small>(2, {twin(1), twin(2)}), {puts<Small>(twin(1))}};
   for (bool seeded : {false, true}) {
      Key::seeded = seeded;
      auto const dying = record(over, "dying");
      for (std::size_t at = 1; at < dying.events.size(); ++at) {
         Live dead(tableDirectory("dead"), dying.before, dying.events);
         dead.applyTo(at);
         Image const left = dead.image();
         Content const visible = dying.contents[0];
         Scenario<Small> const again{fmt::format("a start after dying at {} of an overwrite", at),
                                     fixedOf(2),
                                     [&](Bench<Small>& b) {
                                        left.store(b.directory());
                                        b.content = visible;
                                     },
                                     {starts<Small>(), puts<Small>(twin(1)), puts<Small>(twin(1))},
                                     true};
         auto recording = record(again, "recorded");
         // The dead writer left one of two rows visible, until the first store of the new one.
         auto const isStore = [](Event const& event) { return event.kind == Event::Kind::store; };
         auto const store = std::find_if(recording.events.begin(), recording.events.end(), isStore);
         recording.contents.insert(recording.contents.begin() + 1, dying.contents[1]);
         recording.ends.insert(recording.ends.begin(),
                               static_cast<std::size_t>(store - recording.events.begin()) + 1);
         recording.uncertain = 1;
         EXPECT_GT(everyStop(again, recording, step, false).reformats, 0u);
      }
      Key::seeded = false;
   }
}

TEST(Schedules, TwoStops) {
   Report total;
   auto scenarios = chainScenarios();
   for (auto const& more : {pairScenarios(), bucketScenarios()})
      scenarios.insert(scenarios.end(), more.begin(), more.end());
   std::size_t const longest = setting("HOFLOW_SCHEDULE_STEP", 7) == 1 ? 1000 : slow == 1 ? 24 : 12;
   for (auto const& scenario : scenarios) {
      auto const recording = record(scenario, "recorded");
      if (recording.events.size() > longest) continue;
      Campaign<Small> campaign(scenario, recording);
      for (auto const& operation : campaign.operations())
         if (operation.name != "walk" && operation.name != "get every slot") campaign.twoStops(operation);
      Report const part = campaign.finish();
      expectClean(part, scenario.name);
      total.add(part);
   }
   EXPECT_GT(total.schedules, 1000000u / slow / slow);
   EXPECT_GT(total.counters.retries, 0u);
   EXPECT_GT(total.counters.lookasideReads, 0u);
   EXPECT_GT(total.counters.buckets.resizes, 0u);
}

/// The hinted row is moved between the loads of its link and of its word, and the row behind it after both.
TEST(Schedules, TwoStopsOfAStepInACompaction) {
   auto const scenario = compactionScenarios().front();
   auto const recording = record(scenario, "recorded");
   Campaign<Wide> campaign(scenario, recording);
   for (auto const& operation : campaign.operations())
      if (operation.name.starts_with("next by hint")) campaign.twoStops(operation, 1);
   Report const report = campaign.finish();
   expectClean(report, scenario.name);
   EXPECT_GT(report.counters.nextSlowPath, 0u);
}

} // namespace
} // namespace Test
