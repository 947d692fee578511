// SPDX-License-Identifier: Apache-2.0
// What people type to say which rows they mean: a whole key, and tests of any field.
#pragma once

#include "Schema.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Tool {

/// One comparison of a field with a value: "srcAddr=10.0.0.0/8", "packets>=1000", "proto!=udp".
class Comparison {
public:
   /// @throws Failure that names the word and what was expected
   Comparison(Schema const& schema, std::string_view text);
   /// That a field of the key has this value.
   Comparison(Field const& field, Cell value)
      : field_(&field)
      , op_(Op::equal)
      , value_(std::move(value)) {}
   bool holds(void const* row) const;

private:
   enum class Op { equal, unequal, less, lessEqual, greater, greaterEqual };
   Field const* field_;
   Op op_;
   Cell value_;
   int prefix_ = -1; ///< bits of an address that are compared, -1 for all
};

/// All of its comparisons must hold.
using Filter = std::vector<Comparison>;
Filter parseFilter(Schema const& schema, std::vector<std::string> const& texts);
bool passes(Filter const& filter, void const* row);

/// Which row or rows `get` is asked for.
struct Query {
   std::optional<std::vector<Cell>> key; ///< in the order of Schema::keyOf(); none: each row that passes
   Filter filter;
};

/// Reads a key and tests. Words of a key are name=value; "vlan 42"; a protocol's name; two endpoints, source
/// first, with or without a port ("10.0.0.1:80", "[2001:db8::1]:80", "->" between them is skipped); for a key
/// of one field its value; or one JSON object, the key or the whole row as `dump -j` gives it. What isn't
/// said is 0 for numbers and directions, as the tracker stores it, and no interface; the rest must be said.
/// All other comparisons are tests. Where no word is more than a comparison and they don't make a whole key,
/// they are tests, too.
/// @throws Failure that names the word and what was expected
Query parseQuery(Schema const& schema, std::vector<std::string> const& words);

/// The names of a record's fields, for messages.
std::string fieldNames(Schema const& schema, bool keyOnly);

} // namespace Tool
