// SPDX-License-Identifier: Apache-2.0
// What capture files and interfaces have in common. See PacketSource.h.
#include "PacketSource.h"

#include "Stop.h"

#include <pcap/pcap.h>

namespace Agents {

void PacketSource::Close::operator()(pcap* handle) const { pcap_close(handle); }

bool PacketSource::next(Packet& packet) {
   if (damage_) return false;
   pcap_pkthdr* header = nullptr;
   unsigned char const* bytes = nullptr;
   int result;
   while ((result = pcap_next_ex(pcap_.get(), &header, &bytes)) == 0) {
      wait();
      if (stopRequested()) return false;
   }
   if (result != 1) {
      if (result == PCAP_ERROR && !stopRequested()) damage_ = pcap_geterr(pcap_.get());
      return false;
   }
   ++packets_;
   packet.captured = {bytes, header->caplen};
   packet.time = static_cast<double>(header->ts.tv_sec) + static_cast<double>(header->ts.tv_usec) / 1e9;
   return true;
}

std::optional<LinkLayer> PacketSource::linkLayer() const { return linkLayerOf(pcap_datalink(pcap_.get())); }

std::string PacketSource::linkTypeText() const {
   int const dlt = pcap_datalink(pcap_.get());
   char const* const name = pcap_datalink_val_to_name(dlt);
   return (name ? name : "unnamed") + (" (" + std::to_string(dlt) + ")");
}

} // namespace Agents
