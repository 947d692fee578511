// SPDX-License-Identifier: Apache-2.0
// Two sides: a reader that looks up, misses and walks, first beside an idle writer, then beside one that
// writes at full speed on another core (overwrites, with an insert and a removal of other keys every second
// step).
//
// The reader is a forked process that opens the table by its files alone, where the contender can do that;
// for the others it is a thread. While the writer is busy the reader also compares every byte of every row
// once. Misleading on a machine with one free core, and where both cores share caches with other loads: only
// the relation of idle to busy is worth quoting.
#include "core/Runs.h"

#include <algorithm>
#include <atomic>
#include <thread>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

std::vector<std::string> const busyOperations{"hit idle",  "hit busy",  "miss idle", "miss busy",
                                              "walk idle", "walk busy", "write busy"};

namespace {

constexpr std::size_t extraRows = 4096;

/// What the two sides tell each other; lies in memory that both have after the fork.
struct Exchange {
   std::atomic<int> wantsBusy;
   std::atomic<int> isBusy;
   std::atomic<int> done;
   double ns[6]; // hit idle, hit busy, miss idle, miss busy, walk idle, walk busy
   char error[200];
};

double median(std::vector<double>& values) {
   std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
   return values[values.size() / 2];
}

/// Measures the three reads for about `seconds`, three times each at least, unless a lock makes that endless.
void measure(ReaderSide& reader, Traits const& traits, Workload const& load, double seconds, double* ns) {
   std::vector<double> hits, misses, walks;
   auto const start = Clock::now();
   do {
      Batch const hit = reader.hit(load);
      Batch const miss = reader.miss(load);
      Batch const walk = reader.walk(load);
      if (hit.count != load.rows) wrong(traits.name, "rows that were there all along are reported absent");
      if (miss.count != 0) wrong(traits.name, "absent keys are reported found");
      if (walk.count < load.rows) wrong(traits.name, "a walk left out rows that were there all along");
      hits.push_back(hit.nsPerOperation);
      misses.push_back(miss.nsPerOperation);
      walks.push_back(walk.nsPerOperation);
   } while (nsSince(start, 1) < (hits.size() < 3 ? 10 : 1) * seconds * 1e9);
   ns[0] = median(hits);
   ns[2] = median(misses);
   ns[4] = median(walks);
}

void readerSide(Contender& table, Workload const& load, Setting const& setting, Place const& place,
                Exchange& shared, bool sameProcess) {
   try {
      pinTo(setting.core);
      auto const reader = table.reader(place, sameProcess);
      reader->check(load, true, false);
      measure(*reader, table.traits(), load, setting.busySeconds / 4, shared.ns);
      shared.wantsBusy = 1;
      while (!shared.isBusy) reader->miss(load); // a reader that reads tells its writer that it is quiescent
      reader->check(load, true, true);
      measure(*reader, table.traits(), load, setting.busySeconds, shared.ns + 1);
   } catch (std::exception const& problem) {
      std::snprintf(shared.error, sizeof shared.error, "%s", problem.what());
   }
   shared.done = 1;
}

void runOne(Contender& table, Workload const& load, Setting const& setting, std::vector<Row> const& extras,
            Figures& figures) {
   Traits const& traits = table.traits();
   Folder const folder;
   Place const place{folder.path(), load.rows + extraRows, setting.core};
   auto* const shared = static_cast<Exchange*>(
       mmap(nullptr, sizeof(Exchange), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
   if (shared == MAP_FAILED) throw std::runtime_error("no memory for the exchange between reader and writer");
   new (shared) Exchange();

   table.create(place);
   table.insert(load);
   std::thread thread;
   pid_t child = -1;
   if (traits.processes) {
      child = fork();
      if (child == 0) {
         readerSide(table, load, setting, place, *shared, false);
         _exit(0);
      }
      if (child < 0) throw std::runtime_error("can't fork a reader");
   } else {
      thread = std::thread([&] { readerSide(table, load, setting, place, *shared, true); });
   }
   pinTo(setting.otherCore);

   auto const childIsDead = [&] { return child > 0 && waitpid(child, nullptr, WNOHANG) == child; };
   u64 position = 0;
   bool dead = false;
   while (!shared->wantsBusy && !shared->done && !(dead = childIsDead())) {
      table.churn(load, extras, position, 0);
      usleep(1000);
   }
   auto const start = Clock::now();
   while (!shared->done && !dead) {
      table.churn(load, extras, position, 1000);
      shared->isBusy = 1;
      dead = position % 100'000 == 0 && childIsDead();
   }
   double const ns = nsSince(start, std::max<u64>(position, 1));
   if (thread.joinable()) thread.join();
   if (child > 0 && !dead) waitpid(child, nullptr, 0);
   table.destroy();
   pinTo(setting.core);

   std::string const error = shared->error;
   std::vector<double> const read(shared->ns, shared->ns + 6);
   bool const done = shared->done;
   munmap(shared, sizeof(Exchange));
   if (!error.empty()) throw std::runtime_error("beside a busy writer: " + error);
   if (!done) wrong(traits.name, "the reader process died");
   for (std::size_t n = 0; n < 6; ++n) {
      figures.add({nameOf(load.family), load.rows, traits.name, busyOperations[n]}, read[n]);
   }
   figures.add({nameOf(load.family), load.rows, traits.name, "write busy"}, ns);
}

} // namespace

void runBusy(Contenders& all, Workload const& load, Setting const& setting, Figures& figures) {
   std::vector<Row> extras;
   for (u64 n = 0; n < extraRows; ++n) {
      extras.push_back(rowOf(keyNumber(load.family, 2 * load.rows + n), 2 * load.rows + n, 1));
   }
   for (auto& table : all) {
      if (table->traits().canBeShared) runOne(*table, load, setting, extras, figures);
   }
}

} // namespace Bench
