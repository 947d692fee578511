// SPDX-License-Identifier: Apache-2.0
// The clock of a long operation on one table: lets the process's critical tasks run in the middle of it, and
// says how long it took. Those tasks must leave the table alone. They shall not wait for more than 10 ms; a
// step of the loop, or the first slice of a queue's turn, may come at the end of what is measured here.
#pragma once

#include "Lomi/TaskSchedulerRoot.h"
#include "Lomi/Util.h"
#include "Mem/SharedWords.h"

namespace Mirak {

class Deadline {
public:
   /// @param enabled whether tasks are run at all
   explicit Deadline(bool enabled)
      : enabled_(enabled)
      , begin_(Lomi::time()) {
      renew();
   }
   /// Called wherever the table is consistent, after every step of the loop: nothing bounds the next one.
   void check() {
      if (!enabled_ || Lomi::Rdtsc::now() < at_) return;
      Lomi::TaskSchedulerRoot::root().runCriticalPriorityTasks();
      renew();
   }
   double elapsed() const { return Lomi::time() - begin_; }

private:
   void renew() {
      if (enabled_)
         at_ = Lomi::Rdtsc::now() + static_cast<Mem::u64>(seconds * Lomi::Rdtsc::calibrationRate());
   }
   static constexpr double seconds = 0.005;
   bool const enabled_;
   double const begin_;
   Mem::u64 at_ = 0;
};

} // namespace Mirak
