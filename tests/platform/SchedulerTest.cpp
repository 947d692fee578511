// SPDX-License-Identifier: Apache-2.0
// The scheduler driven as an agent drives it: through its one descriptor, and from the middle of a long
// operation.
#include "Lomi/Exception.h"
#include "Loop.h"
#include "Scratch.h"

#include <gtest/gtest.h>

#include <array>

using Lomi::TaskPriority;
using Test::driveUntil, Test::loop, Test::now;

namespace {

void spin(double seconds) {
   for (double const end = now() + seconds; now() < end;) {
   }
}

} // namespace

TEST(Scheduler, EveryKindRunsThroughTheDescriptor) {
   for (auto priority : {TaskPriority::normal, TaskPriority::critical}) {
      int deferred = 0, timed = 0, beats = 0;
      std::uint32_t seen = 0;
      auto const a = loop().deferredTask([&] { ++deferred; }, priority);
      auto const b = loop().timerTask(
          0.02, [&] { ++timed; }, priority);
      auto const c = loop().timerTask(
          0.01, [&] { ++beats; }, priority, 0.01);
      int ends[2];
      ASSERT_EQ(::pipe(ends), 0);
      auto const d = loop().descriptorTask(
          ends[0], EPOLLIN,
          [&](std::uint32_t events) {
             char byte;
             ASSERT_EQ(::read(ends[0], &byte, 1), 1);
             seen |= events;
          },
          priority);
      ASSERT_EQ(::write(ends[1], "x", 1), 1);
      EXPECT_TRUE(driveUntil([&] { return deferred && timed && beats > 3 && seen; }));
      EXPECT_EQ(deferred, 1);
      EXPECT_EQ(timed, 1);
      EXPECT_EQ(seen, static_cast<std::uint32_t>(EPOLLIN));
      EXPECT_FALSE(a.active());
      EXPECT_FALSE(b.active());
      EXPECT_TRUE(c.active() && d.active());
      ::close(ends[0]);
      ::close(ends[1]);
   }
}

TEST(Scheduler, ADelayCountsFromTheCallNotFromTheLastRound) {
   loop().run(0);
   spin(0.05); // the loop's own clock is now late
   double const start = now();
   double ran = 0;
   auto const task = loop().timerTask(0.03, [&] { ran = now(); });
   EXPECT_TRUE(driveUntil([&] { return ran > 0; }));
   EXPECT_GE(ran - start, 0.0299);
}

// A new task makes the loop look at its sources; what it finds there on the way must stay visible outside.
TEST(Scheduler, ATimerThatIsDueWhenAnotherIsAddedIsNotForgotten) {
   bool ran = false;
   auto const due = loop().timerTask(0.001, [&] { ran = true; });
   spin(0.01);
   auto const late = loop().timerTask(1000, [] {});
   EXPECT_TRUE(driveUntil([&] { return ran; }));
}

TEST(Scheduler, MissedBeatsAreNotMadeUpFor) {
   int beats = 0;
   auto const task = loop().timerTask(
       0.01, [&] { ++beats; }, TaskPriority::normal, 0.01);
   spin(0.5);
   loop().dispatch();
   EXPECT_GE(beats, 1);
   EXPECT_LE(beats, 5);
}

// Tasks without end, each of a few milliseconds: whoever dispatches gets the processor back, and all go on.
TEST(Scheduler, ARoundEndsThoughThereIsWork) {
   std::array<int, 40> ran{};
   std::array<Lomi::Task, 40> tasks;
   std::function<void(std::size_t)> again = [&](std::size_t n) {
      tasks[n] = loop().deferredTask([&, n] {
         spin(0.005);
         ++ran[n];
         again(n);
      });
   };
   for (std::size_t n = 0; n < tasks.size(); ++n) again(n);
   EXPECT_TRUE(loop().dispatch());
   EXPECT_GT(ran.front(), 0);
   EXPECT_EQ(ran.back(), 0) << "all 40 of 5 ms in one round of 50 ms";
   EXPECT_TRUE(driveUntil([&] { return ran.back() > 1; }));
}

