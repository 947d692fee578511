// SPDX-License-Identifier: Apache-2.0
// The fields of each record, once, by name: what `dump` prints, what `get` takes and what `--where` compares
// all come from here. Names are the records' own; those of the flow inside a key stand in the key directly,
// so that `key.srcAddr` is right for every table of flows.
#pragma once

#include "Cell.h"

#include <span>
#include <string_view>
#include <vector>

namespace Tool {

struct Field {
   std::string_view name;
   CellType type;
   bool inKey;
   bool jsonOnly; ///< says again what another field says, in a form for programs
   bool mustGive; ///< of a key: there is no value that a lookup could assume
   Cell (*get)(void const* row);
};

struct Schema {
   std::string_view valueType; ///< as in the slot file's header
   std::vector<Field> fields;  ///< those of the key first

   /// The field with this name in any case, or with a short form of it: src, dst, proto, sport, dport, vlan,
   /// vrf, dir, intf, state. @return null if the record has none
   Field const* find(std::string_view word) const;
   bool isFlow() const;
};

/// @param Row the stored value's type. Defined for the seven tables' rows in Schema.cpp.
template <class Row> Schema const& schemaOf();

/// Makes a key of its fields' values, in the order of the schema, without those that are jsonOnly.
template <class Key> Key keyOf(std::span<Cell const> cells);

/// Appends the row as one JSON object, without a line end.
void appendJsonRow(fmt::memory_buffer& out, Schema const& schema, void const* row);

bool equalIgnoringCase(std::string_view a, std::string_view b);

} // namespace Tool
