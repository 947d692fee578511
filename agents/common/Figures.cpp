// SPDX-License-Identifier: Apache-2.0
// Figures.h: texts only.
#include "Figures.h"

#include "Report.h"

#include <fmt/format.h>

namespace Agents {

using Json = nlohmann::ordered_json;
using FlowTracking::HoFlowState;

std::string line(std::string_view name, std::string_view text) {
   return fmt::format("{:>16}  {}\n", name, text);
}

std::string toText(Figures const& f) {
   auto sum = [&](std::uint64_t FamilyFigures::*field) { return f.ip4.*field + f.ip6.*field; };
   auto both = [&](char const* name, std::uint64_t FamilyFigures::*field) {
      return line(name, groupedSum(f.ip4.*field, f.ip6.*field));
   };
   std::string text = line("capture", f.capture + ", " + grouped(f.packetsRead) + " packets read");
   if (f.dropped) text += line("lost", grouped(f.dropped) + " packets that came too fast");
   text += both("flows", &FamilyFigures::flows);
   text += both("packets", &FamilyFigures::packets);
   text += both("bytes", &FamilyFigures::bytes);
   if (sum(&FamilyFigures::packetsKept)) text += both("kept", &FamilyFigures::packetsKept);
   text += line("not counted", fmt::format("{} (no IP {}, malformed {}, link type not supported {})",
                                           grouped(f.notIp + f.malformed + f.linkType), grouped(f.notIp),
                                           grouped(f.malformed), grouped(f.linkType)));
   auto const stores = sum(&FamilyFigures::stores);
   text +=
       line("rows a second",
            fmt::format("{} ({} rows stored in {:.3f} s)",
                        f.seconds > 0 ? grouped(static_cast<std::uint64_t>(double(stores) / f.seconds)) : "-",
                        grouped(stores), f.seconds));
   return text;
}

Json toJson(Figures const& f) {
   auto family = [](FamilyFigures const& ip) {
      return Json{{"table", ip.table},
                  {"flows", ip.flows},
                  {"packets", ip.packets},
                  {"bytes", ip.bytes},
                  {"packetsKept", ip.packetsKept},
                  {"rowsRemoved", ip.rowsRemoved},
                  {"rowsStored", ip.stores}};
   };
   auto const stores = f.ip4.stores + f.ip6.stores;
   Json json{{"capture", f.capture},
             {"root", f.root},
             {"packetsRead", f.packetsRead},
             {"flows", f.ip4.flows + f.ip6.flows},
             {"packets", f.ip4.packets + f.ip6.packets},
             {"bytes", f.ip4.bytes + f.ip6.bytes},
             {"packetsKept", f.ip4.packetsKept + f.ip6.packetsKept},
             {"ip4", family(f.ip4)},
             {"ip6", family(f.ip6)},
             {"notCounted", {{"notIp", f.notIp}, {"malformed", f.malformed}, {"linkType", f.linkType}}},
             {"lost", f.dropped},
             {"seconds", f.seconds},
             {"rowsPerSecond", f.seconds > 0 ? double(stores) / f.seconds : 0.0},
             {"complete", f.complete}};
   if (f.damage) json["damage"] = {{"packet", f.packetsRead + 1}, {"text", *f.damage}};
   return json;
}

std::string statesText(StateCounts const& counts) {
   std::string text;
   for (std::size_t number = 0; number < counts.size(); ++number)
      if (counts[number])
         text += (text.empty() ? "" : ", ") + grouped(counts[number]) + " " +
                 hoFlowStateText(static_cast<HoFlowState>(number));
   return text.empty() ? "none" : text;
}

Json statesJson(StateCounts const& counts) {
   Json json = Json::object();
   for (std::size_t number = 0; number < counts.size(); ++number)
      json[hoFlowStateText(static_cast<HoFlowState>(number))] = counts[number];
   return json;
}

std::string dumped(Json const& json) {
   return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace Agents
