// SPDX-License-Identifier: Apache-2.0
// Keys: the default's bytes, order, what the seed does to the hash, texts. Bit by bit they are compared in
// FlowRecordsTest.cpp.
#include "FlowTracking/HoFlowKeys.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <unordered_map>
#include <vector>

namespace FlowTracking {
namespace {

/// A key with every field different and no byte zero.
IpFlowKey sample4() {
   return IpFlowKey(0x04030201, 0x0605, Ip::IpAddr({0x11, 0x12, 0x13, 0x14}),
                    Ip::IpAddr({0x21, 0x22, 0x23, 0x24}), Ip::Protocol(0x34333231), 0x4241, 0x5251,
                    TrafficDirection(0x61));
}

TEST(FlowKeys, TheDefaultsBytes) {
   HoIpFlowKey const key;
   unsigned char made[36], wanted[36] = {0xff, 0xff, 0xff}; // vrfId 0xffffff
   std::memcpy(made, &key, sizeof made);
   for (unsigned gap : {14, 15, 25, 26, 27}) made[gap] = 0;
   wanted[16] = 0xff; // protocol 255
   for (unsigned at : {28, 29, 30, 31}) wanted[at] = 0xff;
   EXPECT_EQ(std::memcmp(made, wanted, sizeof made), 0);
}

TEST(FlowKeys, OrderIsStrictAndByFlowBeforeInterface) {
   // Few values a field, so that ties are common; sort, then every pair must agree with its place.
   std::mt19937 draw(1);
   std::vector<HoIpFlowKey> keys;
   for (unsigned i = 0; i < 400; ++i) {
      auto const r = draw();
      keys.emplace_back(IpFlowKey(r & 1, r >> 1 & 1,
                                  Ip::IpAddr({1, 0, 0, static_cast<unsigned char>(r >> 2 & 1)}),
                                  Ip::IpAddr({static_cast<unsigned char>(r >> 3 & 1), 0, 0, 9}),
                                  r & 16 ? Ip::Protocol::tcp : Ip::Protocol::udp, r >> 5 & 1, r >> 6 & 1),
                        Nimbet::IntfId(r >> 7 & 1, r >> 8 & 1));
   }
   std::sort(keys.begin(), keys.end());
   for (std::size_t i = 0; i < keys.size(); ++i)
      for (std::size_t j = i; j < keys.size(); ++j) {
         ASSERT_FALSE(keys[j] < keys[i]);
         ASSERT_EQ(!(keys[i] < keys[j]), keys[i] == keys[j]);
      }
   HoIpFlowKey const low(IpFlowKey(), Nimbet::IntfId(9)), high(sample4(), Nimbet::IntfId(1));
   EXPECT_EQ(low < high, IpFlowKey() < sample4()); // the interface decides only between equal flows
   EXPECT_LT(HoIpFlowKey(sample4(), Nimbet::IntfId(1)), HoIpFlowKey(sample4(), Nimbet::IntfId(2)));
}

TEST(FlowKeys, FalseOnlyAsDefault) {
   EXPECT_TRUE(HoIpFlowKey(IpFlowKey(), Nimbet::IntfId(0)));
   EXPECT_TRUE(HoIp6FlowKey(Ip6FlowKey(0, 0, {}, {}, Ip::Protocol::reserved, 0, 0), Nimbet::IntfId()));
   Nimbet::IntfId intf(0xffffffff, 0);
   intf.handleInitialized(Zeb::String());
   EXPECT_EQ(intf, HoIpFlowKey().intfId());
}

TEST(FlowKeys, SeedGoesInOnceAndFully) {
   auto const key = sample4();
   HoIpFlowKey const ho(key, Nimbet::IntfId(5));
   std::uint32_t const flow = key.hash(0), intf = Nimbet::IntfId(5).hash();
   for (std::uint32_t seed : {0u, 1u, 0xffffffffu}) {
      Zeb::Hash outer(seed, 0, 0);
      outer.hashMix<4>(&flow);
      outer.hashMix<4>(&intf);
      EXPECT_EQ(ho.hash(seed), outer.result());
   }
   // Two keys that collide under one seed are apart under another, for the plain flow key.
   auto make = [](unsigned i) {
      return IpFlowKey(0, 0, Ip::IpAddr({10, 0, static_cast<unsigned char>(i >> 16), 1}), {},
                       Ip::Protocol::udp, static_cast<std::uint16_t>(i), 53);
   };
   std::unordered_map<std::uint32_t, unsigned> seen;
   unsigned collisions = 0;
   for (unsigned i = 0; i < 1u << 20; ++i)
      if (auto const [met, isNew] = seen.emplace(make(i).hash(1), i); !isNew) {
         ++collisions;
         EXPECT_NE(make(i).hash(2), make(met->second).hash(2));
      }
   EXPECT_GT(collisions, 50u); // some 128 are to be expected among 2^20 keys
}

TEST(FlowKeys, Texts) {
   EXPECT_EQ(sample4().ipProtocolNumber(), 0x31);
   EXPECT_EQ(IpFlowKey(0, 0, {}, {}, Ip::Protocol(0x106), 0, 0).ipProtocolNumber(), 6);
   IpFlowKey const key(0, 42, *Ip::IpAddr::fromText("10.0.0.1"), *Ip::IpAddr::fromText("192.168.1.2"),
                       Ip::Protocol::tcp, 80, 4711);
   EXPECT_EQ(key.str(), "vrf 0 vlan 42 TCP 10.0.0.1:80 -> 192.168.1.2:4711");
   EXPECT_EQ(HoIpFlowKey(key, Nimbet::IntfId(7)).mirakString(),
             "vrf 0 vlan 42 TCP 10.0.0.1:80 -> 192.168.1.2:4711, intf: if7");
   EXPECT_EQ(Ip6FlowKey(1, 0, *Ip::Ip6Addr::fromText("2001:db8::1"), {}, Ip::Protocol(200), 1, 2).str(),
             "vrf 1 vlan 0 200 [2001:db8::1]:1 -> [::]:2");
   EXPECT_EQ(fmt::format("{} {}", key, HosStateCounterKey(HoFlowState::pending)),
             "vrf 0 vlan 42 TCP 10.0.0.1:80 -> 192.168.1.2:4711  HosStateCounterKey: pending");
}

TEST(FlowKeys, FieldTypesReadBackWhatTheyWrite) {
   for (unsigned i = 0; i < 256; ++i) {
      auto const protocol = Ip::Protocol(i);
      EXPECT_EQ(Ip::protocolFromText(Ip::protocolText(protocol)), protocol);
      EXPECT_EQ(Ip::protocolFromText(std::to_string(i)), protocol);
      EXPECT_EQ(hoFlowStateFromText(hoFlowStateText(HoFlowState(i))), HoFlowState(i));
   }
   EXPECT_EQ(Ip::protocolFromText("tcp"), Ip::Protocol::tcp);
   EXPECT_EQ(Ip::protocolText(Ip::Protocol(0x106)), "262");
   for (auto* bad : {"", "tcpp", "6x", "-1", "4294967296"}) EXPECT_FALSE(Ip::protocolFromText(bad)) << bad;
   for (auto* bad : {"", "10.0.0", "10.0.0.1 ", "::1", "10.0.0.256"})
      EXPECT_FALSE(Ip::IpAddr::fromText(bad)) << bad;
   EXPECT_FALSE(Ip::IpAddr::fromText(std::string_view("10.0.0.1\0x", 10)));
   for (auto* text : {"2001:db8::1", "::", "fe80::1:2:3:4"})
      EXPECT_EQ(Ip::Ip6Addr::fromText(text)->str(), text);
   for (auto intf : {Nimbet::IntfId(), Nimbet::IntfId(0), Nimbet::IntfId(12), Nimbet::IntfId(3, 4)}) {
      Nimbet::IntfId read;
      read.handleInitialized(intf.str());
      EXPECT_EQ(read, intf);
   }
   EXPECT_EQ(Zeb::format("%s %u", std::string(5000, 'x').c_str(), 7).size(), 5002u);
   EXPECT_EQ(Zeb::String("a"), Zeb::String(std::string("a")));
   EXPECT_LT(Zeb::String(), Zeb::String("a"));
}

} // namespace
} // namespace FlowTracking
