// SPDX-License-Identifier: Apache-2.0
// One value of a row, in the four ways that the tool meets it: as a typed value, as a word for people, as
// JSON, and as a word that someone typed. Every record's fields are of these kinds; Schema.h says which.
//
// A word for people never holds a blank, so that columns can be taken apart with awk, and parseCell() takes
// back what appendText() writes.
#pragma once

#include "FlowTracking/HoFlowState.h"
#include "FlowTracking/IpFlowKey.h"
#include "Ip/IpAddr.h"
#include "Ip/Protocol.h"
#include "Nimbet/EthAddr.h"
#include "Nimbet/IntfId.h"
#include "Ovie/VlanTag.h"
#include "Zeb/Seconds.h"

#include <compare>
#include <cstdint>
#include <fmt/format.h>
#include <string>
#include <string_view>
#include <variant>

namespace Tool {

using std::uint64_t;

/// The alternatives stand in the order of Kind.
using Cell = std::variant<uint64_t, Zeb::Seconds, Ip::IpAddr, Ip::Ip6Addr, Ip::Protocol,
                          FlowTracking::TrafficDirection, FlowTracking::HoFlowState, Nimbet::IntfId,
                          Nimbet::EthAddr, Ovie::VlanTag>;

enum class Kind {
   number,
   time,
   address4,
   address6,
   protocol,
   direction,
   state,
   interface,
   ethernet,
   vlanTag
};

/// A kind, and for numbers the largest one.
struct CellType {
   Kind kind;
   uint64_t max = 0;
};

/// Appends the value as people write it: "10.0.0.1", "TCP", "2025-03-01T12:00:00.250000Z", "if7", "42".
void appendText(fmt::memory_buffer& out, Cell const& cell);
std::string cellText(Cell const& cell);

/// Appends the value as JSON: numbers and directions as integers, null for an interface or a tag that isn't
/// set, a tag as an object, everything else as text.
void appendJson(fmt::memory_buffer& out, Cell const& cell);

/// Reads what a person typed. @return false with what was expected in `expected`: "a port or number from 0 to
/// 65535"
bool parseCell(CellType type, std::string_view text, Cell& cell, std::string& expected);

/// Order of two cells of one kind. A VLAN tag is ordered by its id.
std::partial_ordering compareCells(Cell const& a, Cell const& b);

/// UTC with microseconds, or the plain number if it is no time between the years 1 and 9999.
std::string timeText(Zeb::Seconds seconds);

} // namespace Tool
