// SPDX-License-Identifier: Apache-2.0
// Two sd-event loops. The inner one, for critical tasks, is a descriptor source of the outer one. sd-event
// sets its timers only in sd_event_prepare, and shows deferred work nowhere outside; so each loop is left
// "armed" (prepared) whenever control goes back to the agent, and has an event descriptor that is raised when
// something waits that epoll can't see. That is what makes fd() tell the whole truth.
#include "Lomi/TaskSchedulerRoot.h"

#include "Lomi/Exception.h"
#include "Lomi/Fork.h"
#include "Lomi/PerThread.h"
#include "Lomi/Trace.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <deque>
#include <exception>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <systemd/sd-event.h>
#include <unistd.h>

namespace Lomi {
namespace Impl {

class Loop;

struct TaskState : std::enable_shared_from_this<TaskState> {
   std::shared_ptr<Loop> loop; // holds the loop as long as the task
   sd_event_source* source = nullptr;
   std::function<void(std::uint32_t)> function;
   std::uint64_t period = 0; // microseconds, 0 for none
   bool live = true;

   ~TaskState() { end(); }
   void end();
};

// One sd-event with its raised flag and its deferred tasks.
class Loop {
public:
   Loop(bool critical, std::uint32_t* count)
      : critical_(critical)
      , count_(count) {
      check(sd_event_new(&event_), "sd_event_new");
      raised_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
      check(raised_ < 0 ? -errno : 0, "eventfd");
      check(sd_event_add_io(event_, nullptr, raised_, EPOLLIN, &Loop::onRaised, this), "sd_event_add_io");
   }
   ~Loop() {
      sd_event_unref(event_);
      ::close(raised_);
   }

   static void check(int result, char const* call) {
      if (result < 0)
         throw RuntimeException(fmt::format("task scheduler: {}: {}", call, std::strerror(-result)));
   }

   sd_event* event() const { return event_; }
   int fd() const { return sd_event_get_fd(event_); }
   bool running() const { return running_; }

   void raise() {
      std::uint64_t const one = 1;
      [[maybe_unused]] auto const written = ::write(raised_, &one, sizeof(one));
   }

   // Prepares the loop, so that its descriptor shows all that will become ready.
   void arm() {
      if (running_) return; // dispatchAll does it at its end
      if (sd_event_get_state(event_) == SD_EVENT_ARMED) sd_event_wait(event_, 0);
      if (sd_event_get_state(event_) == SD_EVENT_INITIAL) sd_event_prepare(event_);
      if (sd_event_get_state(event_) == SD_EVENT_PENDING) raise();
   }

   // Runs what is ready now, at most `limit` tasks, and arms again.
   bool dispatchAll(int limit) {
      if (running_) return false;
      running_ = true;
      auto const before = calls_;
      for (int i = 0; i < limit; ++i) {
         if (sd_event_get_state(event_) == SD_EVENT_INITIAL) sd_event_prepare(event_);
         if (sd_event_get_state(event_) == SD_EVENT_ARMED) sd_event_wait(event_, 0);
         if (sd_event_get_state(event_) != SD_EVENT_PENDING || sd_event_dispatch(event_) < 0) break;
      }
      running_ = false;
      arm();
      if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
      return calls_ != before;
   }

   void defer(std::shared_ptr<TaskState> task) {
      deferred_.push_back(std::move(task));
      raise();
   }

   void called() { ++calls_; }
   void call(TaskState& task, std::uint32_t events) {
      called();
      auto const hold = task.shared_from_this(); // the function may cancel its own task
      try {
         task.function(events);
      } catch (...) {
         if (critical_)
            logFailure();
         else if (!failure_)
            failure_ = std::current_exception();
      }
   }

   // The owner's count of tasks, by which an empty loop is skipped without a call.
   void count(int change) {
      if (count_) *count_ += static_cast<std::uint32_t>(change);
   }
   void ownerGone() { count_ = nullptr; }

private:
   static void logFailure() {
      static auto const handler = Platform::getDebugHandler("TaskScheduler", true);
      try {
         throw;
      } catch (std::exception const& error) {
         LOMI_TRACE(*handler, 0, "TaskSchedulerRoot", "critical task threw: {}", error.what());
      } catch (...) {
         LOMI_TRACE(*handler, 0, "TaskSchedulerRoot", "critical task threw something unknown");
      }
   }

