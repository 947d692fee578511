// SPDX-License-Identifier: Apache-2.0
// The single-thread run and the growth run. What is timed stands in Contender.h; here is the order of things
// and the checks: counts and sums of every timed batch, and each byte of every row outside the clock.
#include "core/Runs.h"

#include <algorithm>
#include <cstdio>

#include <unistd.h>

namespace Bench {

std::vector<std::string> const singleOperations{"hit", "miss", "insert", "overwrite", "remove", "walk"};
std::vector<std::string> const otherFigures{"longest us", "p99.99 us", "bytes/row"};

namespace {

void expect(Traits const& traits, char const* operation, Batch const& batch, u64 count, u64 sum) {
   if (batch.count != count) {
      wrong(traits.name, std::string(operation) + ": " + std::to_string(batch.count) + " rows, expected " +
                             std::to_string(count));
   }
   if (batch.sum != sum) wrong(traits.name, std::string(operation) + ": the rows read have a wrong sum");
}

void progress(Setting const& setting, std::string const& text) {
   if (setting.progress && isatty(STDERR_FILENO)) std::fprintf(stderr, "\r\033[K%s", text.c_str());
}

void runOne(Contender& table, Workload const& load, Setting const& setting, Place const& place,
            Figures& figures, bool thorough) {
   Traits const& traits = table.traits();
   FigureKey key{nameOf(load.family), load.rows, traits.name, ""};
   auto const add = [&](char const* operation, Batch const& batch) {
      key.operation = operation;
      figures.add(key, batch.nsPerOperation);
   };
   u64 const passes = passesFor(load.rows);
   table.create(place);
   Batch batch = table.insert(load);
   expect(traits, "insert", batch, load.rows, 0);
   add("insert", batch);
   {
      auto const reader = table.reader(place, true);
      reader->check(load, true, false); // warms up, too
      batch = reader->hit(load);
      expect(traits, "hit", batch, load.rows, load.sumInserted * passes);
      add("hit", batch);
      batch = reader->miss(load);
      expect(traits, "miss", batch, 0, 0);
      add("miss", batch);
      batch = reader->walk(load);
      expect(traits, "walk", batch, load.rows, load.sumInserted * passes);
      add("walk", batch);
      batch = table.overwrite(load);
      add("overwrite", batch);
      if (thorough) reader->check(load, false, true);
      batch = reader->walk(load);
      expect(traits, "walk", batch, load.rows, load.sumOverwritten * passes);
   }
   batch = table.remove(load);
   expect(traits, "remove", batch, load.rows, 0);
   add("remove", batch);
   {
      auto const reader = table.reader(place, true);
      expect(traits, "hit after removal", reader->hit(load), 0, 0);
   }
   table.destroy();
   (void)setting;
}

} // namespace

void runSingle(Contenders& all, Workload const& load, Setting const& setting, Figures& figures) {
   int const times = setting.repetitions * (load.rows <= 20'000 ? 4 : load.rows <= 200'000 ? 2 : 1);
   for (int time = 0; time < times; ++time) {
      // Each repetition begins with another contender: nobody always runs on what the same neighbour left
      // behind.
      for (std::size_t turn = 0; turn < all.size(); ++turn) {
         Contender& table = *all[(turn + static_cast<std::size_t>(time)) % all.size()];
         progress(setting, nameOf(load.family) + " keys, " + std::to_string(load.rows) +
                               " rows, repetition " + std::to_string(time + 1) + " of " +
                               std::to_string(times) + ": " + table.traits().name);
         Folder const folder;
         runOne(table, load, setting, {folder.path(), load.rows, setting.core}, figures, time == 0);
      }
   }
   progress(setting, "");
}

void runGrowth(Contenders& all, Workload const& load, Setting const& setting, Figures& figures) {
   double const ticks = ticksPerNs();
   for (int time = 0; time < std::max(3, setting.repetitions); ++time) {
      for (auto& table : all) {
         Traits const& traits = table->traits();
         progress(setting, std::string("longest insert: ") + traits.name);
         Folder const folder;
         table->create({folder.path(), load.rows, setting.core});
         std::vector<u64> each = table->insertEach(load);
         FigureKey key{nameOf(load.family), load.rows, traits.name, "bytes/row"};
         figures.add(key, static_cast<double>(table->bytes()) / static_cast<double>(load.rows));
         table->destroy();
         std::sort(each.begin(), each.end());
         key.operation = "longest us";
         figures.add(key, static_cast<double>(each.back()) / ticks / 1000);
         key.operation = "p99.99 us";
         figures.add(key, static_cast<double>(each[each.size() - 1 - each.size() / 10'000]) / ticks / 1000);
      }
   }
   progress(setting, "");
}

} // namespace Bench
