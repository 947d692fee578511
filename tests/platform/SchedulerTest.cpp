// SPDX-License-Identifier: Apache-2.0
// The scheduler driven as an agent drives it: through its one descriptor, and from the middle of a long
// operation. Each test runs in a thread of its own, because a root belongs to its thread.
#include "Lomi/TaskSchedulerRoot.h"

#include "Lomi/Exception.h"
#include "Scratch.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <sys/epoll.h>
#include <thread>
#include <vector>

using Lomi::TaskPriority;
using Lomi::TaskSchedulerRoot;
using Clock = std::chrono::steady_clock;

namespace {

double since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// The agent's loop: dispatches only when its own epoll says so. A task that isn't visible in fd() never runs.
bool driveUntil(std::function<bool()> const& done, double limit = 20) {
   auto& root = TaskSchedulerRoot::root();
   int const epoll = ::epoll_create1(EPOLL_CLOEXEC);
   epoll_event event{};
   event.events = EPOLLIN;
   ::epoll_ctl(epoll, EPOLL_CTL_ADD, root.fd(), &event);
   auto const start = Clock::now();
   while (!done() && since(start) < limit)
      if (::epoll_wait(epoll, &event, 1, 100) == 1) root.dispatch();
   ::close(epoll);
   return done();
}

void inThread(std::function<void()> const& body) { std::thread(body).join(); }

void spin(double seconds) {
   auto const start = Clock::now();
   while (since(start) < seconds) {
   }
}

} // namespace

