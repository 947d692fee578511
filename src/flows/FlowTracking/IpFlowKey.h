// SPDX-License-Identifier: Apache-2.0
// FlowTracking::IpFlowKey and Ip6FlowKey: which flow a packet belongs to. They key the counter tables, and
// stand at the front of the keys of the config and status tables (HoFlowKeys.h).
//
// Layout (part of the table format; the same text for both families, only the addresses differ in width):
//
//    IPv4  IPv6  width   field
//       0     0      4   vrfId         0xffffff unless set
//       4     4      2   vlanId        outermost tag, 0 without one
//       6     6   4/16   srcAddr       in the order of the wire
//      10    22   4/16   dstAddr
//      14    38      2   without meaning
//      16    40      4   ipProtocol    Ip::Protocol as u32
//      20    44      2   srcPort       as a number, little-endian
//      22    46      2   dstPort
//      24    48      1   direction
//      25    49      3   without meaning
//
// Bytes without meaning are left alone by the constructors, take no part in comparison and hash, and travel
// with copies. Fields are read and written by value only: an address may lie at any offset.
#pragma once

#include "FlowTracking/FlowHash.h"
#include "Ip/IpAddr.h"
#include "Ip/Protocol.h"
#include "Ovie/VlanTag.h"
#include "Zeb/String.h"

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <sstream>
#include <type_traits>

