// SPDX-License-Identifier: Apache-2.0
// Keys: defaults, what takes part in comparison and hash and what doesn't, order, texts. Offsets are asserted
// at compile time beside the types; the golden files (tests/format) hold them against an edit of both. Keys
// are told apart bit by bit.
#include "FlowTracking/HoFlowKeys.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace FlowTracking {
namespace {

template <class T> std::vector<unsigned char> bytesOf(T const& value) {
   std::vector<unsigned char> bytes(sizeof(T));
   std::memcpy(bytes.data(), static_cast<void const*>(&value), sizeof(T));
   return bytes;
}

template <class T> T fromBytes(std::vector<unsigned char> const& bytes) {
   T value;
   std::memcpy(static_cast<void*>(&value), bytes.data(), sizeof(T));
   return value;
}

/// A key with every field different and no byte zero.
IpFlowKey sample4() {
   return IpFlowKey(0x04030201, 0x0605, Ip::IpAddr({0x11, 0x12, 0x13, 0x14}),
                    Ip::IpAddr({0x21, 0x22, 0x23, 0x24}), Ip::Protocol(0x34333231), 0x4241, 0x5251,
                    TrafficDirection(0x61));
}
Ip6FlowKey sample6() {
   Ip::Ip6Addr::Bytes src, dst;
   for (unsigned i = 0; i < 16; ++i) src[i] = static_cast<std::uint8_t>(0x70 + i), dst[i] = src[i] ^ 0xf0;
   return Ip6FlowKey(0x04030201, 0x0605, Ip::Ip6Addr(src), Ip::Ip6Addr(dst), Ip::Protocol(0x34333231), 0x4241,
                     0x5251, TrafficDirection(0x61));
}

TEST(FlowKeys, DefaultsAndTheBytesBetweenFields) {
   auto made = bytesOf(HoIpFlowKey());
   std::vector<unsigned char> wanted(36, 0);
   for (unsigned gap : {14, 15, 25, 26, 27}) made[gap] = 0;
   wanted[0] = wanted[1] = wanted[2] = 0xff; // vrfId 0xffffff
   wanted[16] = 0xff;                        // protocol 255
   for (unsigned at : {28, 29, 30, 31}) wanted[at] = 0xff;
   EXPECT_EQ(made, wanted);

   // What lies between the fields travels with copies and assignments.
   auto bytes = bytesOf(HoIp6FlowKey());
   for (unsigned gap : {38, 39, 49, 50, 51}) bytes[gap] = 0xa5;
   auto const key = fromBytes<HoIp6FlowKey>(bytes);
   HoIp6FlowKey copy = key, assigned;
   assigned = copy;
   EXPECT_EQ(bytesOf(assigned), bytes);
}

/// Flips every bit of a key: a bit of a field changes equality and (for a good hash) the hash, another
/// changes nothing.
template <class Key> void everyBit(Key const& key, std::vector<unsigned> const& gaps, Key const& other) {
   auto const bytes = bytesOf(key);
   for (unsigned at = 0; at < bytes.size(); ++at)
      for (unsigned bit = 0; bit < 8; ++bit) {
         auto flipped = bytes;
         flipped[at] ^= static_cast<unsigned char>(1u << bit);
         auto const changed = fromBytes<Key>(flipped);
         bool const gap = std::find(gaps.begin(), gaps.end(), at) != gaps.end();
         EXPECT_EQ(changed == key, gap) << "byte " << at << " bit " << bit;
         EXPECT_EQ(changed.hash(7) == key.hash(7), gap) << "byte " << at << " bit " << bit;
         // Exactly one of less, equal, greater; and the same against a third key from either side.
         EXPECT_EQ((changed < key) + (key < changed), gap ? 0 : 1) << "byte " << at << " bit " << bit;
         if (gap) {
            EXPECT_EQ(changed < other, key < other);
         }
      }
}

TEST(FlowKeys, OnlyFieldsTakePartInComparisonOrderAndHash) {
   everyBit(sample4(), {14, 15, 25, 26, 27}, IpFlowKey());
   everyBit(sample6(), {38, 39, 49, 50, 51}, Ip6FlowKey());
   everyBit(HoIpFlowKey(sample4(), Nimbet::IntfId(3, 4)), {14, 15, 25, 26, 27}, HoIpFlowKey());
   everyBit(HoIp6FlowKey(sample6(), Nimbet::IntfId(3, 4)), {38, 39, 49, 50, 51}, HoIp6FlowKey());
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
   EXPECT_FALSE(HoIpFlowKey());
   EXPECT_FALSE(HoIp6FlowKey());
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
   std::vector<std::pair<std::uint32_t, unsigned>> hashes;
   auto make = [](unsigned i) {
      return IpFlowKey(0, 0, Ip::IpAddr({10, 0, static_cast<unsigned char>(i >> 16), 1}),
                       Ip::IpAddr({10, 9, 9, 9}), Ip::Protocol::udp, static_cast<std::uint16_t>(i), 53);
   };
   for (unsigned i = 0; i < 1u << 20; ++i) hashes.emplace_back(make(i).hash(1), i);
   std::sort(hashes.begin(), hashes.end());
   unsigned collisions = 0, again = 0;
   for (std::size_t i = 1; i < hashes.size(); ++i)
      if (hashes[i].first == hashes[i - 1].first) {
         ++collisions;
         again += make(hashes[i].second).hash(2) == make(hashes[i - 1].second).hash(2);
      }
   EXPECT_GT(collisions, 50u); // some 128 are to be expected among 2^20 keys
   EXPECT_EQ(again, 0u);
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
