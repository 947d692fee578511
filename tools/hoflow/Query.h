// SPDX-License-Identifier: Apache-2.0
// What people type to say which rows they mean: a whole key for `get`, comparisons for `--where`.
#pragma once

#include "Schema.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Tool {

/// Reads a key. Words are name=value; "vlan 42"; a protocol's name; two endpoints, source first, with or
/// without a port ("10.0.0.1:80", "[2001:db8::1]:80", "->" between them is skipped); for counters by state
/// the state; or one JSON object, the key or the whole row as `dump -j` gives it. What isn't said is 0 for
/// vrfId, vlanId, ports and direction, as the tracker stores it, and no interface. Addresses, protocol and
/// state must be said.
/// @return the values in the order of keyOf()
/// @throws Failure that names the word and what was expected
std::vector<Cell> parseKey(Schema const& schema, std::vector<std::string> const& words);

/// One comparison of a field with a value: "srcAddr=10.0.0.0/8", "packets>=1000", "proto!=udp".
class Comparison {
public:
   /// @throws Failure that names the word and what was expected
   Comparison(Schema const& schema, std::string_view text);
   bool holds(void const* row) const;

private:
   enum class Op { equal, unequal, less, lessEqual, greater, greaterEqual };
   Field const* field_;
   Op op_;
   Cell value_;
   int prefix_ = -1; ///< bits of an address that are compared, -1 for all
};

using Filter = std::vector<Comparison>;
Filter parseFilter(Schema const& schema, std::vector<std::string> const& texts);
bool passes(Filter const& filter, void const* row);

/// The names of a record's fields, for messages.
std::string fieldNames(Schema const& schema, bool keyOnly);

} // namespace Tool
