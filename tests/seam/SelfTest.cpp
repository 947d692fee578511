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

/// A pointer that is kept across a resize leads to a place that can't be read.
TEST(MoveAlways, TheBaseMovesAtEachResize) {
   using Mem::Mode, Mem::ParcelWrapper;
   testRoot();
   ParcelWrapper::moveAlways = true;
   for (bool local : {false, true}) {
      Mem::NaoRootPath const path(quiet(), "t", local);
      ParcelWrapper writer(quiet(), path, "slots", local);
      ASSERT_NE(writer.attach(4096, Mode::writer), nullptr);
      std::strcpy(writer.base(), "kept");
      ParcelWrapper reader(quiet(), path, "slots", local);
      if (!local) {
         ASSERT_NE(reader.attach(4096, Mode::reader), nullptr);
      }
      for (Mem::u64 size : {8192u, 8192u, 100000u, 4096u, 400000u}) {
         char const* const before = writer.base();
         ASSERT_NE(writer.resize(size), nullptr);
         EXPECT_NE(writer.base(), before);
         EXPECT_STREQ(writer.base(), "kept");
         writer.base()[size - 1] = 'e';
         if (local) continue;
         char const* const seen = reader.base();
         ASSERT_NE(reader.resize(size), nullptr);
         EXPECT_NE(reader.base(), seen);
         EXPECT_EQ(reader.base()[size - 1], 'e');
         // The place that a stale pointer would lead to can't be read.
         int ends[2];
         ASSERT_EQ(::pipe(ends), 0);
         EXPECT_EQ(::write(ends[1], before, 1), -1);
         EXPECT_EQ(errno, EFAULT);
         ::close(ends[0]);
         ::close(ends[1]);
      }
   }
   ParcelWrapper::moveAlways = false;
}

} // namespace
} // namespace Test
