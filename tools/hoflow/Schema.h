// SPDX-License-Identifier: Apache-2.0
// The fields of a row, as the registry knows them: what `dump` prints, what `get` takes and what filters
// compare. Nothing here names a record, so a new one needs no line of this.
//
// A row has a key and further fields. The key's fields stand for themselves, and so do those of a value
// inside the key that the key repeats: `key.srcAddr` is right for every table of flows.
#pragma once

#include "Cell.h"

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Tool {

struct Field {
   std::string_view name;
   CellType type;
   bool inKey;
   bool jsonOnly;          ///< says again what another field says, in a form for programs
   bool mustGive;          ///< of a key: there is no value that a lookup could assume
   Zeb::ZebType row;       ///< the row's type
   Zeb::AttributeId keyId; ///< of the row's key
   Zeb::ZebType owner;     ///< whose attribute it is: the row's type or its key's
   Zeb::AttributeId id;

   Cell get(void const* at) const;
};

/// Memory for a value of a registered type, made and unmade by its value methods.
class Value {
public:
   /// The default value.
   explicit Value(Zeb::ZebType type);
   ~Value();
   Value(Value const&) = delete;
   Value& operator=(Value const&) = delete;
   Zeb::ZebType type() const { return type_; }
   void* get() { return memory_.data(); }
   void const* get() const { return memory_.data(); }

private:
   Zeb::ZebType type_;
   std::vector<std::max_align_t> memory_;
};

class Schema {
public:
   explicit Schema(Zeb::ZebType row);

   Zeb::ZebType row, key;
   std::vector<Field> fields; ///< those of the key first

   std::string_view valueType() const { return row.name(); } ///< as in the slot file's header
   /// The field with this name in any case, or with a short form of it: src, dst, proto, sport, dport, vlan,
   /// vrf, dir, intf, state. @return null if the record has none
   Field const* find(std::string_view word) const;
   bool isFlow() const;
   /// Makes a key of its fields' values, in the order of the schema, without those that are jsonOnly.
   std::unique_ptr<Value> keyOf(std::span<Cell const> cells) const;
};

/// The schema of a registered type; it lives as long as the process.
Schema const& schemaOf(Zeb::ZebType row);

/// Appends the row as one JSON object, without a line end.
void appendJsonRow(fmt::memory_buffer& out, Schema const& schema, void const* row);
/// The row's text form, which `load` reads back.
Zeb::String strepOf(Schema const& schema, void const* row);

bool equalIgnoringCase(std::string_view a, std::string_view b);
/// Whether a word means the type of that name: all of it, in any case, or the end of it behind "::".
bool isTypeName(std::string_view word, std::string_view name);

} // namespace Tool
