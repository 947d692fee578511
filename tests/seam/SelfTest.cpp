// SPDX-License-Identifier: Apache-2.0
// The machinery judged by itself: what the recorder saw, applied to the files of before, gives the files of
// after to the byte. So no store and no file call of any operation goes past the seam.
#include "Live.h"
#include "Scenarios.h"

#include <gtest/gtest.h>

namespace Test {
namespace {

template <class R> void replayEqualsFiles(std::vector<Scenario<R>> const& scenarios) {
   for (auto const& scenario : scenarios) {
      SCOPED_TRACE(scenario.name);
      auto const recording = record(scenario, "self");
      EXPECT_FALSE(recording.events.empty());
      Live live(tableDirectory("replayed"), recording.before, recording.events, true);
      ASSERT_NO_THROW(live.applyTo(recording.events.size()));
      EXPECT_EQ(live.image().difference(recording.after), "");
   }
}

TEST(Recorder, SeesEveryChange) {
   replayEqualsFiles(chainScenarios());
   replayEqualsFiles(bucketScenarios());
   replayEqualsFiles(slotScenarios());
   replayEqualsFiles(compactionScenarios());
   replayEqualsFiles(pairScenarios());
   replayEqualsFiles(lifeScenarios());
   replayEqualsFiles(turnScenarios());
   replayEqualsFiles(compactionScenarios<QueuedWide>());
   replayEqualsFiles(lifeScenarios<QueuedSmall>());
}

TEST(Recorder, SeesEveryChangeWhereTheMappingMoves) {
   Mem::ParcelWrapper::moveAlways = true;
   replayEqualsFiles(bucketScenarios());
   replayEqualsFiles(slotScenarios());
   Mem::ParcelWrapper::moveAlways = false;
}

TEST(Live, RefusesWhatASoundWriterNeverDoes) {
   using Kind = Event::Kind;
   auto const replay = [](Events events) {
      events.insert(events.begin(), {.kind = Kind::create, .file = "f"});
      Live(tableDirectory("replayed"), {}, events, true).applyTo(events.size());
   };
   auto const change = [](Kind kind, std::uint64_t offset, std::uint64_t length) {
      return Event{.kind = kind, .file = "f", .offset = offset, .length = length, .bytes = "1234"};
   };
   Event const store = change(Kind::store, 4100, 4), punch = change(Kind::punch, 4096, 8192);
   EXPECT_NO_THROW(replay({change(Kind::allocate, 0, 4104), store}));
   EXPECT_THROW(replay({change(Kind::allocate, 0, 4100), store}), std::logic_error) << "beyond the end";
   EXPECT_THROW(replay({change(Kind::allocate, 0, 12288), punch, store}), std::logic_error) << "into a hole";
   EXPECT_NO_THROW(replay({change(Kind::allocate, 0, 12288), punch, change(Kind::allocate, 4096, 8), store}));
}

} // namespace
} // namespace Test
