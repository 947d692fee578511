// SPDX-License-Identifier: Apache-2.0
// The tool's commands. Each takes what the command line said, writes its data through `out`, and returns the
// exit status; a Failure ends it. Which file holds which: list, show, header in CommandsFiles.cpp; get, dump,
// count in CommandsRows.cpp; load in CommandsLoad.cpp; types and schema in CommandsTypes.cpp; check and stat
// in CommandsWalk.cpp; watch in CommandsWatch.cpp; top in CommandsTop.cpp.
#pragma once

#include "Output.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Tool {

struct Common {
   Output& out;
   bool json;
};

Exit listTables(Common const& common, std::vector<std::string> const& patterns, bool namesOnly);
Exit showTables(Common const& common, std::vector<std::string> const& tables);
Exit showHeaders(Common const& common, std::vector<std::string> const& tables);

/// @param words a key and tests; see parseQuery()
Exit getRows(Common const& common, std::string const& table, std::vector<std::string> words,
             std::vector<std::string> const& where, bool strep);

struct DumpOptions {
   std::vector<std::string> where;
   bool strep = false;               ///< text forms, for `load`
   std::vector<std::string> columns; ///< empty: all
   std::uint64_t limit = 0;          ///< 0: none
   bool noHeader = false;
};
Exit dumpTable(Common const& common, std::string const& table, DumpOptions const& options);
Exit countRows(Common const& common, std::vector<std::string> const& tables,
               std::vector<std::string> const& where);

struct LoadOptions {
   std::string type;  ///< of the rows; empty: as the table or the file says
   bool keep = false; ///< rows that the file doesn't have stay
};
/// @param file "-" is stdin
Exit loadTable(Common const& common, std::string const& table, std::string const& file,
               LoadOptions const& options);

/// @param words types whose names hold one of these; none: all
Exit listTypes(Common const& common, std::vector<std::string> const& words);
Exit showSchemas(Common const& common, std::vector<std::string> const& types);

Exit checkTables(Common const& common, std::vector<std::string> const& tables);
Exit statTables(Common const& common, std::vector<std::string> const& tables);

struct WatchOptions {
   std::vector<std::string> words; ///< a key or tests
   std::vector<std::string> where;
   bool all = false;              ///< the rows that are there come first
   std::uint64_t count = 0;       ///< ends after so many changes; 0: none
   std::optional<double> timeout; ///< seconds
   double interval = 1;           ///< seconds between walks, where there is no queue
};
Exit watchTable(Common const& common, std::string const& table, WatchOptions const& options);

struct TopOptions {
   std::vector<std::string> patterns; ///< as listTables()
   bool once = false;
   double interval = 1; ///< seconds between two looks
};
Exit topTables(Common const& common, TopOptions const& options);

/// What `hoflow` alone says: what it is, what there is, what to type.
Exit overview(Common const& common);

/// Runs `one` for each table; a Failure of one is said and doesn't keep the others from their turn.
template <class One> Exit forEachTable(std::vector<std::string> const& names, One&& one) {
   Exit all = Exit::ok;
   for (std::string const& name : names) {
      try {
         all = worse(all, one(name));
      } catch (Failure const& failure) {
         say(failure);
         all = worse(all, failure.status);
      }
   }
   return all;
}

} // namespace Tool
