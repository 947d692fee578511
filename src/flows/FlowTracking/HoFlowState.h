// SPDX-License-Identifier: Apache-2.0
// FlowTracking::HoFlowState: the offload state of a flow, one byte in keys and records. The numbers are part
// of the table format; a byte that names no state may be met and is printed as its number.
#pragma once

#include "Lomi/Export.h"
#include "Zeb/String.h"

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace FlowTracking {

enum class HoFlowState : std::uint8_t {
   unknown = 0,   // nothing is known of the flow yet
   pending = 1,   // handed to the hardware, no answer yet
   offloaded = 2, // the hardware forwards and counts it
   rejected = 3,  // the hardware has no room for it, or can't
   removing = 4,  // being taken out of the hardware
};

inline constexpr std::string_view hoFlowStateNames[] = {"unknown", "pending", "offloaded", "rejected",
                                                        "removing"};

/// The state's name, or its number where it has none.
inline std::string hoFlowStateText(HoFlowState state) {
   auto const number = static_cast<unsigned>(state);
   return number < std::size(hoFlowStateNames) ? std::string(hoFlowStateNames[number])
                                               : std::to_string(number);
}

/// The inverse: a name, or a number from 0 to 255. Nothing for other texts.
inline std::optional<HoFlowState> hoFlowStateFromText(std::string_view text) {
   for (unsigned number = 0; number < 256; ++number)
      if (hoFlowStateText(static_cast<HoFlowState>(number)) == text || std::to_string(number) == text)
         return static_cast<HoFlowState>(number);
   return std::nullopt;
}

inline std::ostream& operator<<(std::ostream& out, HoFlowState state) {
   return out << hoFlowStateText(state);
}

inline Zeb::String valueToStrep(HoFlowState const& state) { return hoFlowStateText(state); }
/// @throws Zeb::RangeException
HOFLOW_EXPORT HoFlowState sequenceToValue(Zeb::String::IteratorConst& it,
                                          Zeb::String::IteratorConst const& end, HoFlowState*);

} // namespace FlowTracking
