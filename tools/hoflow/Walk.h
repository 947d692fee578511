// SPDX-License-Identifier: Apache-2.0
// A walk over all rows, and what can end it early while a writer is at work.
#pragma once

#include "Files.h"
#include "Output.h"
#include "Table.h"

#include <fmt/format.h>

namespace Tool {

enum class WalkEnd {
   complete,
   stopped,     ///< the callback wanted no more
   reformatted, ///< the writer formatted the table anew: what was seen is of the old one, and not all of it
   replaced,    ///< the files were removed or exchanged: what was seen is of the old ones
};

/// How a message of damage to a table begins.
inline std::string damagePrefix(Table const& table) { return table.name() + ": damaged: "; }

/// @param row called with each row; false ends the walk
/// @throws Failure on damage
template <class OnRow> WalkEnd walkRows(Table& table, OnRow&& row) {
   try {
      for (void const* at = table.first(); at; at = table.next())
         if (!row(at)) return WalkEnd::stopped;
   } catch (Mirak::TableReformattedException const&) {
      return WalkEnd::reformatted;
   } catch (Lomi::CorruptionDetectedException const& e) {
      if (table.filesReplaced()) return WalkEnd::replaced;
      throw Failure{Exit::corrupt, damagePrefix(table) + e.what(),
                    "a restart of its writer formats the table anew; hoflow header shows the raw headers"};
   } catch (Lomi::MemoryResourceException const& e) {
      throw Failure{Exit::incomplete, fmt::format("{}: {}", table.name(), e.what())};
   }
   return table.filesReplaced() ? WalkEnd::replaced : WalkEnd::complete;
}

/// Why the table's next writer would not take it over but format it anew, as far as `check` can see; names the
/// file. Empty if nothing speaks against it. Walks the whole table.
std::string whyNotAdopted(Inspection const& seen);

/// Why a walk's rows are not those of the present table; for messages.
inline std::string_view endText(WalkEnd end) {
   return end == WalkEnd::reformatted ? "its writer formatted the table anew"
                                      : "the table's files were removed or replaced";
}

} // namespace Tool
