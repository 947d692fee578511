// SPDX-License-Identifier: Apache-2.0
#include "Lomi/DeleteLater.h"

#include "Lomi/Fork.h"
#include "Lomi/PerThread.h"
#include "Lomi/TaskSchedulerRoot.h"

#include <vector>

namespace Lomi {
namespace {

struct Leaving {
   std::vector<std::shared_ptr<void>> objects;
   Task task;
   std::uint32_t forks = 0;

   Leaving() { TaskSchedulerRoot::root(); } // made before this, so it ends after this

   void add(std::shared_ptr<void> object) {
      objects.push_back(std::move(object));
      // A forked child has a loop of its own; the parent's task never runs there.
      if (task.active() && forks == forkGeneration()) return;
      forks = forkGeneration();
      task = TaskSchedulerRoot::root().deferredTask([this] {
         // A destructor may let more go.
         auto const now = std::move(objects);
         objects.clear();
      });
   }
};

} // namespace

void deleteLater(std::shared_ptr<void> object) { perThread<Leaving>().add(std::move(object)); }

} // namespace Lomi
