// SPDX-License-Identifier: Apache-2.0
// The parser of Frame.h. Every read goes through `Bytes`, which knows where the captured bytes end.
#include "Frame.h"

#include <array>
#include <cstring>

namespace Agents {
namespace {

using std::uint16_t;
using std::uint32_t;
using std::uint8_t;

/// What is left of a frame. `has` before every read.
class Bytes {
public:
   explicit Bytes(std::span<unsigned char const> bytes)
      : at_(bytes.data())
      , size_(bytes.size()) {}

   std::size_t size() const { return size_; }
   bool has(std::size_t count) const { return size_ >= count; }
   void skip(std::size_t count) { at_ += count, size_ -= count; }
   uint8_t u8(std::size_t offset) const { return at_[offset]; }
   uint16_t u16(std::size_t offset) const {
      return static_cast<uint16_t>(at_[offset] << 8 | at_[offset + 1]);
   }
   unsigned char const* at(std::size_t offset) const { return at_ + offset; }
   Nimbet::EthAddr ethAddr(std::size_t offset) const {
      std::array<uint8_t, 6> bytes;
      std::memcpy(bytes.data(), at_ + offset, bytes.size());
      return Nimbet::EthAddr(bytes);
   }

private:
   unsigned char const* at_;
   std::size_t size_;
};

constexpr uint16_t etherIp4 = 0x0800, etherIp6 = 0x86dd, etherVlan = 0x8100, etherProviderVlan = 0x88a8;

constexpr bool hasPorts(uint8_t protocol) { return protocol == 6 || protocol == 17 || protocol == 132; }

struct Ports {
   uint16_t src = 0, dst = 0;
};

/// The ports at `offset` of the IP packet if they were captured and belong to its `length` bytes.
Ports portsAt(Bytes const& packet, std::size_t offset, std::size_t length) {
   if (!packet.has(offset + 4) || length < offset + 4) return {};
   return {packet.u16(offset), packet.u16(offset + 2)};
}

void parseIp4(Bytes const& packet, Ovie::VlanId vlanId, Frame& frame) {
   frame.verdict = Verdict::malformed;
   if (!packet.has(20)) return;
   std::size_t const header = std::size_t{4} * (packet.u8(0) & 15u);
   std::size_t const length = packet.u16(2);
   if (packet.u8(0) >> 4 != 4 || header < 20 || length < header) return;
   uint8_t const protocol = packet.u8(9);
   bool const fragment = packet.u16(6) & 0x3fff; // more to come, or an offset
   Ports const ports = hasPorts(protocol) && !fragment ? portsAt(packet, header, length) : Ports();
   frame.verdict = Verdict::ip4;
   frame.bytes = length;
   frame.key4 = FlowTracking::IpFlowKey(0, vlanId, Ip::IpAddr::fromWire(packet.at(12)),
                                        Ip::IpAddr::fromWire(packet.at(16)), Ip::Protocol(protocol),
                                        ports.src, ports.dst);
}

struct Transport {
   uint8_t protocol;
   std::size_t offset; // of its header from the start of the packet
   bool fragment = false;
};

/// Walks the extension headers as far as they were captured. Each is at least 8 bytes, so the walk ends.
Transport skipExtensions(Bytes const& packet) {
   Transport transport{packet.u8(6), 40};
   for (;;) {
      std::size_t const at = transport.offset;
      switch (transport.protocol) {
      case 0:  // hop-by-hop options
      case 43: // routing
      case 60: // destination options
         if (!packet.has(at + 2)) return transport;
         transport.offset = at + std::size_t{8} * (packet.u8(at + 1) + 1u);
         break;
      case 51: // authentication, which counts in words of 4 bytes
         if (!packet.has(at + 2)) return transport;
         transport.offset = at + std::size_t{4} * (packet.u8(at + 1) + 2u);
         break;
      case 44: { // fragment
         if (!packet.has(at + 4)) return transport;
         uint16_t const place = packet.u16(at + 2);
         transport.fragment |= (place & 0xfff9) != 0; // an offset, or more to come
         transport.offset = at + 8;
         if (place & 0xfff8) { // what follows is not the start of a header
            transport.protocol = packet.u8(at);
            return transport;
         }
         break;
      }
      default:
         return transport;
      }
      transport.protocol = packet.u8(at);
   }
}

void parseIp6(Bytes const& packet, Ovie::VlanId vlanId, Frame& frame) {
   frame.verdict = Verdict::malformed;
   if (!packet.has(40) || packet.u8(0) >> 4 != 6) return;
   std::size_t const length = packet.u16(4) + std::size_t(40);
   Transport const transport = skipExtensions(packet);
   Ports const ports = hasPorts(transport.protocol) && !transport.fragment
                           ? portsAt(packet, transport.offset, length)
                           : Ports();
   frame.verdict = Verdict::ip6;
   frame.bytes = length;
   frame.key6 = FlowTracking::Ip6FlowKey(0, vlanId, Ip::Ip6Addr::fromWire(packet.at(8)),
                                         Ip::Ip6Addr::fromWire(packet.at(24)),
                                         Ip::Protocol(transport.protocol), ports.src, ports.dst);
}

/// The network header behind an EtherType and the tags that it may announce.
void parseEtherType(Bytes rest, uint16_t etherType, Frame& frame) {
   Ovie::VlanId vlanId = 0;
   for (unsigned depth = 0; etherType == etherVlan || etherType == etherProviderVlan; ++depth) {
      if (!rest.has(4)) return; // what is behind the tag wasn't captured: not known to be IP
      Ovie::VlanTag const tag(rest.u16(0), etherType, static_cast<uint8_t>(depth));
      if (depth == 0) {
         vlanId = tag.vlanId();
         frame.vlanTag = tag;
      } else if (depth == 1) {
         frame.customerVlanTag = tag;
      }
      etherType = rest.u16(2);
      rest.skip(4);
   }
   if (etherType == etherIp4) parseIp4(rest, vlanId, frame);
   if (etherType == etherIp6) parseIp6(rest, vlanId, frame);
}

/// The address family of a loopback frame: that of IPv6 differs from system to system.
void parseFamily(Bytes rest, Frame& frame) {
   if (!rest.has(4)) return;
   uint16_t const high = rest.u16(0), low = rest.u16(2);
   if (high != 0 && low != 0) return;
   // Big-endian in the last byte, little-endian in the first.
   unsigned const family = high == 0 ? low : static_cast<unsigned>(high >> 8 | (high & 0xff) << 8);
   rest.skip(4);
   if (family == 2) parseIp4(rest, 0, frame);
   if (family == 10 || family == 24 || family == 28 || family == 30) parseIp6(rest, 0, frame);
}

void parsePpp(Bytes rest, Frame& frame) {
   if (rest.has(2) && rest.u16(0) == 0xff03) rest.skip(2);
   if (!rest.has(1)) return;
   unsigned protocol = rest.u8(0);
   std::size_t size = 1; // a protocol of one byte is odd
   if (!(protocol & 1)) {
      if (!rest.has(2)) return;
      protocol = rest.u16(0);
      size = 2;
   }
   rest.skip(size);
   if (protocol == 0x21) parseIp4(rest, 0, frame);
   if (protocol == 0x57) parseIp6(rest, 0, frame);
}

void parseRaw(Bytes const& rest, Frame& frame) {
   frame.verdict = Verdict::malformed;
   if (!rest.has(1)) return;
   if (rest.u8(0) >> 4 == 4) parseIp4(rest, 0, frame);
   if (rest.u8(0) >> 4 == 6) parseIp6(rest, 0, frame);
}

} // namespace

std::optional<LinkLayer> linkLayerOf(int dlt) {
   switch (dlt) {
   case 1:
      return LinkLayer::ethernet; // EN10MB
   case 113:
      return LinkLayer::cooked; // LINUX_SLL
   case 276:
      return LinkLayer::cooked2; // LINUX_SLL2
   case 0:                       // NULL
   case 108:
      return LinkLayer::loopback; // LOOP
   case 9:                        // PPP
   case 50:
      return LinkLayer::ppp; // PPP_SERIAL
   case 104:
      return LinkLayer::ciscoHdlc; // C_HDLC
   case 12:                        // RAW, as some systems number it
   case 101:
      return LinkLayer::raw; // RAW
   case 228:
      return LinkLayer::rawIp4; // IPV4
   case 229:
      return LinkLayer::rawIp6; // IPV6
   default:
      return std::nullopt;
   }
}

void parseFrame(std::span<unsigned char const> captured, LinkLayer layer, Frame& frame) {
   frame.verdict = Verdict::notIp;
   frame.srcEthAddr = frame.dstEthAddr = {};
   frame.vlanTag = frame.customerVlanTag = {};
   Bytes rest(captured);
   /// An EtherType at `offset` of a link header of `size` bytes.
   auto behind = [&](std::size_t offset, std::size_t size) {
      if (!rest.has(size)) return;
      uint16_t const etherType = rest.u16(offset);
      rest.skip(size);
      parseEtherType(rest, etherType, frame);
   };
   constexpr uint16_t netlink = 824; // cooked frames of this device type carry a netlink family, no EtherType
   switch (layer) {
   case LinkLayer::ethernet:
      if (rest.has(12)) {
         frame.dstEthAddr = rest.ethAddr(0);
         frame.srcEthAddr = rest.ethAddr(6);
      }
      return behind(12, 14);
   case LinkLayer::cooked:
      return rest.has(4) && rest.u16(2) == netlink ? void() : behind(14, 16);
   case LinkLayer::cooked2:
      return rest.has(10) && rest.u16(8) == netlink ? void() : behind(0, 20);
   case LinkLayer::ciscoHdlc:
      return behind(2, 4);
   case LinkLayer::loopback:
      return parseFamily(rest, frame);
   case LinkLayer::ppp:
      return parsePpp(rest, frame);
   case LinkLayer::raw:
      return parseRaw(rest, frame);
   case LinkLayer::rawIp4:
      return parseIp4(rest, 0, frame);
   case LinkLayer::rawIp6:
      return parseIp6(rest, 0, frame);
   }
}

} // namespace Agents