TEST(Scheduler, ABusyLoopRunsCriticalTasksAndNoOthers) {
   int critical = 0, normal = 0;
   auto const beat = loop().timerTask(
       0.005, [&] { ++critical; }, TaskPriority::critical, 0.005);
   auto const other = loop().timerTask(0.001, [&] { ++normal; });
   auto const deferred = loop().deferredTask([&] { ++normal; });
   for (double const end = now() + 10; critical < 5 && now() < end;) {
      spin(0.001);
      loop().runCriticalPriorityTasks();
   }
   EXPECT_GE(critical, 5);
   EXPECT_EQ(normal, 0);
   EXPECT_TRUE(driveUntil([&] { return normal == 2; }));
}

TEST(Scheduler, TheHookWorksInsideANormalTaskAndNotInsideACriticalOne) {
   int critical = 0, depth = 0, deepest = 0;
   auto const beat = loop().timerTask(
       0,
       [&] {
          deepest = std::max(deepest, ++depth);
          ++critical;
          loop().runCriticalPriorityTasks();
          --depth;
       },
       TaskPriority::critical, 0.001);
   bool grown = false;
   auto const grow = loop().timerTask(0.002, [&] {
      int const before = critical;
      for (int i = 0; i < 50; ++i) {
         spin(0.001);
         loop().runCriticalPriorityTasks();
      }
      EXPECT_GT(critical, before + 5);
      grown = true;
   });
   EXPECT_TRUE(driveUntil([&] { return grown; }));
   EXPECT_EQ(deepest, 1);
   int const after = critical;
   EXPECT_TRUE(driveUntil([&] { return critical > after + 3; })) << "the loop is armed after the long task";
}

TEST(Scheduler, ExceptionsLeaveNormalTasksOnly) {
   std::vector<std::string> logged;
   Lomi::Platform::traceSinkIs([&](unsigned level, auto, auto, std::string_view text) {
      if (level == 0) logged.emplace_back(text);
   });
   auto const critical =
       loop().deferredTask([] { throw Lomi::RuntimeException("inside"); }, TaskPriority::critical);
   EXPECT_NO_THROW(loop().runCriticalPriorityTasks());
   ASSERT_EQ(logged.size(), 1u);
   EXPECT_EQ(logged[0], "critical task threw: inside");
   int later = 0;
   auto const normal = loop().deferredTask([] { throw Lomi::RuntimeException("outside"); });
   auto const next = loop().deferredTask([&] { ++later; });
   EXPECT_THROW(loop().dispatch(), Lomi::RuntimeException);
   EXPECT_EQ(later, 1);
   EXPECT_NO_THROW(loop().dispatch());
   Lomi::Platform::traceSinkIs({});
}

TEST(Scheduler, TasksMayEndAnywhere) {
   Lomi::Task outlives;
   std::thread([&] {
      int ran = 0;
      Lomi::Task self;
      // The captured text would be read after it is gone if the function went with its handle.
      self = loop().timerTask(
          0,
          [&self, &ran, text = std::string(100, 'x')] {
             self.cancel();
             ran += static_cast<int>(text.size());
          },
          TaskPriority::normal, 0.001);
      auto cancelled = loop().deferredTask([&] { ran += 1000; });
      cancelled.cancel();
      EXPECT_TRUE(driveUntil([&] { return ran != 0; }));
      spin(0.005);
      loop().dispatch();
      EXPECT_EQ(ran, 100);
      outlives = loop().timerTask(
          0, [&] { ran = 0; }, TaskPriority::critical);
   }).join();
   EXPECT_TRUE(outlives.active());
   outlives.cancel();
}

TEST(Scheduler, AForkedChildHasItsOwnRoot) {
   int ran = 0;
   auto task = loop().deferredTask([&] { ran = 1; }, TaskPriority::critical);
   EXPECT_EQ(Child([&] {
                loop().runCriticalPriorityTasks();
                int mine = 0;
                auto const own = loop().timerTask(0.001, [&] { mine = 1; });
                task.cancel();
                bool const good = driveUntil([&] { return mine == 1; });
                return good && ran == 0 ? 0 : 1;
             }).wait(),
             0);
   EXPECT_TRUE(driveUntil([&] { return ran == 1; }));
}
