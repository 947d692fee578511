// SPDX-License-Identifier: Apache-2.0
// The runs themselves: each fills Figures, checks every result, and throws on the first wrong row.
#pragma once

#include "core/Figures.h"

namespace Bench {

struct Setting {
   std::vector<u64> rows{10'000, 100'000, 1'000'000};
   std::vector<KeyFamily> families{KeyFamily::network, KeyFamily::random};
   std::vector<std::string> only; // contenders by name; empty: all
   int repetitions = 5;           // at the largest size; small sizes get more
   u64 seed = 1;
   int core = 0;
   int otherCore = 1;
   double busySeconds = 2; // how long one two-sided measurement lasts at least
   u64 wakes = 2000;       // changes of one measurement of the wake-up
   bool progress = true;
};

using Contenders = std::vector<std::unique_ptr<Contender>>;

/// Operations in the order of the tables.
extern std::vector<std::string> const singleOperations; // hit miss insert overwrite remove walk, ns
extern std::vector<std::string> const busyOperations;
extern std::vector<std::string> const otherFigures;   // longest insert, bytes a row
extern std::vector<std::string> const restartFigures; // adopt and attach, ms
extern std::vector<std::string> const layerOperations;
extern std::vector<Traits> const layers; // in the place of contenders

/// One thread: every operation of every contender, contenders taking turns within each repetition.
void runSingle(Contenders& all, Workload const& load, Setting const& setting, Figures& figures);

/// Reader beside a busy writer: two processes where the contender can, else two threads.
void runBusy(Contenders& all, Workload const& load, Setting const& setting, Figures& figures);

/// Longest single insert while the table grows to all rows, and bytes a row when it holds them.
void runGrowth(Contenders& all, Workload const& load, Setting const& setting, Figures& figures);

/// Our own table only: adopting and validating its files after a restart, and a reader's first attach.
void runRestart(Workload const& load, Setting const& setting, Figures& figures);

/// Our own table only: the same calls to the back end, the front object and the entity.
void runLayers(Workload const& load, Setting const& setting, Figures& figures);

} // namespace Bench
