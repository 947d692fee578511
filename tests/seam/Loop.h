// SPDX-License-Identifier: Apache-2.0
// The event loop as the tests drive it.
#pragma once

#include "Lomi/TaskSchedulerRoot.h"
#include "Processes.h"

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
/// Runs what is ready, until nothing is.
inline void settle() {
   while (loop().run(0)) {
   }
}

} // namespace Test