   static int onRaised(sd_event_source*, int fd, std::uint32_t, void* self) {
      std::uint64_t count;
      [[maybe_unused]] auto const got = ::read(fd, &count, sizeof(count));
      auto& loop = *static_cast<Loop*>(self);
      // Those that are deferred from here on wait for the next round.
      for (auto left = loop.deferred_.size(); left > 0 && !loop.deferred_.empty(); --left) {
         auto const task = std::move(loop.deferred_.front());
         loop.deferred_.pop_front();
         if (!task->live) continue;
         task->end();
         loop.call(*task, 0);
      }
      if (!loop.deferred_.empty()) loop.raise();
      return 0;
   }

   bool const critical_;
   std::uint32_t* count_;
   sd_event* event_ = nullptr;
   int raised_ = -1;
   bool running_ = false;
   std::uint64_t calls_ = 0;
   std::exception_ptr failure_;
   std::deque<std::shared_ptr<TaskState>> deferred_;
};

void TaskState::end() {
   if (live) loop->count(-1);
   live = false;
   if (source) sd_event_source_disable_unref(std::exchange(source, nullptr));
}

class Scheduler {
public:
   explicit Scheduler(std::uint32_t* criticalTasks)
      : normal_(std::make_shared<Loop>(false, nullptr))
      , critical_(std::make_shared<Loop>(true, criticalTasks)) {
      sd_event_source* source = nullptr;
      Loop::check(
          sd_event_add_io(normal_->event(), &source, critical_->fd(), EPOLLIN, &Scheduler::onCritical, this),
          "sd_event_add_io");
      sd_event_source_set_priority(source, SD_EVENT_PRIORITY_IMPORTANT);
      sd_event_source_set_floating(source, true);
      sd_event_source_unref(source);
      critical_->arm();
      normal_->arm();
   }
   ~Scheduler() { critical_->ownerGone(); }

   Loop& normal() { return *normal_; }
   Loop& critical() { return *critical_; }
   std::shared_ptr<Loop> const& loop(TaskPriority priority) {
      return priority == TaskPriority::critical ? critical_ : normal_;
   }

   Task adopt(std::shared_ptr<TaskState> state) {
      state->loop->arm();
      if (state->loop == critical_) normal_->arm();
      Task task;
      task.state_ = std::move(state);
      return task;
   }
   static std::shared_ptr<TaskState> make(std::shared_ptr<Loop> const& loop,
                                          std::function<void(std::uint32_t)> function) {
      auto state = std::make_shared<TaskState>();
      state->loop = loop;
      state->function = std::move(function);
      loop->count(1);
      return state;
   }

   static int onDescriptor(sd_event_source*, int, std::uint32_t events, void* task) {
      auto& state = *static_cast<TaskState*>(task);
      state.loop->call(state, events);
      return 0;
   }
   static int onTimer(sd_event_source* source, std::uint64_t due, void* task) {
      auto const state = static_cast<TaskState*>(task)->shared_from_this();
      if (state->period) {
         // A loop that was held up doesn't make up for the beats it missed.
         std::uint64_t const now = monotonic();
         std::uint64_t const missed = now > due ? (now - due) / state->period : 0;
         sd_event_source_set_time(source, due + (missed + 1) * state->period);
         sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
      } else {
         state->end();
      }
      state->loop->call(*state, 0);
      return 0;
   }
   // sd_event_now gives the time of the loop's last round, which may be long ago.
   static std::uint64_t monotonic() {
      timespec now{};
      clock_gettime(CLOCK_MONOTONIC, &now);
      return static_cast<std::uint64_t>(now.tv_sec) * 1000000 +
             static_cast<std::uint64_t>(now.tv_nsec) / 1000;
   }

   // A flood of events must not keep the operation that calls the hook from going on.
   static constexpr int roundLimit = 64;

private:
   static int onCritical(sd_event_source*, int, std::uint32_t, void* self) {
      auto& scheduler = *static_cast<Scheduler*>(self);
      if (scheduler.critical_->dispatchAll(roundLimit)) scheduler.normal_->called();
      return 0;
   }

