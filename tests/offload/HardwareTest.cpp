// SPDX-License-Identifier: Apache-2.0
// Which flows the hardware holds: a random row of wishes against a simple model, with an agent that dies at
// any store and is started again, with another number of slots perhaps. What must hold at each rest: the
// states are those that the slots allow, no flow is in two of them, none waits beside a free slot, the
// counters hear of exactly the held flows, and a restart takes no slot from a flow that had one.
#include "Hardware.h"
#include "FlowTracking/HoFlowStatus.h"
#include "MemoryStore.h"

#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <set>

namespace Offload {
namespace {

using FlowTracking::HoFlowState;
using FlowTracking::HoIp6FlowStatus;
using FlowTracking::HoIpFlowKey;
using FlowTracking::HoIpFlowStatus;

HoIpFlowKey keyOf(unsigned flow) {
   return {{0, 0, Ip::IpAddr({10, 0, 0, 1}), {}, Ip::Protocol::udp, std::uint16_t(flow), 53}, {}};
}
FlowTracking::HoIp6FlowKey key6Of(unsigned flow) {
   return {{0, 0, {}, {}, Ip::Protocol::udp, std::uint16_t(flow), 53}, {}};
}

template <class Key> struct Held final : Holder<Key> {
   std::set<unsigned> flows;
   void hold(Key const& key) override { EXPECT_TRUE(flows.insert(key.ipFlowKey().srcPort()).second); }
   void release(Key const& key) override { EXPECT_TRUE(flows.erase(key.ipFlowKey().srcPort())); }
};

/// The agent's memory; the tables outlive it.
struct Agent {
   Tracker::MemoryStore<HoIpFlowStatus>& table4;
   Tracker::MemoryStore<HoIp6FlowStatus>& table6;
   Slots slots;
   double time = 1;
   Held<HoIpFlowKey> held4{};
   Held<FlowTracking::HoIp6FlowKey> held6{};
   Hardware<HoIpFlowStatus> ip4{table4, slots, held4, [this] { return ++time; }};
   Hardware<HoIp6FlowStatus> ip6{table6, slots, held6, [this] { return ++time; }};

   void refill() { fill(slots, ip4, ip6); }
};

template <class Store> std::set<unsigned> flowsIn(Store& store, HoFlowState state) {
   std::set<unsigned> flows;
   for (auto const& [key, row] : store.content())
      if (row.hoFlowState() == state) flows.insert(key.ipFlowKey().srcPort());
   return flows;
}

class HardwareTest : public testing::Test {
protected:
   void start(std::uint64_t limit) {
      agent_ = std::make_unique<Agent>(table4_, table6_, Slots(limit));
      agent_->refill();
   }
   std::set<unsigned> offloaded() { return flowsIn(table4_, HoFlowState::offloaded); }
   std::set<unsigned> rejected() { return flowsIn(table4_, HoFlowState::rejected); }

