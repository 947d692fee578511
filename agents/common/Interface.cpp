// SPDX-License-Identifier: Apache-2.0
// Interface.h by libpcap, which never waits by itself here.
#include "Interface.h"

#include "Stop.h"

#include <net/if.h>
#include <pcap/pcap.h>

namespace Agents {
namespace {

constexpr int snapLength = 512;          // bytes of a frame: all headers of nearly all of them
constexpr int bufferBytes = 16 << 20;    // between the kernel and here
constexpr int deliveryMilliseconds = 50; // how long the kernel may gather packets

std::string interfaceNames() {
   char text[PCAP_ERRBUF_SIZE];
   pcap_if_t* all = nullptr;
   if (pcap_findalldevs(&all, text) != 0) return {};
   std::string names;
   for (auto const* at = all; at; at = at->next)
      if (if_nametoindex(at->name)) names += (names.empty() ? "" : ", ") + std::string(at->name);
   pcap_freealldevs(all);
   return names;
}

std::string whyNot(int result, std::string const& name, pcap_t* handle) {
   if (result == PCAP_ERROR_PERM_DENIED || result == PCAP_ERROR_PROMISC_PERM_DENIED)
      return name + ": no permission to capture; run it as root, or give the program the right to: "
                    "setcap cap_net_raw+ep PROGRAM, as root";
   if (result == PCAP_ERROR_NO_SUCH_DEVICE) {
      std::string const names = interfaceNames();
      return name + ": no such interface" + (names.empty() ? "" : "; there are " + names);
   }
   if (result == PCAP_ERROR_IFACE_NOT_UP)
      return name + ": the interface is down; ip link set " + name + " up";
   std::string const detail = pcap_geterr(handle);
   return name + ": " + pcap_statustostr(result) + (detail.empty() ? "" : ": " + detail);
}

} // namespace

Interface::Interface(std::string const& name) {
   char text[PCAP_ERRBUF_SIZE] = "";
   pcap_.reset(pcap_create(name.c_str(), text));
   if (!pcap_) throw CannotOpen(name + ": " + text);
   auto* const handle = pcap_.get();
   pcap_set_snaplen(handle, snapLength);
   pcap_set_promisc(handle, 1);
   pcap_set_timeout(handle, deliveryMilliseconds);
   pcap_set_buffer_size(handle, bufferBytes);
   pcap_set_tstamp_precision(handle, PCAP_TSTAMP_PRECISION_NANO);
   // Warnings are above 0: what could not be set is less than what was asked for, and works.
   if (int const result = pcap_activate(handle); result < 0) throw CannotOpen(whyNot(result, name, handle));
   if (pcap_setnonblock(handle, 1, text) != 0) throw CannotOpen(name + ": " + text);
   if (unsigned const index = if_nametoindex(name.c_str())) index_ = index;
}

void Interface::wait() { waitInLoop(pcap_get_selectable_fd(pcap_.get()), 1); }

std::uint64_t Interface::dropped() const {
   pcap_stat stat{};
   return pcap_stats(pcap_.get(), &stat) == 0 ? stat.ps_drop : 0;
}

} // namespace Agents
