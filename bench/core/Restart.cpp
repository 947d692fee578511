// SPDX-License-Identifier: Apache-2.0
// The restart run, of our own table alone: a writer leaves a full table behind; how long does the next one
// take until it has adopted and validated every row and may write, and how long a reader until its first row?
// The files are in the page cache, as they are after a restart of a process.
#include "core/Runs.h"
#include "peers/HoflowTable.h"

#include <algorithm>

namespace Bench {

std::vector<std::string> const restartFigures{"adopt ms", "attach ms"};

void runRestart(Workload const& load, Setting const& setting, Figures& figures) {
   FigureKey key{nameOf(load.family), load.rows, "hoflow", ""};
   Folder const folder;
   Place const place{folder.path(), load.rows, setting.core};
   {
      auto const writer = openWriter(place);
      for (Row const& row : load.inserts) writer->write(tableRow(row), true);
      writer->detach(false);
   }
   for (int time = 0; time < std::max(3, setting.repetitions); ++time) {
      auto start = Clock::now();
      auto const writer = openWriter(place);
      key.operation = "adopt ms";
      figures.add(key, nsSince(start, 1) / 1e6);
      if (writer->members() != load.rows) wrong("hoflow", "a restart lost rows");

      start = Clock::now();
      auto const reader = openReader(place);
      Row row;
      bool found;
      reader->lookup(tableKey(load.hits[0].key), found, &row);
      key.operation = "attach ms";
      figures.add(key, nsSince(start, 1) / 1e6);
      if (!found) wrong("hoflow", "a row is absent after a restart");
      reader->detach(false);
      writer->detach(false);
   }
}

} // namespace Bench
