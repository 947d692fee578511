// SPDX-License-Identifier: Apache-2.0
// The frame parser: plain packets, each link layer, and every cut, in a buffer of exactly that length, so
// that a read beyond it is seen by the address sanitizer. A cut must change nothing but the ports and, for
// IPv6, how far the extension headers are known. The rules within Ethernet and IP are tried in
// FrameRandomTest.cpp.
#include "Frame.h"
#include "Packets.h"

#include <gtest/gtest.h>
#include <memory>

namespace Agents {
namespace {

using namespace Packets;

Frame parse(Bytes const& frame, LinkLayer layer = LinkLayer::ethernet) {
   std::unique_ptr<unsigned char[]> const exact(new unsigned char[frame.size()]);
   std::copy(frame.begin(), frame.end(), exact.get());
   Frame result;
   parseFrame({exact.get(), frame.size()}, layer, result);
   return result;
}

/// "4 vlan protocol src:port > dst:port bytes", "6 ...", "no IP", "malformed".
std::string text(Frame const& frame) {
   auto flow = [&](char const* family, auto const& key) {
      return fmt::format("{} {} {} {}:{} > {}:{} {}", family, key.vlanId(), key.ipProtocolNumber(),
                         key.srcAddr().str().view(), key.srcPort(), key.dstAddr().str().view(), key.dstPort(),
                         frame.bytes);
   };
   switch (frame.verdict) {
   case Verdict::ip4:
      return flow("4", frame.key4);
   case Verdict::ip6:
      return flow("6", frame.key6);
   case Verdict::notIp:
      return "no IP";
   case Verdict::malformed:
      return "malformed";
   }
   return "?";
}

std::string text(Bytes const& frame, LinkLayer layer = LinkLayer::ethernet) {
   return text(parse(frame, layer));
}

std::string const tcp4 = "4 0 6 10.0.0.1:1234 > 10.0.0.2:80 40";
std::string const tcp6 = "6 0 6 2001:db8::1:1234 > 2001:db8::2:80 60";
Bytes const ip4 = ethernet(0x0800), ip6 = ethernet(0x86dd);

TEST(Frame, PlainPackets) {
   EXPECT_EQ(text(ip4 + Ip4{}.bytes()), tcp4);
   EXPECT_EQ(text(ip6 + Ip6{}.bytes()), tcp6);
   Frame const frame = parse(ip4 + Ip4{}.bytes());
   EXPECT_EQ(frame.key4.vrfId(), 0u);
   EXPECT_EQ(frame.key4.direction(), FlowTracking::TrafficDirection(0));
   EXPECT_EQ(text(ip4 + Ip4{.protocol = 17}.bytes() + zeros(30)), "4 0 17 10.0.0.1:1234 > 10.0.0.2:80 40");
   EXPECT_EQ(text(ip4 + Ip4{.protocol = 132}.bytes()), "4 0 132 10.0.0.1:1234 > 10.0.0.2:80 40");
   for (unsigned protocol : {1u, 2u, 4u, 41u, 47u, 51u, 136u})
      EXPECT_EQ(text(ip4 + Ip4{.protocol = protocol}.bytes()),
                fmt::format("4 0 {} 10.0.0.1:0 > 10.0.0.2:0 40", protocol));
   EXPECT_EQ(text(ip4 + Ip4{.versionAndLength = 0x4f}.bytes()), "4 0 6 10.0.0.1:1234 > 10.0.0.2:80 80");
}

TEST(Frame, AddressesAndTags) {
   auto tags = [](std::initializer_list<std::pair<unsigned, unsigned>> list) {
      Frame const frame = parse(ethernet(0x0800, list) + Ip4{}.bytes());
      EXPECT_EQ(frame.srcEthAddr.str().view(), "02:00:00:00:00:02");
      EXPECT_EQ(frame.dstEthAddr.str().view(), "02:00:00:00:00:01");
      return fmt::format("{} / {}", frame.vlanTag.str().view(), frame.customerVlanTag.str().view());
   };
   EXPECT_EQ(tags({}), "none / none");
   EXPECT_EQ(tags({{0x8100, 0x602a}}), "42 priority 3 / none");
   EXPECT_EQ(tags({{0x88a8, 10}, {0x8100, 0x1014}, {0x8100, 30}}),
             "10 protocol 0x88a8 / 20 drop-eligible depth 1");
   Frame frame = parse(ethernet(0x0800, {{0x8100, 7}}) + Ip4{}.bytes());
   parseFrame(Ip4{}.bytes(), LinkLayer::raw, frame); // nothing of the last frame stays
   EXPECT_EQ(frame.srcEthAddr, Nimbet::EthAddr());
   EXPECT_FALSE(frame.vlanTag.isSet());
}

TEST(Frame, LinkLayers) {
   Bytes const four = Ip4{}.bytes(), six = Ip6{}.bytes();
   auto cooked = [](unsigned device, unsigned etherType) {
      return be16(0) + be16(device) + be16(6) + zeros(8) + be16(etherType);
   };
   auto cooked2 = [](unsigned device, unsigned etherType) {
      return be16(etherType) + zeros(2) + zeros(4) + be16(device) + Bytes{0, 6} + zeros(8);
   };
   EXPECT_EQ(text(cooked(1, 0x0800) + four, LinkLayer::cooked), tcp4);
   EXPECT_EQ(text(cooked(1, 0x8100) + be16(42) + be16(0x0800) + four, LinkLayer::cooked),
             "4 42 6 10.0.0.1:1234 > 10.0.0.2:80 40");
   EXPECT_EQ(text(cooked(1, 4) + four, LinkLayer::cooked), "no IP");
   EXPECT_EQ(text(cooked(824, 0x0800) + four, LinkLayer::cooked), "no IP");
   EXPECT_EQ(text(cooked2(1, 0x86dd) + six, LinkLayer::cooked2), tcp6);
   EXPECT_EQ(text(cooked2(824, 0x86dd) + six, LinkLayer::cooked2), "no IP");
   for (auto const& header : {le32(2), Bytes{0, 0, 0, 2}})
      EXPECT_EQ(text(header + four, LinkLayer::loopback), tcp4);
   for (unsigned family : {10u, 24u, 28u, 30u})
      EXPECT_EQ(text(le32(family) + six, LinkLayer::loopback), tcp6);
   EXPECT_EQ(text(le32(2) + six, LinkLayer::loopback), "malformed");
   EXPECT_EQ(text(le32(7) + four, LinkLayer::loopback), "no IP");
   EXPECT_EQ(text(Bytes{0xff, 3, 0, 0x21} + four, LinkLayer::ppp), tcp4);
   EXPECT_EQ(text(Bytes{0x21} + four, LinkLayer::ppp), tcp4);
   EXPECT_EQ(text(Bytes{0, 0x57} + six, LinkLayer::ppp), tcp6);
   EXPECT_EQ(text(Bytes{0xc0, 0x21} + four, LinkLayer::ppp), "no IP");
   EXPECT_EQ(text(Bytes{0xf, 0, 8, 0} + four, LinkLayer::ciscoHdlc), tcp4);
   EXPECT_EQ(text(four, LinkLayer::raw), tcp4);
   EXPECT_EQ(text(six, LinkLayer::raw), tcp6);
   EXPECT_EQ(text(Bytes{0x50} + zeros(60), LinkLayer::raw), "malformed");
   EXPECT_EQ(text(six, LinkLayer::rawIp4), "malformed");
   EXPECT_EQ(text(six, LinkLayer::rawIp6), tcp6);
   EXPECT_EQ(linkLayerOf(1), LinkLayer::ethernet);
   EXPECT_EQ(linkLayerOf(12), LinkLayer::raw);
   EXPECT_FALSE(linkLayerOf(105)) << "802.11";
}

TEST(Frame, EveryCut) {
   Bytes const chained =
       Ip6{.nextHeader = 0,
           .payload = Bytes{44, 0} + zeros(6) + Bytes{17, 0} + be16(0) + zeros(4) + be16(9) + be16(10)}
           .bytes();
   struct Case {
      Bytes frame;
      LinkLayer layer;
      std::size_t addressesEnd, portsEnd;
      std::string whole;
   } const cases[] = {
       {ip4 + Ip4{}.bytes(), LinkLayer::ethernet, 34, 38, tcp4},
       {ethernet(0x86dd, {{0x88a8, 1}, {0x8100, 2}}) + Ip6{}.bytes(), LinkLayer::ethernet, 62, 66,
        "6 1 6 2001:db8::1:1234 > 2001:db8::2:80 60"},
       {ip6 + chained, LinkLayer::ethernet, 54, 74, "6 0 17 2001:db8::1:9 > 2001:db8::2:10 60"},
       {le32(2) + Ip4{.versionAndLength = 0x4f}.bytes(), LinkLayer::loopback, 24, 68,
        "4 0 6 10.0.0.1:1234 > 10.0.0.2:80 80"},
       {be16(0x86dd) + zeros(18) + Ip6{}.bytes(), LinkLayer::cooked2, 60, 64, tcp6},
   };
   for (auto const& [frame, layer, addressesEnd, portsEnd, whole] : cases)
      for (std::size_t cut = 0; cut <= frame.size(); ++cut) {
         Frame const parsed = parse(Bytes(frame.begin(), frame.begin() + static_cast<long>(cut)), layer);
         bool const counted = parsed.verdict == Verdict::ip4 || parsed.verdict == Verdict::ip6;
         EXPECT_EQ(counted, cut >= addressesEnd) << whole << " cut to " << cut;
         EXPECT_EQ(text(parsed) == whole, cut >= portsEnd)
             << whole << " cut to " << cut << ": " << text(parsed);
      }
}

} // namespace
} // namespace Agents
