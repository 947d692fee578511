// SPDX-License-Identifier: Apache-2.0
// What the tracker does with its packets: count them, choose flows by them, or both. Takes tables by their
// RowStore interface, so that it can be tested without any.
#pragma once

#include "Choice.h"
#include "FlowCounter.h"
#include "FlowTracking/HoFlowConfig.h"
#include "FlowTracking/HoFlowCounter.h"
#include "ReadPackets.h"

#include <optional>

namespace Tracker {

/// One family's work. Either may be missing.
template <class Counter, class Config> struct Work {
   std::optional<FlowCounter<Counter>> counter;
   std::optional<Choice<Config>> choice;

   template <class Key> void packet(Key const& key, Agents::Frame const& frame, Zeb::Seconds time) {
      if (counter) counter->count(key, frame.bytes, time);
      if (choice) choice->packet(key, frame, time);
   }
   void finish() {
      if (counter) counter->finish();
      if (choice) choice->finish();
   }
   void fill(Agents::FamilyFigures& figures) const {
      if (counter) {
         figures.flows = counter->rows();
         figures.packets = counter->packets();
         figures.bytes = counter->bytes();
         figures.packetsKept = counter->packetsKept();
         figures.rowsRemoved = counter->rowsRemoved();
         figures.stores = counter->stores();
      } else if (choice) {
         figures.flows = choice->flows();
         figures.packets = choice->packets();
         figures.bytes = choice->bytes();
      }
   }
};

struct Works {
   Work<FlowTracking::HoIpFlowCounter, FlowTracking::HoIpFlowConfig> ip4;
   Work<FlowTracking::HoIp6FlowCounter, FlowTracking::HoIp6FlowConfig> ip6;
};

/// Gives all packets of `source` to the work, as Agents::readPackets does. A stop leaves the tables exact for
/// the packets read so far. Fills all figures but paths and time.
template <class Pulse>
void track(Agents::PacketSource& source, Works& works, Agents::Figures& figures, Pulse pulse) {
   auto const use = [&](auto const& key, Agents::Frame const& frame, Zeb::Seconds time) {
      if constexpr (std::is_same_v<decltype(key), FlowTracking::IpFlowKey const&>)
         works.ip4.packet(key, frame, time);
      else
         works.ip6.packet(key, frame, time);
   };
   Agents::readPackets(source, figures, use, pulse);
   // Stopped in the middle of a recount, a table stays as it was: what it holds isn't judged yet.
   if (figures.complete) {
      works.ip4.finish();
      works.ip6.finish();
   }
   works.ip4.fill(figures.ip4);
   works.ip6.fill(figures.ip6);
}

} // namespace Tracker
