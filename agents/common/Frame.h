// SPDX-License-Identifier: Apache-2.0
// From the bytes of a captured frame to the flow that it belongs to, or the reason why it isn't counted. A
// pure function: no state, no allocation, never a read beyond the captured bytes, whatever they are.
// fuzz/frame holds it to that. Where frames come from is PacketSource.h's part.
//
// What counts as an IP packet: a frame whose outermost network header, behind the link layer and any number
// of 802.1Q or 802.1ad tags, is IPv4 or IPv6. IP behind anything else (MPLS, PPPoE, LLC) is not counted, nor
// are the inner packets of tunnels. Malformed, and not counted: IPv4 with a version other than 4, a header
// length below 20, a total length below the header length, or an address that wasn't captured; IPv6 with a
// version other than 6 or an address that wasn't captured. Checksums are not looked at.
//
// What the flow is: the VLAN id of the outermost tag (0 without one); the protocol, for IPv6 that behind the
// extension headers; the ports of TCP, UDP and SCTP, if they lie inside the captured bytes and inside the
// length that the IP header gives, else 0. Every fragment has ports 0, also the first; an IPv6 fragment
// header with offset 0 and no more fragments to come makes no fragment.
#pragma once

#include "FlowTracking/IpFlowKey.h"
#include "Nimbet/EthAddr.h"
#include "Ovie/VlanTag.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace Agents {

/// How a frame begins. Several link types of captures share one of these.
enum class LinkLayer {
   ethernet,  // two addresses, then an EtherType
   cooked,    // Linux "any" device: 16 bytes, EtherType at 14
   cooked2,   // its second version: 20 bytes, EtherType at 0
   loopback,  // 4 bytes with the address family, in either byte order
   ppp,       // an optional address and control, then a protocol of 1 or 2 bytes
   ciscoHdlc, // address and control, then an EtherType
   raw,       // no link layer; the version in the first byte says which IP
   rawIp4,    // no link layer, IPv4
   rawIp6,    // no link layer, IPv6
};

/// The layer of a link type as libpcap numbers it (DLT_...), nothing if it isn't supported.
std::optional<LinkLayer> linkLayerOf(int dlt);

enum class Verdict { ip4, ip6, notIp, malformed };

struct Frame {
   Verdict verdict = Verdict::notIp;
   FlowTracking::IpFlowKey key4;  // if ip4
   FlowTracking::Ip6FlowKey key6; // if ip6
   std::uint64_t bytes = 0;       // of the IP packet by its header, whatever was captured; if ip4 or ip6
   // Of an Ethernet frame, zeros on other link layers.
   Nimbet::EthAddr srcEthAddr, dstEthAddr;
   // The outermost VLAN tag and the one behind it, not set where there is none; if ip4 or ip6.
   Ovie::VlanTag vlanTag, customerVlanTag;
};

/// Fills `frame` from the captured bytes of one frame. vrfId and direction of the keys are 0.
void parseFrame(std::span<unsigned char const> captured, LinkLayer layer, Frame& frame);

} // namespace Agents