namespace FlowTracking {

using VrfId = std::uint32_t;
using Ovie::VlanId;

/// Direction of a flow through the switch. A byte in the table; other values than these may be met.
enum class TrafficDirection : std::uint8_t { unspecified = 0, ingress = 1, egress = 2 };

/// The direction's name, or its number where it has none.
HOFLOW_EXPORT Zeb::String valueToStrep(TrafficDirection const& direction);
/// @throws Zeb::RangeException
HOFLOW_EXPORT TrafficDirection sequenceToValue(Zeb::String::IteratorConst& it,
                                               Zeb::String::IteratorConst const& end, TrafficDirection*);

template <class Addr> class HOFLOW_EXPORT BasicIpFlowKey {
public:
   using Address = Addr;
   static constexpr bool isIp6 = sizeof(Addr) == 16;
   static constexpr char const* typeName = isIp6 ? "FlowTracking::Ip6FlowKey" : "FlowTracking::IpFlowKey";

   BasicIpFlowKey()
      : vrfId_(0xffffff)
      , vlanId_(0)
      , srcAddr_()
      , dstAddr_()
      , ipProtocol_(Ip::Protocol::reserved)
      , srcPort_(0)
      , dstPort_(0)
      , direction_(TrafficDirection::unspecified) {}
   BasicIpFlowKey(VrfId vrfId, VlanId vlanId, Addr const& srcAddr, Addr const& dstAddr,
                  Ip::Protocol ipProtocol, std::uint16_t srcPort, std::uint16_t dstPort,
                  TrafficDirection direction = TrafficDirection::unspecified)
      : vrfId_(vrfId)
      , vlanId_(vlanId)
      , srcAddr_(srcAddr)
      , dstAddr_(dstAddr)
      , ipProtocol_(ipProtocol)
      , srcPort_(srcPort)
      , dstPort_(dstPort)
      , direction_(direction) {}
   /// Parses the text form and moves `it` behind it. @throws Zeb::SyntaxException, Zeb::RangeException
   BasicIpFlowKey(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end);

   VrfId vrfId() const { return vrfId_; }
   VlanId vlanId() const { return vlanId_; }
   Addr srcAddr() const { return srcAddr_; }
   Addr dstAddr() const { return dstAddr_; }
   Ip::Protocol ipProtocol() const { return ipProtocol_; }
   /// The protocol as the wire has it: the low byte of `ipProtocol`.
   std::uint8_t ipProtocolNumber() const { return Ip::number(ipProtocol_); }
   std::uint16_t srcPort() const { return srcPort_; }
   std::uint16_t dstPort() const { return dstPort_; }
   TrafficDirection direction() const { return direction_; }

   std::uint32_t hash(unsigned int seed) const noexcept {
      Words const w = words();
      if constexpr (isIp6)
         return FlowHash::hash6(seed, w.head, w.at[0], w.at[1], w.at[2], w.at[3], w.ports);
      else
         return FlowHash::hash4(seed, w.head, w.at[0], w.ports);
   }

   bool operator==(BasicIpFlowKey const& other) const noexcept {
      Words const a = words(), b = other.words();
      FlowHash::u64 differs = (a.head ^ b.head) | (a.ports ^ b.ports);
      for (unsigned i = 0; i < addressWords; ++i) differs |= a.at[i] ^ b.at[i];
      return differs == 0;
   }

   /// Field by field in the order of the layout, addresses by their bytes.
   bool operator<(BasicIpFlowKey const& other) const noexcept {
      if (vrfId_ != other.vrfId_) return vrfId_ < other.vrfId_;
      if (vlanId_ != other.vlanId_) return vlanId_ < other.vlanId_;
      if (srcAddr_ != other.srcAddr_) return srcAddr_ < other.srcAddr_;
      if (dstAddr_ != other.dstAddr_) return dstAddr_ < other.dstAddr_;
      if (ipProtocol_ != other.ipProtocol_) return ipProtocol_ < other.ipProtocol_;
      if (srcPort_ != other.srcPort_) return srcPort_ < other.srcPort_;
      if (dstPort_ != other.dstPort_) return dstPort_ < other.dstPort_;
      return direction_ < other.direction_;
   }

   /// For people: "vrf 0 vlan 42 TCP 10.0.0.1:80 -> 10.0.0.2:4711", with the direction where it is set.
   Zeb::String str() const {
      std::ostringstream out;
      char const* const open = isIp6 ? "[" : "";
      char const* const close = isIp6 ? "]" : "";
      out << "vrf " << vrfId_ << " vlan " << vlanId_ << ' ' << Ip::protocolText(ipProtocol_) << ' ' << open
          << srcAddr_ << close << ':' << srcPort_ << " -> " << open << dstAddr_ << close << ':' << dstPort_;
      if (direction_ != TrafficDirection::unspecified) out << " direction " << unsigned(direction_);
      return out.str();
   }

   static constexpr bool layoutHolds() {
      using K = BasicIpFlowKey;
      constexpr unsigned w = sizeof(Addr);
      static_assert(offsetof(K, vrfId_) == 0, "vrfId opens the key");
      static_assert(offsetof(K, vlanId_) == 4, "vlanId follows vrfId");
      static_assert(offsetof(K, srcAddr_) == 6, "addresses are packed behind vlanId");
      static_assert(offsetof(K, dstAddr_) == 6 + w, "addresses are packed behind vlanId");
      static_assert(offsetof(K, ipProtocol_) == 8 + 2 * w, "two bytes without meaning align the protocol");
      static_assert(offsetof(K, srcPort_) == 12 + 2 * w,
                    "hash and comparison read protocol and ports as a word");
      static_assert(offsetof(K, dstPort_) == 14 + 2 * w,
                    "hash and comparison read protocol and ports as a word");
      static_assert(offsetof(K, direction_) == 16 + 2 * w, "direction is the last field");
      static_assert(sizeof(K) == 20 + 2 * w && alignof(K) == 4, "rows reserve this much for the key");
      static_assert(std::is_trivially_copyable_v<K>, "rows are copied as bytes");
      return true;
   }

private:
   unsigned char const* bytes() const { return reinterpret_cast<unsigned char const*>(this); }
   static constexpr unsigned addressWords = sizeof(Addr) / 4;

   /// The bytes with a meaning. Loaded at multiples of 8 and shifted together: rows are copied in such words,
   /// and a load that straddles two stores has to wait until both are done.
   struct Words {
      FlowHash::u64 head; ///< vrfId, vlanId and direction, the top byte empty
      FlowHash::u64 at[addressWords];
      FlowHash::u64 ports; ///< protocol and ports
   };
   Words words() const {
      FlowHash::u64 const top = FlowHash::u64(direction_) << 48;
      FlowHash::u64 word = FlowHash::load64(bytes());
      Words w;
      w.head = (word & 0xffffffffffffu) | top;
      for (unsigned i = 0; i < addressWords; ++i) {
         FlowHash::u64 const next = FlowHash::load64(bytes() + 8 * (i + 1));
         w.at[i] = word >> 48 | next << 16;
         word = next;
      }
      w.ports = FlowHash::load64(bytes() + 8 + 2 * sizeof(Addr));
      return w;
   }

   VrfId vrfId_;
   VlanId vlanId_;
   Addr srcAddr_;
   Addr dstAddr_;
   [[maybe_unused]] unsigned char unused14_[2];
   Ip::Protocol ipProtocol_;
   std::uint16_t srcPort_;
   std::uint16_t dstPort_;
   TrafficDirection direction_;
   [[maybe_unused]] unsigned char unused25_[3];
};

using IpFlowKey = BasicIpFlowKey<Ip::IpAddr>;
using Ip6FlowKey = BasicIpFlowKey<Ip::Ip6Addr>;

HOFLOW_EXPORT Zeb::String valueToStrep(IpFlowKey const& value);
HOFLOW_EXPORT Zeb::String valueToStrep(Ip6FlowKey const& value);

/// For people. The text form that parses back is that of valueToStrep.
template <class Addr> std::ostream& operator<<(std::ostream& out, BasicIpFlowKey<Addr> const& key) {
   return out << key.str();
}

static_assert(IpFlowKey::layoutHolds() && Ip6FlowKey::layoutHolds(),
              "the layout is part of the table format");
static_assert(sizeof(IpFlowKey) == 28 && sizeof(Ip6FlowKey) == 52, "rows reserve this much for the key");

} // namespace FlowTracking