   Tracker::MemoryStore<HoIpFlowStatus> table4_;
   Tracker::MemoryStore<HoIp6FlowStatus> table6_;
   std::unique_ptr<Agent> agent_;
};
using Flows = std::set<unsigned>;

TEST_F(HardwareTest, WhoWaitsLongestGetsTheSlot) {
   start(2);
   for (unsigned flow : {1, 2, 3}) agent_->ip4.want(keyOf(flow));
   agent_->ip6.want(key6Of(4));
   agent_->ip4.want(keyOf(5));
   EXPECT_EQ(offloaded(), (Flows{1, 2}));
   EXPECT_EQ(rejected(), (Flows{3, 5}));
   EXPECT_EQ(table6_.content().begin()->second.hoFlowState(), HoFlowState::rejected);
   auto const changes = table4_.changes();
   for (unsigned flow : {1, 3}) agent_->ip4.want(keyOf(flow)); // as before
   agent_->ip4.drop(keyOf(9));
   EXPECT_EQ(table4_.changes(), changes);
   agent_->ip4.drop(keyOf(3)); // no longer waits
   agent_->ip4.drop(keyOf(1));
   agent_->refill();
   EXPECT_EQ(offloaded(), (Flows{2}));
   EXPECT_EQ(agent_->held6.flows, (Flows{4})) << "the other family's flow came before 5";
   agent_->ip4.keep([](auto const&) { return false; });
   agent_->refill();
   EXPECT_TRUE(table4_.content().empty());
   EXPECT_EQ(agent_->slots.used(), 1u);
}

TEST_F(HardwareTest, AnotherNumberOfSlots) {
   start(3);
   for (unsigned flow : {1, 2, 3, 4, 5}) agent_->ip4.want(keyOf(flow));
   auto const created = table4_.content().at(keyOf(5)).createTime();
   start(1);
   EXPECT_EQ(offloaded(), (Flows{1})) << "the oldest stays";
   EXPECT_EQ(rejected(), (Flows{2, 3, 4, 5}));
   start(0);
   EXPECT_EQ(offloaded(), (Flows{1, 2, 3, 4, 5}));
   EXPECT_EQ(table4_.content().at(keyOf(5)).createTime(), created);
   for (auto const state : {HoFlowState::pending, HoFlowState::removing, HoFlowState(77)}) {
      HoIpFlowStatus row(keyOf(6));
      row.hoFlowStateIs(state);
      table4_.write(row);
      start(0);
      EXPECT_TRUE(offloaded().contains(6));
   }
}

TEST_F(HardwareTest, AgainstAModel) {
   std::mt19937 draw(5);
   std::set<unsigned> wanted4, wanted6;
   unsigned deaths = 0;
   std::uint64_t limit = 4;
   start(limit);
   for (unsigned step = 0; step < 20000; ++step) {
      unsigned const flow = draw() % 12;
      bool const want = draw() % 2, is4 = draw() % 2;
      auto& wanted = is4 ? wanted4 : wanted6;
      want ? void(wanted.insert(flow)) : void(wanted.erase(flow));
      if (draw() % 50 == 0) table4_.dieAfter(draw() % 3);
      Flows const before = agent_->held4.flows;
      try {
         if (is4)
            want ? agent_->ip4.want(keyOf(flow)) : agent_->ip4.drop(keyOf(flow));
         else
            want ? agent_->ip6.want(key6Of(flow)) : agent_->ip6.drop(key6Of(flow));
         agent_->refill();
         table4_.dieAfter(~0ull >> 1);
      } catch (Tracker::Killed const&) {
         ++deaths;
         table4_.dieAfter(~0ull >> 1);
         std::uint64_t const limitBefore = limit;
         if (draw() % 4 == 0) limit = 1 + draw() % 8;
         start(limit);
         // The tables of wishes are compared once they have been followed.
         for (unsigned known : wanted4) agent_->ip4.want(keyOf(known));
         for (unsigned known : wanted6) agent_->ip6.want(key6Of(known));
         agent_->ip4.keep([&](auto const& key) { return wanted4.contains(key.ipFlowKey().srcPort()); });
         agent_->ip6.keep([&](auto const& key) { return wanted6.contains(key.ipFlowKey().srcPort()); });
         agent_->refill();
         for (unsigned held : before)
            EXPECT_TRUE(limit < limitBefore || !wanted4.contains(held) || agent_->held4.flows.contains(held))
                << step;
      }
      Flows all = offloaded();
      all.merge(rejected());
      ASSERT_EQ(all, wanted4) << step;
      ASSERT_EQ(offloaded(), agent_->held4.flows) << step;
      ASSERT_EQ(flowsIn(table6_, HoFlowState::offloaded), agent_->held6.flows) << step;
      std::uint64_t const held = agent_->held4.flows.size() + agent_->held6.flows.size();
      ASSERT_EQ(held, agent_->slots.used()) << step;
      ASSERT_EQ(held, std::min<std::uint64_t>(limit, wanted4.size() + wanted6.size())) << step;
      ASSERT_EQ(agent_->ip4.counts()[unsigned(HoFlowState::rejected)], rejected().size()) << step;
   }
   EXPECT_GT(deaths, 20u);
}

} // namespace
} // namespace Offload
