// SPDX-License-Identifier: Apache-2.0
// The event loop as the tests drive it.
#pragma once

#include "Lomi/TaskSchedulerRoot.h"
#include "Processes.h"

#include <sys/epoll.h>

namespace Test {

inline Lomi::TaskSchedulerRoot& loop() { return Lomi::TaskSchedulerRoot::root(); }

/// Runs the loop until `done` or for a minute, which only a failure takes.
template <class Done> bool runUntil(Done done) {
   for (double const end = now() + 60; !done();) {
      if (now() > end) return false;
      loop().run(0.1);
   }
   return true;
}
/// The same as an agent with a loop of its own does it: what isn't visible in fd() never runs.
template <class Done> bool driveUntil(Done done) {
   int const epoll = ::epoll_create1(EPOLL_CLOEXEC);
   epoll_event event{};
   event.events = EPOLLIN;
   ::epoll_ctl(epoll, EPOLL_CTL_ADD, loop().fd(), &event);
   for (double const end = now() + 30; !done() && now() < end;)
      if (::epoll_wait(epoll, &event, 1, 20) == 1) loop().dispatch();
   ::close(epoll);
   return done();
}
/// Runs what is ready, until nothing is.
inline void settle() {
   while (loop().run(0)) {
   }
}

} // namespace Test
