// SPDX-License-Identifier: Apache-2.0
// The parts "follow", "pauses" and "shadow": what it takes to have another process know of a change. It has
// contenders, tables and figures of its own, since none of the others' operations occur here.
#pragma once

#include "core/Runs.h"

namespace Bench {

/// From a change in one process to the call in another that was asleep: our table, a byte over a socket pair,
/// Redis publish/subscribe. A missing Redis is said on stderr. Nothing without a second core.
void runWake(Workload const& load, Setting const& setting, Figures& figures);

/// A writer at full speed: its time for an overwrite beside followers of different kinds, and how many
/// changes a second one follower takes in. Nothing without a second core.
void runChanges(Workload const& load, Setting const& setting, Figures& figures);

/// The longest call while a table with a queue grows from nothing to all rows, is overwritten, and is emptied
/// again; and the longest time for which critical tasks had to wait in one.
void runPauses(Workload const& load, Setting const& setting, Figures& figures);

/// A private copy of a table whose writer is at rest, beside a hash map of the process's own: the first
/// sweep, memory, lookups, walks.
void runShadow(Workload const& load, Setting const& setting, Figures& figures);

void printFollow(std::ostream& out, Figures const& figures);
void printPauses(std::ostream& out, Figures const& figures);
void printShadow(std::ostream& out, Figures const& figures);

} // namespace Bench