TEST(Scheduler, EveryKindRunsThroughTheDescriptor) {
   for (auto priority : {TaskPriority::normal, TaskPriority::critical})
      inThread([priority] {
         auto& root = TaskSchedulerRoot::root();
         int deferred = 0, timed = 0, beats = 0;
         std::uint32_t seen = 0;
         auto const a = root.deferredTask([&] { ++deferred; }, priority);
         auto const b = root.timerTask(
             0.02, [&] { ++timed; }, priority);
         auto const c = root.timerTask(
             0.01, [&] { ++beats; }, priority, 0.01);
         int ends[2];
         ASSERT_EQ(::pipe(ends), 0);
         auto const d = root.descriptorTask(
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
      });
}

TEST(Scheduler, ADelayCountsFromTheCallNotFromTheLastRound) {
   inThread([] {
      auto& root = TaskSchedulerRoot::root();
      root.run(0);
      spin(0.05); // the loop's own clock is now late
      auto const start = Clock::now();
      double ran = 0;
      auto const task = root.timerTask(0.03, [&] { ran = since(start); });
      EXPECT_TRUE(driveUntil([&] { return ran > 0; }));
      EXPECT_GE(ran, 0.0299);
   });
}

// A new task makes the loop look at its sources; what it finds there on the way must stay visible outside.
TEST(Scheduler, ATimerThatIsDueWhenAnotherIsAddedIsNotForgotten) {
   inThread([] {
      auto& root = TaskSchedulerRoot::root();
      bool ran = false;
      auto const due = root.timerTask(0.001, [&] { ran = true; });
      spin(0.01);
      auto const late = root.timerTask(1000, [] {});
      EXPECT_TRUE(driveUntil([&] { return ran; }));
   });
}

TEST(Scheduler, MissedBeatsAreNotMadeUpFor) {
   inThread([] {
      auto& root = TaskSchedulerRoot::root();
      int beats = 0;
      auto const task = root.timerTask(
          0.01, [&] { ++beats; }, TaskPriority::normal, 0.01);
      spin(0.5);
      root.dispatch();
      EXPECT_GE(beats, 1);
      EXPECT_LE(beats, 5);
   });
}

// Tasks without end, each of a few milliseconds: whoever dispatches gets the processor back, and all go on.
TEST(Scheduler, ARoundEndsThoughThereIsWork) {
   inThread([] {
      auto& root = TaskSchedulerRoot::root();
      std::array<int, 40> ran{};
      std::array<Lomi::Task, 40> tasks;
      std::function<void(std::size_t)> again = [&](std::size_t n) {
         tasks[n] = root.deferredTask([&, n] {
            spin(0.005);
            ++ran[n];
            again(n);
         });
      };
      for (std::size_t n = 0; n < tasks.size(); ++n) again(n);
      EXPECT_TRUE(root.dispatch());
      EXPECT_GT(ran.front(), 0);
      EXPECT_EQ(ran.back(), 0) << "all 40 of 5 ms in one round of 50 ms";
      EXPECT_TRUE(driveUntil([&] { return ran.back() > 1; }));
   });
}

TEST(Scheduler, ABusyLoopRunsCriticalTasksAndNoOthers) {
   inThread([] {
      auto& root = TaskSchedulerRoot::root();
      int critical = 0, normal = 0;
      auto const beat = root.timerTask(
          0.005, [&] { ++critical; }, TaskPriority::critical, 0.005);
      auto const other = root.timerTask(0.001, [&] { ++normal; });
      auto const deferred = root.deferredTask([&] { ++normal; });
      auto const start = Clock::now();
      while (critical < 5 && since(start) < 10) {
         spin(0.001);
         root.runCriticalPriorityTasks();
      }
      EXPECT_GE(critical, 5);
      EXPECT_EQ(normal, 0);
      EXPECT_TRUE(driveUntil([&] { return normal == 2; }));
   });
}

TEST(Scheduler, TheHookWorksInsideANormalTaskAndNotInsideACriticalOne) {
   inThread([] {
      auto& root = TaskSchedulerRoot::root();
      int critical = 0, depth = 0, deepest = 0;
      auto const beat = root.timerTask(
          0,
          [&] {
             deepest = std::max(deepest, ++depth);
             ++critical;
             root.runCriticalPriorityTasks();
             --depth;
          },
          TaskPriority::critical, 0.001);
      bool grown = false;
      auto const grow = root.timerTask(0.002, [&] {
         int const before = critical;
         for (int i = 0; i < 50; ++i) {
            spin(0.001);
            root.runCriticalPriorityTasks();
         }
         EXPECT_GT(critical, before + 5);
         grown = true;
      });
      EXPECT_TRUE(driveUntil([&] { return grown; }));
      EXPECT_EQ(deepest, 1);
      int const after = critical;
      EXPECT_TRUE(driveUntil([&] { return critical > after + 3; }))
          << "the loop is armed after the long task";
   });
}

TEST(Scheduler, ExceptionsLeaveNormalTasksOnly) {
   inThread([] {
      auto& root = TaskSchedulerRoot::root();
      std::vector<std::string> logged;
      Lomi::Platform::traceSinkIs([&](unsigned level, auto, auto, std::string_view text) {
         if (level == 0) logged.emplace_back(text);
      });
      auto const critical =
          root.deferredTask([] { throw Lomi::RuntimeException("inside"); }, TaskPriority::critical);
      EXPECT_NO_THROW(root.runCriticalPriorityTasks());
      ASSERT_EQ(logged.size(), 1u);
      EXPECT_EQ(logged[0], "critical task threw: inside");
      int later = 0;
      auto const normal = root.deferredTask([] { throw Lomi::RuntimeException("outside"); });
      auto const next = root.deferredTask([&] { ++later; });
      EXPECT_THROW(root.dispatch(), Lomi::RuntimeException);
      EXPECT_EQ(later, 1);
      EXPECT_NO_THROW(root.dispatch());
      Lomi::Platform::traceSinkIs({});
   });
}

TEST(Scheduler, TasksMayEndAnywhere) {
   Lomi::Task outlives;
   inThread([&] {
      auto& root = TaskSchedulerRoot::root();
      int ran = 0;
      Lomi::Task self;
      // The captured text would be read after it is gone if the function went with its handle.
      self = root.timerTask(
          0,
          [&self, &ran, text = std::string(100, 'x')] {
             self.cancel();
             ran += static_cast<int>(text.size());
          },
          TaskPriority::normal, 0.001);
      auto cancelled = root.deferredTask([&] { ran += 1000; });
      cancelled.cancel();
      EXPECT_TRUE(driveUntil([&] { return ran != 0; }));
      spin(0.005);
      root.dispatch();
      EXPECT_EQ(ran, 100);
      outlives = root.timerTask(
          0, [&] { ran = 0; }, TaskPriority::critical);
   });
   EXPECT_TRUE(outlives.active());
   outlives.cancel();
}

TEST(Scheduler, AForkedChildHasItsOwnRoot) {
   int ran = 0;
   auto task = TaskSchedulerRoot::root().deferredTask([&] { ran = 1; }, TaskPriority::critical);
   EXPECT_EQ(Child([&] {
                auto& root = TaskSchedulerRoot::root();
                root.runCriticalPriorityTasks();
                int mine = 0;
                auto const own = root.timerTask(0.001, [&] { mine = 1; });
                task.cancel();
                bool const good = driveUntil([&] { return mine == 1; });
                return good && ran == 0 ? 0 : 1;
             }).wait(),
             0);
   EXPECT_TRUE(driveUntil([&] { return ran == 1; }));
}
