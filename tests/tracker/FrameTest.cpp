// SPDX-License-Identifier: Apache-2.0
// The frame parser: the link layers, cut at every byte, and what the reference below doesn't know. The rules
// within Ethernet and IP are held against the fuzzer's reference parser (FrameRandomTest.cpp). Frames stand
// in buffers of exactly their length, so that a read beyond one is seen by the address sanitizer.
#include "../../fuzz/frame/Compare.h"
#include "Packets.h"

#include <gtest/gtest.h>

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

TEST(Frame, AddressesAndTags) {
   auto tags = [](std::initializer_list<std::pair<unsigned, unsigned>> list) {
      Frame const frame = parse(ethernet(0x0800, list) + Ip4{}.bytes());
      EXPECT_EQ(frame.srcEthAddr.str().view(), "02:00:00:00:00:02");
      EXPECT_EQ(frame.dstEthAddr.str().view(), "02:00:00:00:00:01");
      EXPECT_EQ(frame.key4.vrfId(), 0u);
      EXPECT_EQ(frame.key4.direction(), FlowTracking::TrafficDirection(0));
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

TEST(Frame, LinkLayersCutAtEveryByte) {
   using enum LinkLayer;
   Bytes const four = Ip4{}.bytes(), six = Ip6{}.bytes();
   std::string const tcp4 = "4 0 6 0a000001 0a000002 1234 80 40", noIp = "not IP", bad = "malformed",
                     tcp6 =
                         "6 0 6 20010db8000000000000000000000001 20010db8000000000000000000000002 1234 80 60";
   auto cooked1 = [](unsigned device, unsigned etherType) {
      return be16(0) + be16(device) + be16(6) + zeros(8) + be16(etherType);
   };
   auto second = [](unsigned device, unsigned etherType) {
      return be16(etherType) + zeros(2) + zeros(4) + be16(device) + Bytes{0, 6} + zeros(8);
   };
   struct {
      LinkLayer layer;
      Bytes header, packet;
      std::string whole;
   } const all[] = {
       {ethernet, Packets::ethernet(0x86dd, {{0x88a8, 0}, {0x8100, 2}}), six, tcp6},
       {cooked, cooked1(1, 0x0800), four, tcp4},
       {cooked, cooked1(1, 0x8100) + be16(42) + be16(0x0800), four, "4 42" + tcp4.substr(3)},
       {cooked, cooked1(1, 4), four, noIp},
       {cooked, cooked1(824, 0x0800), four, noIp},
       {cooked2, second(1, 0x86dd), six, tcp6},
       {cooked2, second(824, 0x86dd), six, noIp},
       {loopback, le32(2), four, tcp4},
       {loopback, {0, 0, 0, 2}, four, tcp4},
       {loopback, le32(10), six, tcp6},
       {loopback, le32(24), six, tcp6},
       {loopback, le32(28), six, tcp6},
       {loopback, le32(30), six, tcp6},
       {loopback, le32(2), six, bad},
       {loopback, le32(7), four, noIp},
       {ppp, {0xff, 3, 0, 0x21}, four, tcp4},
       {ppp, {0x21}, four, tcp4},
       {ppp, {0, 0x57}, six, tcp6},
       {ppp, {0xc0, 0x21}, four, noIp},
       {ciscoHdlc, {0xf, 0, 8, 0}, four, tcp4},
       {raw, {}, four, tcp4},
       {raw, {}, six, tcp6},
       {raw, {}, Bytes{0x50} + zeros(60), bad},
       {rawIp4, {}, six, bad},
       {rawIp6, {}, six, tcp6},
   };
   for (auto const& [layer, header, packet, whole] : all) {
      std::size_t const addresses = header.size() + (whole[0] == '6' ? 40 : 20);
      std::size_t const ports = addresses + 4;
      bool const isFlow = whole != noIp && whole != bad;
      for (std::size_t cut = 0; cut <= header.size() + packet.size(); ++cut) {
         Bytes frame = header + packet;
         frame.resize(cut);
         Frame const parsed = parse(frame, layer);
         SCOPED_TRACE(fmt::format("{} {} cut to {}: {}", int(layer), whole, cut, FuzzFrame::text(parsed)));
         bool const counted = parsed.verdict == Verdict::ip4 || parsed.verdict == Verdict::ip6;
         EXPECT_EQ(counted, isFlow && cut >= addresses);
         if (isFlow) {
            EXPECT_EQ(FuzzFrame::text(parsed) == whole, cut >= ports);
         } else if (cut == header.size() + packet.size()) {
            EXPECT_EQ(FuzzFrame::text(parsed), whole);
         }
      }
   }
   EXPECT_EQ(linkLayerOf(1), ethernet);
   EXPECT_EQ(linkLayerOf(12), raw);
   EXPECT_FALSE(linkLayerOf(105)) << "802.11";
}

} // namespace
} // namespace Agents
