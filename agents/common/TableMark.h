// SPDX-License-Identifier: Apache-2.0
// How far the tables of chosen flows are, as their writer says it: a number in each table's header, in the
// word that is its user's own (`scratchpad`). A table formatted anew says nothing; a writer that is killed
// leaves what it said last.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Agents {

enum class TableMark : std::uint64_t {
   nothing = 0,  // it holds what it holds
   filling = 1,  // a capture is being read; there is more to come, from this writer or from the next
   complete = 2, // all of the capture's flows are in it
};

struct TableFacts {
   TableMark mark = TableMark::nothing; // a number that means nothing here counts as `nothing`
   std::uint32_t rows = 0;
};

/// Of the table at `path`; nothing where there is none.
std::optional<TableFacts> tableFacts(std::string const& path);

} // namespace Agents
