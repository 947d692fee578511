// SPDX-License-Identifier: Apache-2.0
// Keys and records: every field takes part in comparison, and nothing else; defaults, arithmetic, trace
// texts. Offsets are asserted at compile time beside the types; the golden files (tests/format) hold them
// against an edit of both.
#include "FlowTracking/HoFlowConfig.h"
#include "FlowTracking/HoFlowCounter.h"
#include "FlowTracking/HoFlowStatus.h"
#include "FlowTracking/HosStateCounterEntry.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <vector>

namespace FlowTracking {
namespace {

template <class T> T fromBytes(std::vector<unsigned char> const& bytes) {
   T value;
   std::memcpy(static_cast<void*>(&value), bytes.data(), sizeof(T));
   return value;
}

template <class Key> Key sampleKey() {
   if constexpr (requires { Key().intfId(); })
      return Key(sampleKey<std::decay_t<decltype(Key().ipFlowKey())>>(), Nimbet::IntfId(5));
   else if constexpr (requires { Key().srcPort(); })
      return Key(1, 2, {}, {}, Ip::Protocol::tcp, 3, 4);
   else
      return Key(HoFlowState::pending);
}

/// The bytes of a key or record that have no meaning.
template <class T> std::vector<unsigned> gapsOf() {
   if constexpr (std::is_same_v<T, HosStateCounterEntry>) {
      return {1, 2, 3};
   } else {
      std::vector<unsigned> gaps{14, 15, 25, 26, 27};
      if (T::isIp6) gaps = {38, 39, 49, 50, 51};
      if constexpr (requires(T row) { row.dot1qVlanTag(); })
         for (unsigned tag : {28, 34}) gaps.push_back(sizeof(typename T::Key) + tag + 5); // the sixth byte
      if constexpr (requires(T row) { row.hoFlowState(); })
         for (unsigned i : {1, 2, 3}) gaps.push_back(sizeof(typename T::Key) + i);
      return gaps;
   }
}

template <class T> class EveryType : public testing::Test {};
using Types =
    testing::Types<IpFlowKey, Ip6FlowKey, HoIpFlowKey, HoIp6FlowKey, HoIpFlowConfig, HoIp6FlowConfig,
                   HoIpFlowStatus, HoIp6FlowStatus, HoIpFlowCounter, HoIp6FlowCounter, HosStateCounterEntry>;
TYPED_TEST_SUITE(EveryType, Types);

/// Flips each bit: one of a field changes equality and, of a key, order and (for a good hash) the hash;
/// another changes nothing, but travels with copies.
TYPED_TEST(EveryType, OnlyFieldsTakePartInComparisonOrderAndHash) {
   using T = TypeParam;
   constexpr bool isKey = requires(T key) { key.hash(7); };
   auto const sample = [] {
      if constexpr (isKey)
         return sampleKey<T>();
      else
         return T(sampleKey<typename T::Key>());
   };
   T base = sample();
   if constexpr (requires { base.createTimeIs(1.5); }) { // no flipped bit makes equal numbers of 0 and -0
      base.createTimeIs(1.5);
      base.updateTimeIs(2.5);
   }
   std::vector<unsigned char> bytes(sizeof(T));
   std::memcpy(bytes.data(), static_cast<void const*>(&base), sizeof(T));
   auto const gaps = gapsOf<T>();
   for (unsigned bit = 0; bit < 8 * sizeof(T); ++bit) {
      SCOPED_TRACE(fmt::format("byte {} bit {}", bit / 8, bit % 8));
      auto flipped = bytes;
      flipped[bit / 8] ^= static_cast<unsigned char>(1u << bit % 8);
      auto const other = fromBytes<T>(flipped);
      bool const gap = std::find(gaps.begin(), gaps.end(), bit / 8) != gaps.end();
      EXPECT_EQ(other == base, gap);
      if constexpr (isKey) {
         EXPECT_EQ(other.hash(7) == base.hash(7), gap);
         EXPECT_EQ((other < base) + (base < other), gap ? 0 : 1);
      }
      T copy = other, assigned;
      assigned = copy;
      EXPECT_EQ(std::memcmp(static_cast<void const*>(&assigned), flipped.data(), sizeof(T)), 0);
   }
   if constexpr (requires { !base; }) {
      EXPECT_TRUE(base && !T()) << "only a default one is false";
   }
}

TEST(FlowRecords, TagsAndAddressesHaveTheBytesOfTheFormat) {
   HoIpFlowConfig config(sampleKey<HoIpFlowKey>());
   auto at = [](auto const& record, unsigned offset, auto value) {
      return std::memcmp(reinterpret_cast<char const*>(&record) + offset, &value, sizeof(value)) == 0;
   };
   EXPECT_TRUE(at(config, 64, 0x81000fffu)) << "a tag that was never set";
   EXPECT_TRUE(at(config, 68, std::uint16_t(0)));
   EXPECT_TRUE(at(config, 70, 0x81000fffu));
   config.srcEthAddrIs(Nimbet::EthAddr({1, 2, 3, 4, 5, 6}));
   config.dstEthAddrIs(Nimbet::EthAddr({7, 8, 9, 10, 11, 12}));
   config.dot1qVlanTagIs(Ovie::VlanTag(0x6001, 0x88a8, 1));
   EXPECT_TRUE(at(config, 64, 0x88a86001u) && at(config, 68, std::uint8_t(1)));
   EXPECT_TRUE(at(config, 52, std::uint64_t(0x0807060504030201u)));
}

TEST(FlowRecords, ArithmeticIsModular) {
   HoIpFlowCounter counter;
   counter.packetsIs(~0ull);
   EXPECT_EQ(counter.packetsInc(1), 0ull);
   EXPECT_EQ(counter.hosEntriesInc(2), 2u);
   EXPECT_EQ(counter.hosEntriesDec(3), 0xffffffffu);
   HosStateCounterEntry entry;
   EXPECT_EQ(entry.hoFlowsInc(1), 1u);
   EXPECT_EQ(entry.hoFlowsDec(2), 0xffffffffu);
}

TEST(FlowRecords, TraceTexts) {
   HoIpFlowKey const key(IpFlowKey(0, 42, *Ip::IpAddr::fromText("10.0.0.1"),
                                   *Ip::IpAddr::fromText("10.0.0.2"), Ip::Protocol::udp, 53, 4711),
                         Nimbet::IntfId(7));
   std::string const flow = "vrf 0 vlan 42 UDP 10.0.0.1:53 -> 10.0.0.2:4711";
   HoIpFlowConfig config(key);
   config.createTimeIs(1234567.5);
   config.srcEthAddrIs(Nimbet::EthAddr({0, 0x1c, 0x73, 0, 0, 0x99}));
   EXPECT_EQ(config.mirakString().str(), "[" + flow +
                                             ", intf: if7]  srcEth: 00:1c:73:00:00:99, dstEth: "
                                             "00:00:00:00:00:00, created: 1.23457e+06, updateTime: 0");
   HoIpFlowStatus status(key);
   status.hoFlowStateIs(HoFlowState::offloaded);
   EXPECT_EQ(status.mirakString().str(),
             "[" + flow + ", intf: if7]  state: offloaded, created: 0, updated: 0");
   HoIpFlowCounter counter(key.ipFlowKey());
   counter.packetsInc(2);
   counter.bytesInc(99);
   counter.hosEntriesInc(1);
   counter.updateTimeIs(0.25);
   EXPECT_EQ(counter.mirakString().str(),
             "[" + flow + "] intf: none, pkts: 2, bytes: 99, hos: 1, created: 0, updated: 0.25");
   HosStateCounterEntry entry(HoFlowState::pending);
   entry.hoFlowsInc(3);
   EXPECT_EQ(entry.mirakString().str(), "[pending] hoFlows: 3");
   EXPECT_EQ(Ovie::VlanTag().str(), "none");
   EXPECT_EQ(Ovie::VlanTag(0x7064, 0x88a8, 1).str(), "100 priority 3 drop-eligible protocol 0x88a8 depth 1");
}

} // namespace
} // namespace FlowTracking
