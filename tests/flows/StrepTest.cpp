// SPDX-License-Identifier: Apache-2.0
// Text forms: what is printed parses back, and nothing else parses. Values are random bytes, so every field
// takes every value that a row in a file can have.
#include "Zeb/Strep.h"
#include "FlowTracking/Attributes.h"

#include <cstring>
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>
#include <sstream>

namespace FlowTracking {
namespace {

using Zeb::valueToStrep; // the others are found beside their types

/// Bytes of which many are 0, 0xff or small: so names, defaults and ends of ranges come up.
template <class T> T randomValue() {
   auto const byte = rc::gen::weightedOneOf<int>({{4, rc::gen::just(0)},
                                                  {1, rc::gen::just(0xff)},
                                                  {2, rc::gen::inRange(0, 10)},
                                                  {3, rc::gen::inRange(0, 256)}});
   auto const bytes = *rc::gen::container<std::vector<int>>(sizeof(T), byte);
   std::vector<unsigned char> raw(bytes.begin(), bytes.end());
   T value;
   std::memcpy(static_cast<void*>(&value), raw.data(), sizeof value);
   return value;
}

/// Whether the text is refused, or parses to what prints it.
template <class T> bool refusedOrSame(Zeb::String const& text) {
   try {
      return valueToStrep(Zeb::strepToValue(text, static_cast<T*>(nullptr))) == text;
   } catch (Zeb::SyntaxException const&) {
   } catch (Zeb::RangeException const&) {
   }
   return true;
}

template <class T> class Streps : public testing::Test {};
using Types = testing::Types<IpFlowKey, Ip6FlowKey, HoIpFlowKey, HoIp6FlowKey, HosStateCounterKey,
                             HoIpFlowConfig, HoIp6FlowConfig, HoIpFlowStatus, HoIp6FlowStatus,
                             HoIpFlowCounter, HoIp6FlowCounter, HosStateCounterEntry, Nimbet::IntfId,
                             Nimbet::EthAddr, Ovie::VlanTag, Ip::IpAddr, Ip::Ip6Addr, Ip::Protocol,
                             TrafficDirection, HoFlowState, Zeb::Seconds, unsigned int, unsigned long long>;
TYPED_TEST_SUITE(Streps, Types);

TYPED_TEST(Streps, ParseBackIntoAnEqualValue) {
   EXPECT_TRUE(rc::check([] {
      auto const value = randomValue<TypeParam>();
      auto const text = valueToStrep(value);
      auto const parsed = Zeb::strepToValue(text, static_cast<TypeParam*>(nullptr));
      bool const holdsNan = !(value == value);
      RC_ASSERT(parsed == value || holdsNan);
      RC_ASSERT(valueToStrep(parsed) == text);
   }));
}

TYPED_TEST(Streps, NothingElseIsAccepted) {
   EXPECT_TRUE(rc::check([] {
      std::string const text = valueToStrep(randomValue<TypeParam>()).str();
      auto const at = *rc::gen::inRange<std::size_t>(0, text.size() + 1);
      std::string changed = text;
      changed.insert(at, 1, *rc::gen::elementOf(std::string(" 0+-.'xeE9,:)}")));
      RC_ASSERT(refusedOrSame<TypeParam>(changed));
      if (at < text.size()) {
         changed = text;
         changed[at] = *rc::gen::arbitrary<char>();
         RC_ASSERT(refusedOrSame<TypeParam>(changed));
         RC_ASSERT(refusedOrSame<TypeParam>(text.substr(0, at) + text.substr(at + 1)));
      }
      RC_ASSERT(refusedOrSame<TypeParam>(text.substr(0, at)));
   }));
}

HoIpFlowCounter counter() {
   HoIpFlowCounter row(IpFlowKey(7, 42, Ip::IpAddr({10, 0, 0, 1}), Ip::IpAddr({10, 0, 0, 2}),
                                 Ip::Protocol::tcp, 443, 50000, TrafficDirection::egress));
   row.intfIdIs(Nimbet::IntfId(7, 2));
   row.packetsIs(1ull << 40);
   row.bytesIs(~0ull);
   row.createTimeIs(1700000000);
   row.updateTimeIs(0.125);
   row.hosEntriesIs(~0u);
   return row;
}

std::string const counterText =
    "Value('FlowTracking::HoIpFlowCounter', ** {'key': Value('FlowTracking::IpFlowKey', ** {'vrfId': 7, "
    "'vlanId': 42, 'srcAddr': 10.0.0.1, 'dstAddr': 10.0.0.2, 'ipProtocol': TCP, 'srcPort': 443, 'dstPort': "
    "50000, "
    "'direction': egress}), 'intfId': if7.2, 'packets': 1099511627776, 'bytes': 18446744073709551615, "
    "'createTime': 1700000000, 'updateTime': 0.125, 'hosEntries': 4294967295})";

TEST(Strep, Formats) {
   EXPECT_EQ(valueToStrep(counter()), counterText);
   std::ostringstream out;
   out << counter();
   EXPECT_EQ(out.str(), counterText);
   IpFlowKey const flow;
   std::string const flowText = valueToStrep(flow).str();
   std::string const keyText =
       "Value('FlowTracking::HoIpFlowKey', ** {'ipFlowKey': " + flowText + ", 'intfId': none})";
   EXPECT_EQ(valueToStrep(HoIpFlowKey()), keyText);
   HoIpFlowConfig config{HoIpFlowKey()};
   config.srcEthAddrIs(Nimbet::EthAddr({0, 0x1c, 0x73, 0, 0, 0x99}));
   config.dot1qVlanTagIs(Ovie::VlanTag(0x7000 | 42, 0x88a8, 1));
   EXPECT_EQ(valueToStrep(config),
             "Value('FlowTracking::HoIpFlowConfig', ** {'key': " + keyText +
                 ", 'createTime': 0, 'updateTime': 0, 'srcEthAddr': 00:1c:73:00:00:99, 'dstEthAddr': "
                 "00:00:00:00:00:00, 'dot1qVlanTag': 42 priority 3 drop-eligible protocol 0x88a8 depth 1, "
                 "'dot1qCustomerVlanTag': none, 'cachedIntfId': none})");
   EXPECT_EQ(valueToStrep(HoIpFlowStatus{HoIpFlowKey()}),
             "Value('FlowTracking::HoIpFlowStatus', ** {'key': " + keyText +
                 ", 'hoFlowState': unknown, 'createTime': 0, 'updateTime': 0})");
   HosStateCounterEntry entry{HosStateCounterKey(HoFlowState::offloaded)};
   entry.hoFlowsIs(7);
   EXPECT_EQ(valueToStrep(entry),
             "Value('FlowTracking::HosStateCounterEntry', ** {'key': offloaded, 'hoFlows': 7})");
   EXPECT_EQ(valueToStrep(HosStateCounterKey(static_cast<HoFlowState>(200))), "200");
   EXPECT_EQ(valueToStrep(Zeb::String("it's\n\\")), "'it\\'s\\x0a\\\\'");
   EXPECT_EQ(Zeb::strepToValue("'it\\'s\\x0a\\\\'", static_cast<Zeb::String*>(nullptr)), "it's\n\\");
}

/// What the parser says of the counter's text with one part exchanged; empty if it accepts it.
std::string complaint(std::string const& part, std::string const& instead) {
   std::string text = counterText;
   auto const at = text.find(part);
   if (at == std::string::npos) return "no such part";
   text.replace(at, part.size(), instead);
   try {
      Zeb::strepToValue(text, static_cast<HoIpFlowCounter*>(nullptr));
   } catch (Lomi::Exception const& e) {
      return e.what();
   }
   return {};
}

TEST(Strep, AnErrorNamesFieldPlaceAndWhatWasExpected) {
   struct Bad {
      char const *part, *instead, *says;
   };
   Bad const all[] = {
       {"443", "65536",
        "key.srcPort: expected a number from 0 to 65535 at character 186, found \"65536, 'dst"},
       {"443", "-1", "key.srcPort: expected a number"},
       {"443", "0443", "key.srcPort: expected a number"},
       {"443", " 443", "key.srcPort: expected a number"},
       {"443", "0x1bb", "expected \", 'dstPort': \" at character 187, found \"x1bb"},
       {"4294967295", "4294967296", "hosEntries: expected a number from 0 to 4294967295"},
       {"18446744073709551615", "18446744073709551616", "bytes: expected a number from 0 to 184467440737"},
       {"10.0.0.1", "10.0.0.01", "key.srcAddr: expected an IPv4 address"},
       {"TCP", "tcp", "key.ipProtocol: expected a protocol's name"},
       {"TCP", "6", "key.ipProtocol: expected a protocol's name"},
       {"egress", "2", "key.direction: expected unspecified, ingress, egress"},
       {"if7.2", "if7.0", "intfId: expected an interface"},
       {"if7.2", "7", "intfId: expected an interface"},
       {"if7.2", "if4294967295", "intfId: expected an interface"}, // is printed as none
       {"0.125", "0.1250", "updateTime: expected a time"},
       {"1700000000", "1.7e+09", "createTime: expected a time"},
       {"0.125", "1e400", "updateTime: expected a time"},
       {"0.125", "infinity", "updateTime: expected a time"},
       {"0.125", "nan(1)", "expected \", 'hosEntries': \""},
       {"HoIpFlowCounter", "HoIp6FlowCounter",
        "expected \"Value('FlowTracking::HoIpFlowCounter', ** {\" at character 1"},
       {"'packets'", "'bytes'", "expected \", 'packets': \""},
       {"295})", "295}) ", "expected the end at character"},
       {"295})", "295}", "expected \"})\""},
   };
   for (auto const& [part, instead, says] : all)
      EXPECT_NE(complaint(part, instead).find(says), std::string::npos)
          << instead << ": " << complaint(part, instead);
   EXPECT_EQ(complaint("0.125", "-inf"), "");
   EXPECT_EQ(complaint("0.125", "1e+300"), "");
   EXPECT_EQ(complaint("TCP", "256"), ""); // a protocol without a name
   for (auto const* bad :
        {"offloade", "offloadedx", "2"}) // a name's beginning, more than one, one that has one
      EXPECT_THROW(Zeb::strepToValue(bad, static_cast<HosStateCounterKey*>(nullptr)), Zeb::RangeException);
}

} // namespace
} // namespace FlowTracking
