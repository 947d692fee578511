// SPDX-License-Identifier: Apache-2.0
// Which flows are chosen and when they go; what a tracker that is started again on rows of an earlier run
// stores and removes, wherever that run was killed.
#include "Choice.h"
#include "FlowTracking/HoFlowConfig.h"
#include "MemoryStore.h"

#include <gtest/gtest.h>

namespace Tracker {
namespace {

using FlowTracking::HoIpFlowConfig;
using Store = MemoryStore<HoIpFlowConfig>;

struct Seen {
   std::uint16_t flow;
   double time;
};
using Packets = std::vector<Seen>;

/// The frame's addresses tell at which time it was sent.
Agents::Frame frameOf(Seen const& seen) {
   Agents::Frame frame;
   frame.bytes = 100;
   frame.srcEthAddr = Nimbet::EthAddr({2, 0, 0, 0, 0, static_cast<std::uint8_t>(seen.time)});
   frame.dstEthAddr = Nimbet::EthAddr({2, 0, 0, 0, 1, static_cast<std::uint8_t>(seen.flow)});
   frame.vlanTag = Ovie::VlanTag(0x6007, 0x88a8);
   frame.customerVlanTag = Ovie::VlanTag(9, 0x8100, 1);
   return frame;
}

void give(Choice<HoIpFlowConfig>& choice, Packets const& packets) {
   for (auto const& seen : packets) choice.packet(flowKey(seen.flow), frameOf(seen), seen.time);
}
std::vector<std::uint16_t> chosen(Store& store) {
   std::vector<std::uint16_t> flows;
   for (auto const& [key, row] : store.content()) flows.push_back(key.ipFlowKey().srcPort());
   return flows;
}
using Flows = std::vector<std::uint16_t>;

TEST(Choice, AFlowIsChosenAtItsNthPacketWithTheFactsOfItsFirst) {
   Store store;
   Choice<HoIpFlowConfig> choice(store, {.offloadAfter = 3, .intfId = Nimbet::IntfId(7)});
   give(choice, {{1, 10}, {2, 11}, {1, 12}, {1, 13}, {1, 14}, {2, 15}});
   ASSERT_EQ(chosen(store), Flows{1});
   auto const& row = store.content().begin()->second;
   EXPECT_EQ(row.key().intfId(), Nimbet::IntfId(7));
   EXPECT_EQ(row.cachedIntfId(), Nimbet::IntfId(7));
   EXPECT_EQ(row.createTime(), 10);
   EXPECT_EQ(row.updateTime(), 13);
   EXPECT_EQ(row.srcEthAddr().str().view(), "02:00:00:00:00:0a");
   EXPECT_EQ(row.dstEthAddr().str().view(), "02:00:00:00:01:01");
   EXPECT_EQ(row.dot1qVlanTag().str().view(), "7 priority 3 protocol 0x88a8");
   EXPECT_EQ(row.dot1qCustomerVlanTag().str().view(), "9 depth 1");
   EXPECT_EQ(choice.stores(), 1u);
   EXPECT_EQ(choice.packets(), 6u);
   EXPECT_EQ(choice.bytes(), 600u);
}

TEST(Choice, IdleFlowsGoByTheClockOfThePackets) {
   Store store;
   Choice<HoIpFlowConfig> choice(store, {.idle = 5});
   give(choice, {{1, 10}, {2, 12}, {3, 14}, {1, 14}, {4, 15}});
   EXPECT_EQ(chosen(store), (Flows{1, 2, 3, 4})) << "none was idle for more than 5 seconds";
   give(choice, {{4, 2}, {3, 18}}); // time that goes back ages nothing
   EXPECT_EQ(chosen(store), (Flows{1, 3, 4}));
   give(choice, {{4, 19.5}});
   EXPECT_EQ(chosen(store), (Flows{3, 4})) << "4 was seen at 15, late packet or not";
   give(choice, {{1, 21}});
   EXPECT_EQ(chosen(store), (Flows{1, 3, 4}));
   EXPECT_EQ(store.content().begin()->second.createTime(), 21) << "a flow that comes again is a new one";
   choice.timeIs(100);
   EXPECT_TRUE(store.content().empty());
   EXPECT_EQ(choice.removed(), 5u);
}

TEST(Choice, StartedAgainOnACaptureItChangesOnlyWhatDiffers) {
   Packets const packets{{1, 10}, {2, 11}, {1, 12}, {3, 13}, {2, 19}, {4, 20}, {1, 21}, {5, 22}};
   auto const run = [&](Store& store) {
      Choice<HoIpFlowConfig> choice(store, {.idle = 7});
      give(choice, packets);
      choice.finish();
   };
   Store whole, foreign;
   run(whole);
   for (std::uint16_t flow : {2, 8, 9}) {
      HoIpFlowConfig row({flowKey(flow), {}});
      row.createTimeIs(5);
      foreign.write(row);
   }
   for (auto* const found : {&whole, &foreign})
      expectInSpiteOfDeaths<HoIpFlowConfig>(found->content(), whole.content(), run);
   // Without idle flows a second run stores nothing.
   Store store;
   for (auto const expected : {5u, 0u}) {
      Choice<HoIpFlowConfig> choice(store, {});
      give(choice, packets);
      choice.finish();
      EXPECT_EQ(choice.stores(), expected);
   }
}

TEST(Choice, AnInterfaceKnowsTheRowsThatItFinds) {
   Store store;
   give(*std::make_unique<Choice<HoIpFlowConfig>>(store, ChoiceRules{}), {{1, 10}, {2, 11}});
   auto const before = store.content();
   Choice<HoIpFlowConfig> choice(store, {.offloadAfter = 2, .idle = 60, .live = true}, 1000);
   give(choice, {{2, 1001}, {3, 1002}});
   EXPECT_EQ(store.content(), before);
   choice.timeIs(1060.5);
   EXPECT_EQ(chosen(store), Flows{2}) << "1 was last known at the start";
}

} // namespace
} // namespace Tracker
