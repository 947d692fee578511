// SPDX-License-Identifier: Apache-2.0
// Records: offsets from outside, defaults, every field taking part in comparison, arithmetic, trace texts,
// and the wrapper in which tables hold them.
#include "FlowTracking/HoFlowConfig.h"
#include "FlowTracking/HoFlowCounter.h"
#include "FlowTracking/HoFlowStatus.h"
#include "FlowTracking/HosStateCounterEntry.h"
#include "ZebMirak/ZebMirakMapValueWrapper.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <vector>

namespace FlowTracking {
namespace {

template <class R> R fromBytes(std::vector<unsigned char> const& bytes) {
   R record;
   std::memcpy(static_cast<void*>(&record), bytes.data(), sizeof(R));
   return record;
}

/// Flips every bit of a record: equal exactly if the byte has no meaning. `base` holds no NaN, and no flip of
/// its bits makes two numbers equal that weren't (0 and -0 are avoided).
template <class R> void everyBitCompares(R const& base, std::vector<unsigned> const& gaps) {
   std::vector<unsigned char> bytes(sizeof(R));
   std::memcpy(bytes.data(), static_cast<void const*>(&base), sizeof(R));
   for (unsigned at = 0; at < bytes.size(); ++at)
      for (unsigned bit = 0; bit < 8; ++bit) {
         auto flipped = bytes;
         flipped[at] ^= static_cast<unsigned char>(1u << bit);
         R const other = fromBytes<R>(flipped);
         bool const gap = std::find(gaps.begin(), gaps.end(), at) != gaps.end();
         EXPECT_EQ(other == base, gap) << R::typeName << " byte " << at << " bit " << bit;
         R const copy = other; // bytes without meaning travel with copies
         EXPECT_EQ(std::memcmp(static_cast<void const*>(&copy), flipped.data(), sizeof(R)), 0);
      }
}

template <class Key> Key sampleKey() {
   using Flow = std::decay_t<decltype(Key().ipFlowKey())>;
   return Key(Flow(1, 2, {}, {}, Ip::Protocol::tcp, 3, 4), Nimbet::IntfId(5));
}

std::vector<unsigned> gapsOfKey(bool isIp6) {
   return isIp6 ? std::vector<unsigned>{38, 39, 49, 50, 51} : std::vector<unsigned>{14, 15, 25, 26, 27};
}

template <class R> class EveryRecord : public testing::Test {};
using Records = testing::Types<HoIpFlowConfig, HoIp6FlowConfig, HoIpFlowStatus, HoIp6FlowStatus,
                               HoIpFlowCounter, HoIp6FlowCounter, HosStateCounterEntry>;
TYPED_TEST_SUITE(EveryRecord, Records);

TYPED_TEST(EveryRecord, WrappedAddsNothing) {
   using Wrapper =
       ZebMirak::ZebMirakMapValueWrapper<TypeParam, typename TypeParam::Key, &TypeParam::key, false>;
   static_assert(sizeof(Wrapper) == sizeof(TypeParam) && alignof(Wrapper) == 4);
   static_assert(std::is_trivially_copyable_v<Wrapper>);
   static_assert(std::is_convertible_v<TypeParam, Wrapper>);
   Wrapper const made = TypeParam();
   EXPECT_EQ(static_cast<void const*>(&made.fwkKey()), static_cast<void const*>(&made));
   EXPECT_TRUE(made.fwkKey() == typename TypeParam::Key());
   EXPECT_FALSE(TypeParam()) << "a default record is false";
   EXPECT_FALSE(TypeParam(typename TypeParam::Key()));
}

TEST(FlowRecords, ConfigComparesEveryField) {
   auto check = [](auto record) {
      using R = decltype(record);
      constexpr unsigned k = sizeof(typename R::Key);
      record.createTimeIs(1.5);
      record.updateTimeIs(2.5);
      auto gaps = gapsOfKey(R::isIp6);
      gaps.push_back(k + 28 + 5); // sixth byte of each tag
      gaps.push_back(k + 34 + 5);
      everyBitCompares(record, gaps);
   };
   check(HoIpFlowConfig(sampleKey<HoIpFlowKey>()));
   check(HoIp6FlowConfig(sampleKey<HoIp6FlowKey>()));
}

TEST(FlowRecords, StatusAndCounterCompareEveryField) {
   auto status = [](auto record) {
      using R = decltype(record);
      record.createTimeIs(1.5);
      record.updateTimeIs(2.5);
      auto gaps = gapsOfKey(R::isIp6);
      for (unsigned i = 1; i < 4; ++i) gaps.push_back(sizeof(typename R::Key) + i);
      everyBitCompares(record, gaps);
   };
   status(HoIpFlowStatus(sampleKey<HoIpFlowKey>()));
   status(HoIp6FlowStatus(sampleKey<HoIp6FlowKey>()));
   auto counter = [](auto record) {
      record.createTimeIs(1.5);
      record.updateTimeIs(2.5);
      everyBitCompares(record, gapsOfKey(decltype(record)::isIp6));
   };
   counter(HoIpFlowCounter(sampleKey<HoIpFlowKey>().ipFlowKey()));
   counter(HoIp6FlowCounter(sampleKey<HoIp6FlowKey>().ipFlowKey()));
   everyBitCompares(HosStateCounterEntry(HoFlowState::pending), {1, 2, 3});
}

TEST(FlowRecords, FieldsLieWhereTheFormatHasThem) {
   auto at = [](auto const& record, unsigned offset, auto value) {
      return std::memcmp(reinterpret_cast<char const*>(&record) + offset, &value, sizeof(value)) == 0;
   };
   HoIpFlowConfig config(sampleKey<HoIpFlowKey>());
   EXPECT_TRUE(at(config, 64, 0x81000fffu)) << "a tag that was never set";
   EXPECT_TRUE(at(config, 68, std::uint16_t(0)));
   EXPECT_TRUE(at(config, 70, 0x81000fffu));
   config.createTimeIs(1.5);
   config.updateTimeIs(2.5);
   config.srcEthAddrIs(Nimbet::EthAddr({1, 2, 3, 4, 5, 6}));
   config.dstEthAddrIs(Nimbet::EthAddr({7, 8, 9, 10, 11, 12}));
   config.dot1qVlanTagIs(Ovie::VlanTag(0x6001, 0x88a8, 1));
   config.cachedIntfIdIs(Nimbet::IntfId(0x01020304));
   EXPECT_TRUE(at(config, 36, 1.5) && at(config, 44, 2.5) && at(config, 64, 0x88a86001u) &&
               at(config, 68, std::uint8_t(1)) && at(config, 76, 0x01020304u));
   EXPECT_TRUE(at(config, 52, std::uint64_t(0x0807060504030201u)));
   HoIp6FlowStatus status;
   status.hoFlowStateIs(HoFlowState(9));
   status.createTimeIs(1.5);
   status.updateTimeIs(2.5);
   EXPECT_TRUE(at(status, 60, std::uint8_t(9)) && at(status, 64, 1.5) && at(status, 72, 2.5));
   HoIpFlowCounter counter;
   counter.intfIdIs(Nimbet::IntfId(3));
   counter.packetsIs(4);
   counter.bytesIs(5);
   counter.createTimeIs(6);
   counter.updateTimeIs(7);
   counter.hosEntriesIs(8);
   EXPECT_TRUE(at(counter, 28, 3u) && at(counter, 36, 4ull) && at(counter, 44, 5ull) &&
               at(counter, 52, 6.0) && at(counter, 60, 7.0) && at(counter, 68, 8u));
   HosStateCounterEntry entry(HoFlowState(2));
   entry.hoFlowsIs(0x01020304);
   EXPECT_TRUE(at(entry, 0, std::uint8_t(2)) && at(entry, 4, 0x01020304u));
}

TEST(FlowRecords, DefaultIsNotZero) {
   auto const zeroed = fromBytes<HoIpFlowConfig>(std::vector<unsigned char>(sizeof(HoIpFlowConfig), 0));
   EXPECT_FALSE(zeroed == HoIpFlowConfig());
   EXPECT_TRUE(zeroed);
   HoIpFlowConfig tagged;
   tagged.dot1qVlanTagIs(Ovie::VlanTag(42));
   EXPECT_TRUE(tagged) << "a tag alone makes a record true";
   EXPECT_TRUE(HoIpFlowConfig(sampleKey<HoIpFlowKey>()));
   HoIpFlowConfig cached;
   cached.cachedIntfIdIs(Nimbet::IntfId(1));
   EXPECT_FALSE(cached == HoIpFlowConfig());
   EXPECT_EQ(cached.mirakString(), HoIpFlowConfig().mirakString());
   HoIpFlowConfig timeless;
   timeless.createTimeIs(std::numeric_limits<double>::quiet_NaN());
   HoIpFlowConfig const copy = timeless;
   EXPECT_FALSE(copy == timeless);
}

TEST(FlowRecords, ArithmeticIsModular) {
   HoIpFlowCounter counter;
   counter.packetsIs(~0ull);
   EXPECT_EQ(counter.packetsInc(1), 0ull);
   EXPECT_EQ(counter.bytesInc(1ull << 40), 1ull << 40);
   EXPECT_EQ(counter.hosEntriesInc(2), 2u);
   EXPECT_EQ(counter.hosEntriesDec(3), 0xffffffffu);
   HosStateCounterEntry entry;
   EXPECT_EQ(entry.hoFlowsInc(1), 1u);
   EXPECT_EQ(entry.hoFlowsDec(2), 0xffffffffu);
   EXPECT_EQ(entry.hoFlows(), 0xffffffffu);
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
