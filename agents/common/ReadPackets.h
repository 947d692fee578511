// SPDX-License-Identifier: Apache-2.0
// The agents' main loop: packets of a source, parsed, to whoever wants them.
#pragma once

#include "Figures.h"
#include "PacketSource.h"
#include "Stop.h"

namespace Agents {

/// Reads all of `source`, whose link type must be a supported one. `use(key, frame, time)` takes each IP
/// packet; the key is an IpFlowKey or an Ip6FlowKey. `pulse` is called with the number of packets read,
/// before the first and after each one; it returns false to stop the work.
template <class Use, class Pulse>
void readPackets(PacketSource& source, Reading& reading, Use use, Pulse pulse) {
   LinkLayer const layer = source.linkLayer().value();
   Packet packet;
   Frame frame;
   bool more = true;
   reading.complete = false;
   while (pulse(source.packets()) && (more = source.next(packet))) {
      parseFrame(packet.captured, layer, frame);
      switch (frame.verdict) {
      case Verdict::ip4:
         use(frame.key4, frame, packet.time);
         break;
      case Verdict::ip6:
         use(frame.key6, frame, packet.time);
         break;
      case Verdict::notIp:
         ++reading.notIp;
         break;
      case Verdict::malformed:
         ++reading.malformed;
         break;
      }
   }
   reading.complete = !more && !stopRequested();
   reading.packetsRead = source.packets();
   reading.dropped = source.dropped();
   reading.damage = source.damage();
}

/// Reads all of a source of whose packets nothing can be said.
inline void skipPackets(PacketSource& source, Reading& reading) {
   Packet packet;
   while (!stopRequested() && source.next(packet)) ++reading.linkType;
   reading.complete = !stopRequested();
   reading.packetsRead = source.packets();
   reading.damage = source.damage();
}

} // namespace Agents
