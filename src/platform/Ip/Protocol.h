// SPDX-License-Identifier: Apache-2.0
// Ip::Protocol: the protocol of an IP packet as keys store it, a u32, and its names as people write them.
//
// A key may hold any u32. The number on the wire is its low byte; `number()` gives that. A value above 255
// has no name of its own.
#pragma once

#include "Lomi/Export.h"
#include "Zeb/String.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Ip {

enum class Protocol : std::uint32_t {
   hopByHop = 0,
   icmp = 1,
   igmp = 2,
   tcp = 6,
   udp = 17,
   routing = 43,
   fragment = 44,
   esp = 50,
   ah = 51,
   icmp6 = 58,
   noNextHeader = 59,
   destinationOptions = 60,
   sctp = 132,
   reserved = 255, // the default of a key: not known
};

inline std::uint8_t number(Protocol protocol) { return static_cast<std::uint8_t>(protocol); }

/// "TCP", "UDP", "ICMP", ...; empty for a value without a name.
HOFLOW_EXPORT std::string_view protocolName(Protocol protocol);

/// The name, or the value in decimal where it has none.
HOFLOW_EXPORT std::string protocolText(Protocol protocol);

/// The inverse, for what people type: a name in any case, or a decimal number. Nothing for other texts.
HOFLOW_EXPORT std::optional<Protocol> protocolFromText(std::string_view text);

inline Zeb::String valueToStrep(Protocol const& protocol) { return protocolText(protocol); }
/// @throws Zeb::RangeException
HOFLOW_EXPORT Protocol sequenceToValue(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end,
                                       Protocol*);

} // namespace Ip
