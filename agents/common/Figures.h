// SPDX-License-Identifier: Apache-2.0
// What an agent has to say at its end of the packets that it read and the counters that it wrote: lines of a
// table for people, and a JSON object for programs. Each agent adds its own.
#pragma once

#include "Tables.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace Agents {

struct FamilyFigures {
   std::string table;         // its path below the root
   std::uint64_t flows = 0;   // rows that the table holds
   std::uint64_t packets = 0; // that the rows amount to
   std::uint64_t bytes = 0;
   std::uint64_t packetsKept = 0; // counted by an earlier run and taken over
   std::uint64_t rowsRemoved = 0; // found in the table and not accounted for by this capture
   std::uint64_t stores = 0;      // rows stored by this run
};

/// What became of the packets of a source.
struct Reading {
   std::uint64_t packetsRead = 0;
   std::uint64_t notIp = 0, malformed = 0, linkType = 0; // not counted, by reason
   std::uint64_t dropped = 0;                            // by the system, of an interface
   std::optional<std::string> damage;                    // of packet `packetsRead + 1`
   bool complete = true; // the whole source was read, or all of it up to a damage
};

struct Figures : Reading {
   std::string capture, root;
   FamilyFigures ip4, ip6;
   double seconds = 0;
};

/// "            name  text\n".
std::string line(std::string_view name, std::string_view text);

std::string toText(Figures const& figures);
nlohmann::ordered_json toJson(Figures const& figures);

/// The states that flows are in: "3 offloaded, 1 rejected"; "none" if there is no flow.
std::string statesText(StateCounts const& counts);
nlohmann::ordered_json statesJson(StateCounts const& counts);

/// One line. File names and libpcap's words may hold any bytes.
std::string dumped(nlohmann::ordered_json const& json);

} // namespace Agents
