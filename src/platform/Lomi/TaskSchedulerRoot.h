// SPDX-License-Identifier: Apache-2.0
// The event loop that the library's sentries and queues hang on: one root for each thread, made at its first
// use. The library has no loop of its own; the agent drives the root, either through run() or by watching
// fd() in its own epoll loop and calling dispatch() whenever it is readable.
//
// Tasks have normal or critical priority. Critical ones stand in a loop of their own inside the first: a long
// operation calls runCriticalPriorityTasks() every few milliseconds, and nothing but critical tasks can run
// there.
//
// What a normal task throws leaves run() or dispatch() after the round. What a critical task throws is logged
// at level 0 and goes no further, since the operation that it interrupts must not be torn.
//
// Each root belongs to its thread, and serves until the process ends, also destructors of static objects. A
// forked child has roots of its own; tasks of the parent never run there.
#pragma once

#include "Lomi/Export.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace Lomi {

template <class T> T& perThread();
enum class TaskPriority { normal, critical };

namespace Impl {
class Scheduler;
struct TaskState;
} // namespace Impl

/// Holds one task; its end takes the task out of the loop. May end inside the task's own function.
class HOFLOW_EXPORT Task {
public:
   Task() = default;
   Task(Task&&) noexcept = default;
   Task& operator=(Task&&) noexcept;
   ~Task();
   void cancel();
   /// True until cancelled, or until a deferred task or a single timer has run.
   bool active() const;

private:
   friend class Impl::Scheduler;
   std::shared_ptr<Impl::TaskState> state_;
};

class HOFLOW_EXPORT TaskSchedulerRoot {
public:
   /// The calling thread's root.
   static TaskSchedulerRoot& root();

   /// Readable whenever dispatch() has something to do. Owned by the root, valid as long as its thread.
   int fd();

   /// Runs what is ready, critical tasks first, and doesn't wait. True if anything ran.
   bool dispatch();
   /// Waits up to `timeout` seconds (below 0: without limit) until something is ready, and dispatches it.
   bool run(double timeout);

   /// Runs what is ready among the critical tasks. Without any it costs a comparison. Does nothing when
   /// called from within a critical task.
   void runCriticalPriorityTasks() {
      if (criticalTasks_) runCritical();
   }

   /// Calls `function(events)` while the descriptor shows one of `events` (EPOLLIN, EPOLLOUT). The descriptor
   /// stays the caller's and must be open as long as the task.
   [[nodiscard]] Task descriptorTask(int descriptor, std::uint32_t events,
                                     std::function<void(std::uint32_t)> function,
                                     TaskPriority priority = TaskPriority::normal);
   /// Calls `function` once, `delay` seconds from now, or again after each `period` seconds if that is above
   /// 0.
   [[nodiscard]] Task timerTask(double delay, std::function<void()> function,
                                TaskPriority priority = TaskPriority::normal, double period = 0);
   /// Calls `function` once, at the next dispatch.
   [[nodiscard]] Task deferredTask(std::function<void()> function,
                                   TaskPriority priority = TaskPriority::normal);

   TaskSchedulerRoot(TaskSchedulerRoot const&) = delete;
   TaskSchedulerRoot& operator=(TaskSchedulerRoot const&) = delete;
   ~TaskSchedulerRoot();

private:
   TaskSchedulerRoot();
   template <class T> friend T& perThread();
   void runCritical();
   Impl::Scheduler& scheduler();

   std::uint32_t criticalTasks_ = 0; // kept by the scheduler
   std::uint32_t forks_ = 0;
   std::shared_ptr<Impl::Scheduler> scheduler_; // made at first need
   friend class Impl::Scheduler;
   friend struct Impl::TaskState;
};

} // namespace Lomi
