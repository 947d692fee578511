// SPDX-License-Identifier: Apache-2.0
// How the figures of the part "follow" are shown.
#include "follow/Follow.h"

#include <ostream>

namespace Bench {

void printFollow(std::ostream& out, Figures const& figures) {
   std::vector<Traits> const wakes{
       {"hoflow", true, true, true, false, "write, then the follower's doSlot"},
       {"hoflow shadow", true, true, true, false, "write, then the shadow's changeFn"},
       {"socket pair", false, true, true, true, "one byte, then recv() returns"},
       {"redis", false, true, true, true, "PUBLISH of a row over a unix socket, then recv() has all of it"}};
   std::vector<Traits> const ours{{"hoflow", true, true, true, false, ""}};
   figures.print(out, wakes, {"median us", "p99 us"}, "from a change to the call in a process that slept");
   figures.print(out, ours, {"written/s", "taken/s", "collapsed/s"},
                 "a writer at full speed and a follower: changes a second, in thousands");
   figures.print(out, ours, {"shadow written/s", "shadow taken/s", "shadow collapsed/s"},
                 "a writer at full speed and a shadow: changes a second, in thousands");
   figures.print(out, ours, {"no queue", "nobody", "one stopped", "1 follows", "8 follow", "32 follow"},
                 "the writer's ns an overwrite, by who follows");
   figures.print(out, ours, {"nobody", "1 shadow", "8 shadows", "64 shadows"},
                 "the writer's ns an overwrite, by how many shadows there are");
}

void printPauses(std::ostream& out, Figures const& figures) {
   std::vector<Traits> const ours{{"hoflow", true, true, true, false, ""}};
   figures.print(out, ours,
                 {"grow ms", "grow wait", "grow cpu", "turn ms", "turn wait", "turn cpu", "cut ms",
                  "cut wait", "cut cpu"},
                 "longest write, overwrite and remove, and the longest wait of critical tasks in one, by the "
                 "clock and in processor time, ms");
}

} // namespace Bench
