// SPDX-License-Identifier: Apache-2.0
// The machinery judged by itself: what the recorder saw, applied to the files of before, gives the files of
// after to the byte. So no store and no file call of any operation goes past the seam.
#include "Scenarios.h"

#include <gtest/gtest.h>

namespace Test {
namespace {

template <class R> void replayEqualsFiles(std::vector<Scenario<R>> const& scenarios) {
   for (auto const& scenario : scenarios) {
      SCOPED_TRACE(scenario.name);
      auto const recording = record(scenario, "self");
      EXPECT_FALSE(recording.events.empty());
      Image image = recording.before;
      ASSERT_NO_THROW(image.apply(recording.events, 0, recording.events.size()));
      EXPECT_EQ(image.difference(recording.after), "");
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

TEST(Image, RefusesWhatASoundWriterNeverDoes) {
   using Kind = Event::Kind;
   Image image;
   image.apply({Kind::create, "f"});
   image.apply({.kind = Kind::allocate, .file = "f", .offset = 0, .length = 4100});
   Event store{.kind = Kind::store, .file = "f", .offset = 4096, .length = 4, .bytes = "1234"};
   EXPECT_NO_THROW(image.apply(store));
   store.offset = 4100;
   EXPECT_THROW(image.apply(store), std::logic_error) << "beyond the end";
   image.apply({.kind = Kind::allocate, .file = "f", .offset = 0, .length = 12288});
   image.apply({.kind = Kind::punch, .file = "f", .offset = 4096, .length = 8192});
   EXPECT_THROW(image.apply(store), std::logic_error) << "into a hole";
   image.apply({.kind = Kind::allocate, .file = "f", .offset = 4096, .length = 8});
   EXPECT_NO_THROW(image.apply(store));
}

} // namespace
} // namespace Test
