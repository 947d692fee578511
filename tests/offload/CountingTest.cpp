// SPDX-License-Identifier: Apache-2.0
// The counters of held flows: whatever the table holds when a pass begins, and wherever the agent dies in it,
// the next pass leaves exactly the rows of its capture, and no row that was right falls back on the way.
#include "Counting.h"
#include "FlowTracking/HoFlowCounter.h"
#include "MemoryStore.h"

#include <gtest/gtest.h>
#include <random>

namespace Offload {
namespace {

using FlowTracking::HoIpFlowCounter;
using FlowTracking::IpFlowKey;
using Store = Tracker::MemoryStore<HoIpFlowCounter>;

struct TestPacket {
   unsigned flow;
   std::uint64_t bytes;
   double time;
};
using Packets = std::vector<TestPacket>;

IpFlowKey keyOf(unsigned flow) {
   return {0, 0, Ip::IpAddr({10, 0, 0, 1}), {}, Ip::Protocol::udp, std::uint16_t(flow), 53};
}

Packets make(unsigned seed, unsigned count, unsigned flows) {
   std::mt19937 draw(seed);
   Packets packets;
   for (unsigned i = 0; i < count; ++i)
      packets.push_back({unsigned(draw() % flows), 40 + draw() % 3, 1000.0 + double(draw() % 5)});
   return packets;
}

Store::Rows rowsOf(Packets const& packets, unsigned heldBelow) {
   Store::Rows rows;
   for (auto const& packet : packets) {
      if (packet.flow >= heldBelow) continue;
      auto const [place, isNew] = rows.try_emplace(keyOf(packet.flow), keyOf(packet.flow));
      if (isNew) place->second.createTimeIs(packet.time);
      place->second.updateTimeIs(packet.time);
      place->second.packetsInc(1);
      place->second.bytesInc(packet.bytes);
   }
   return rows;
}

using Counters = Counting<HoIpFlowCounter>;

void pass(Counters& counting, Packets const& packets) {
   counting.begin(false);
   for (auto const& packet : packets) counting.packet(keyOf(packet.flow), packet.bytes, packet.time);
   counting.finish();
}
void holdBelow(Counters& counting, unsigned end) {
   for (unsigned flow = 0; flow < end; ++flow) counting.hold(keyOf(flow));
}

TEST(Counting, PutsAnyTableRightWhereverItDies) {
   Packets const packets = make(4, 40, 7);
   auto const wanted = rowsOf(packets, 5);
   auto changed = [&](auto change) {
      auto rows = rowsOf({packets.begin(), packets.begin() + 20}, 5);
      change(rows);
      return rows;
   };
   std::vector<Store::Rows> const found{
       {},
       wanted,
       rowsOf({packets.begin(), packets.begin() + 20}, 7),
       rowsOf(make(5, 40, 7), 7),
       rowsOf(make(6, 200, 7), 7),
       changed([](auto& rows) { rows.begin()->second.bytesInc(1); }),
       changed([](auto& rows) { rows.begin()->second.updateTimeIs(7); }),
       changed([](auto& rows) { rows.begin()->second.packetsIs(0); }),
       changed([](auto& rows) { rows.begin()->second.packetsIs(~0ull); }),
       changed([](auto& rows) { rows.erase(rows.begin()); }),
   };
   for (std::size_t i = 0; i < found.size(); ++i) {
      bool died = true;
      for (std::uint64_t after = 0; died; ++after) {
         Store store;
         store.content() = found[i];
         store.dieAfter(after);
         died = false;
         for (unsigned run = 0; run < 2; ++run) {
            Counters counting;
            counting.tableIs(store);
            holdBelow(counting, 5);
            try {
               pass(counting, packets);
            } catch (Tracker::Killed const&) {
               died = true;
            }
            store.dieAfter(~0ull >> 1);
         }
         ASSERT_EQ(store.content(), wanted) << "table " << i << ", died at change " << after;
      }
   }
}

TEST(Counting, LaterFlowsAreCountedByAnotherPassAndNothingElseChanges) {
   Packets const packets = make(9, 60, 8);
   Store store;
   Counters counting;
   holdBelow(counting, 4);
   EXPECT_TRUE(counting.uncounted());
   counting.tableIs(store);
   counting.begin(false);
   for (auto const& packet : packets) {
      if (&packet == &packets[30]) {
         for (unsigned flow : {4, 5}) counting.hold(keyOf(flow));
         counting.hold(keyOf(3)); // by another key
         counting.release(keyOf(0));
      }
      EXPECT_EQ(counting.packet(keyOf(packet.flow), packet.bytes, packet.time),
                packet.flow < 4 && (&packet < &packets[30] || packet.flow > 0));
   }
   counting.finish();
   EXPECT_TRUE(counting.uncounted());
   auto wanted = rowsOf(packets, 4);
   wanted.erase(keyOf(0));
   EXPECT_EQ(store.content(), wanted);
   auto const stores = counting.stores();
   pass(counting, packets);
   EXPECT_FALSE(counting.uncounted());
   wanted = rowsOf(packets, 6);
   wanted.erase(keyOf(0));
   EXPECT_EQ(store.content(), wanted);
   EXPECT_EQ(counting.stores() - stores, wanted.at(keyOf(4)).packets() + wanted.at(keyOf(5)).packets());
   auto const changes = store.changes();
   pass(counting, packets);
   EXPECT_EQ(store.changes(), changes);
   counting.release(keyOf(3));
   EXPECT_TRUE(store.content().contains(keyOf(3))) << "held by its other key";
   counting.release(keyOf(3));
   EXPECT_FALSE(store.content().contains(keyOf(3)));
}

TEST(Counting, AnInterfaceGoesOnInTheRowsThatItFinds) {
   Packets const packets = make(11, 30, 3);
   Store store;
   for (unsigned run = 0; run < 2; ++run) {
      Counters counting;
      holdBelow(counting, 2);
      counting.tableIs(store);
      counting.begin(true);
      for (unsigned i = run * 15; i < run * 15 + 15; ++i)
         counting.packet(keyOf(packets[i].flow), packets[i].bytes, packets[i].time);
   }
   EXPECT_EQ(store.content(), rowsOf(packets, 2));
}

} // namespace
} // namespace Offload
