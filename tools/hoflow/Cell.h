// SPDX-License-Identifier: Apache-2.0
// One value of a row, in the four ways that the tool meets it: as a typed value, as a word for people, as
// JSON, and as a word that someone typed. Types with an alternative of Cell are shown as people write them:
// as a word without a blank, so that columns can be taken apart with awk, and parseCell() takes back what
// appendText() writes. A value of any other registered type is shown by its text form.
#pragma once

#include "FlowTracking/HoFlowState.h"
#include "FlowTracking/IpFlowKey.h"
#include "Ip/IpAddr.h"
#include "Ip/Protocol.h"
#include "Nimbet/EthAddr.h"
#include "Nimbet/IntfId.h"
#include "Ovie/VlanTag.h"
#include "Zeb/Seconds.h"
#include "Zeb/ZebType.h"

#include <compare>
#include <cstdint>
#include <fmt/format.h>
#include <string>
#include <string_view>
#include <variant>

namespace Tool {

using std::uint64_t;

/// The alternatives stand in the order of Kind. The last is a text form.
using Cell = std::variant<uint64_t, Zeb::Seconds, Ip::IpAddr, Ip::Ip6Addr, Ip::Protocol,
                          FlowTracking::TrafficDirection, FlowTracking::HoFlowState, Nimbet::IntfId,
                          Nimbet::EthAddr, Ovie::VlanTag, Zeb::String>;

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
   vlanTag,
   other
};

/// A registered type, and how its values become cells.
struct CellType {
   Zeb::ZebType type;
   Kind kind;
   uint64_t max = 0;                          ///< the largest number
   Cell (*read)(void const* value) = nullptr; ///< null for other types
   void (*assign)(Cell const& cell, void* to) = nullptr;
};

CellType cellTypeOf(Zeb::ZebType type);
/// @param value one of the type
Cell cellOf(CellType const& type, void const* value);
/// Assigns to the value at `to`, which is of the type, as the cell is.
void assignCell(CellType const& type, Cell const& cell, void* to);

/// Appends the value as people write it: "10.0.0.1", "TCP", "2025-03-01T12:00:00.250000Z", "if7", "42".
void appendText(fmt::memory_buffer& out, Cell const& cell);
std::string cellText(Cell const& cell);

/// Appends the value as JSON: numbers and directions as integers, null for an interface or a tag that isn't
/// set, a tag as an object, everything else as text.
void appendJson(fmt::memory_buffer& out, Cell const& cell);

/// Reads what a person typed. @return false with what was expected in `expected`: "a number from 0 to
/// 65535"
bool parseCell(CellType const& type, std::string_view text, Cell& cell, std::string& expected);

/// Order of two cells of one kind. A VLAN tag is ordered by its id; text forms are equal or unordered.
std::partial_ordering compareCells(Cell const& a, Cell const& b);

/// UTC with microseconds, or the plain number if it is no time between the years 1 and 9999.
std::string timeText(Zeb::Seconds seconds);

} // namespace Tool
