// SPDX-License-Identifier: Apache-2.0
// The tracker's main loop: packets of a capture, parsed, into the counters of both families. Takes tables by
// their RowStore interface, so that it can be tested without any.
#pragma once

#include "Capture.h"
#include "FlowCounter.h"
#include "FlowTracking/HoFlowCounter.h"
#include "Report.h"

#include <functional>

namespace Tracker {

/// Counts all of `capture`, whose link type must be a supported one. `pulse` is called with the number of
/// packets read, before the first and after each one; it returns false to stop the work, which leaves the
/// tables exact for the packets counted so far. Fills all figures but paths and time.
template <class Pulse>
void track(Capture& capture, RowStore<FlowTracking::HoIpFlowCounter>& table4,
           RowStore<FlowTracking::HoIp6FlowCounter>& table6, Figures& figures, Pulse pulse) {
   FlowCounter ip4(table4);
   FlowCounter ip6(table6);
   LinkLayer const layer = capture.linkLayer().value();
   Packet packet;
   Frame frame;
   figures.complete = false;
   while (pulse(capture.packets())) {
      if (!capture.next(packet)) {
         figures.complete = !capture.interrupted();
         break;
      }
      parseFrame(packet.captured, layer, frame);
      switch (frame.verdict) {
      case Verdict::ip4:
         ip4.count(frame.key4, frame.bytes, packet.time);
         break;
      case Verdict::ip6:
         ip6.count(frame.key6, frame.bytes, packet.time);
         break;
      case Verdict::notIp:
         ++figures.notIp;
         break;
      case Verdict::malformed:
         ++figures.malformed;
         break;
      }
   }
   // Stopped in the middle of a recount, a table stays as it was: what it holds isn't judged yet.
   if (figures.complete) {
      ip4.finish();
      ip6.finish();
   }
   figures.packetsRead = capture.packets();
   figures.damage = capture.damage();
   auto fill = [](FamilyFigures& family, auto const& counter) {
      family.flows = counter.rows();
      family.packets = counter.packets();
      family.bytes = counter.bytes();
      family.packetsKept = counter.packetsKept();
      family.rowsRemoved = counter.rowsRemoved();
      family.stores = counter.stores();
   };
   fill(figures.ip4, ip4);
   fill(figures.ip6, ip6);
}

} // namespace Tracker