   std::shared_ptr<Loop> normal_;
   std::shared_ptr<Loop> critical_;
};

namespace {

std::uint64_t microseconds(double seconds) {
   constexpr double longest = 1e9; // 31 years
   return seconds > 0 ? static_cast<std::uint64_t>(std::min(seconds, longest) * 1e6) : 0;
}

} // namespace
} // namespace Impl

Task& Task::operator=(Task&& other) noexcept {
   if (this != &other) {
      cancel();
      state_ = std::move(other.state_);
   }
   return *this;
}

Task::~Task() { cancel(); }

void Task::cancel() {
   if (state_) state_->end();
   state_.reset();
}

bool Task::active() const { return state_ && state_->live; }

TaskSchedulerRoot::TaskSchedulerRoot() = default;
TaskSchedulerRoot::~TaskSchedulerRoot() = default;

TaskSchedulerRoot& TaskSchedulerRoot::root() { return perThread<TaskSchedulerRoot>(); }

// Made at first need, and again in a forked child: there the parent's loops would refuse every call. They are
// left alone for ever, because objects of the parent may still hold tasks in them.
Impl::Scheduler& TaskSchedulerRoot::scheduler() {
   if (scheduler_ && forks_ != forkGeneration()) {
      scheduler_->critical().ownerGone();
      static_cast<void>(new std::shared_ptr<Impl::Scheduler>(std::move(scheduler_)));
      scheduler_.reset();
      criticalTasks_ = 0;
   }
   if (!scheduler_) {
      scheduler_ = std::make_shared<Impl::Scheduler>(&criticalTasks_);
      forks_ = forkGeneration();
   }
   return *scheduler_;
}

int TaskSchedulerRoot::fd() { return scheduler().normal().fd(); }

bool TaskSchedulerRoot::dispatch() {
   auto& both = scheduler();
   bool const critical = both.critical().dispatchAll(Impl::Scheduler::roundLimit);
   return both.normal().dispatchAll(Impl::Scheduler::roundLimit) || critical;
}

bool TaskSchedulerRoot::run(double timeout) {
   pollfd wait{fd(), POLLIN, 0};
   timespec const limit{static_cast<time_t>(std::clamp(timeout, 0.0, 1e9)),
                        static_cast<long>((timeout - std::floor(timeout)) * 1e9)};
   ::ppoll(&wait, 1, timeout < 0 ? nullptr : &limit, nullptr);
   return dispatch();
}

void TaskSchedulerRoot::runCritical() {
   auto& both = scheduler();
   both.critical().dispatchAll(Impl::Scheduler::roundLimit);
   if (!both.normal().running()) both.normal().arm();
}

Task TaskSchedulerRoot::descriptorTask(int descriptor, std::uint32_t events,
                                       std::function<void(std::uint32_t)> function, TaskPriority priority) {
   auto& both = scheduler();
   auto state = Impl::Scheduler::make(both.loop(priority), std::move(function));
   Impl::Loop::check(sd_event_add_io(state->loop->event(), &state->source, descriptor, events,
                                     &Impl::Scheduler::onDescriptor, state.get()),
                     "sd_event_add_io");
   return both.adopt(std::move(state));
}

Task TaskSchedulerRoot::timerTask(double delay, std::function<void()> function, TaskPriority priority,
                                  double period) {
   auto& both = scheduler();
   auto state =
       Impl::Scheduler::make(both.loop(priority), [run = std::move(function)](std::uint32_t) { run(); });
   state->period = period > 0 ? std::max<std::uint64_t>(Impl::microseconds(period), 1) : 0;
   Impl::Loop::check(sd_event_add_time(state->loop->event(), &state->source, CLOCK_MONOTONIC,
                                       Impl::Scheduler::monotonic() + Impl::microseconds(delay), 1,
                                       &Impl::Scheduler::onTimer, state.get()),
                     "sd_event_add_time");
   return both.adopt(std::move(state));
}

Task TaskSchedulerRoot::deferredTask(std::function<void()> function, TaskPriority priority) {
   auto& both = scheduler();
   auto state =
       Impl::Scheduler::make(both.loop(priority), [run = std::move(function)](std::uint32_t) { run(); });
   state->loop->defer(state);
   return both.adopt(std::move(state));
}

} // namespace Lomi
