// SPDX-License-Identifier: Apache-2.0
// The counters of held flows: whatever the table holds when a pass begins, and wherever the agent dies in it,
// the next pass leaves exactly the rows of its capture, and no row that was right falls back on the way.
#include "Counting.h"
#include "MemoryStore.h"

#include <gtest/gtest.h>

namespace Offload {
namespace {

using FlowTracking::HoIpFlowCounter;
using Store = Tracker::MemoryStore<HoIpFlowCounter>;

using Tracker::flowKey, Tracker::makePackets, Tracker::rowsOf;
using Packets = Tracker::TestPackets;

using Counters = Counting<HoIpFlowCounter>;

void pass(Counters& counting, Packets const& packets) {
   counting.begin(false);
   for (auto const& packet : packets) counting.packet(packet.key, packet.bytes, packet.time);
   counting.finish();
}
void holdBelow(Counters& counting, unsigned end) {
   for (unsigned flow = 0; flow < end; ++flow) counting.hold(flowKey(flow));
}

TEST(Counting, PutsAnyTableRightWhereverItDies) {
   Packets const packets = makePackets(4, 40, 7);
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
       rowsOf(makePackets(5, 40, 7), 7),
       rowsOf(makePackets(6, 200, 7), 7),
       changed([](auto& rows) { rows.begin()->second.bytesInc(1); }),
       changed([](auto& rows) { rows.begin()->second.updateTimeIs(7); }),
       changed([](auto& rows) { rows.begin()->second.packetsIs(0); }),
       changed([](auto& rows) { rows.begin()->second.packetsIs(~0ull); }),
       changed([](auto& rows) { rows.erase(rows.begin()); }),
   };
   for (auto const& rows : found) {
      SCOPED_TRACE(&rows - found.data());
      Tracker::expectInSpiteOfDeaths<HoIpFlowCounter>(rows, wanted, [&](Store& store) {
         Counters counting;
         counting.tableIs(store);
         holdBelow(counting, 5);
         pass(counting, packets);
      });
   }
}

TEST(Counting, LaterFlowsAreCountedByAnotherPassAndNothingElseChanges) {
   Packets const packets = makePackets(9, 60, 8);
   Store store;
   Counters counting;
   holdBelow(counting, 4);
   EXPECT_TRUE(counting.uncounted());
   counting.tableIs(store);
   counting.begin(false);
   for (auto const& packet : packets) {
      if (&packet == &packets[30]) {
         for (unsigned flow : {4, 5}) counting.hold(flowKey(flow));
         counting.hold(flowKey(3)); // by another key
         counting.release(flowKey(0));
      }
      EXPECT_EQ(counting.packet(packet.key, packet.bytes, packet.time),
                packet.key.srcPort() < 4 && (&packet < &packets[30] || packet.key.srcPort() > 0));
   }
   counting.finish();
   EXPECT_TRUE(counting.uncounted());
   auto wanted = rowsOf(packets, 4);
   wanted.erase(flowKey(0));
   EXPECT_EQ(store.content(), wanted);
   auto const stores = counting.stores();
   pass(counting, packets);
   EXPECT_FALSE(counting.uncounted());
   wanted = rowsOf(packets, 6);
   wanted.erase(flowKey(0));
   EXPECT_EQ(store.content(), wanted);
   EXPECT_EQ(counting.stores() - stores, wanted.at(flowKey(4)).packets() + wanted.at(flowKey(5)).packets());
   auto const changes = store.changes();
   pass(counting, packets);
   EXPECT_EQ(store.changes(), changes);
   counting.release(flowKey(3));
   EXPECT_TRUE(store.content().contains(flowKey(3))) << "held by its other key";
   counting.release(flowKey(3));
   EXPECT_FALSE(store.content().contains(flowKey(3)));
}

TEST(Counting, AnInterfaceGoesOnInTheRowsThatItFinds) {
   Packets const packets = makePackets(11, 30, 3);
   Store store;
   for (unsigned run = 0; run < 2; ++run) {
      Counters counting;
      holdBelow(counting, 2);
      counting.tableIs(store);
      counting.begin(true);
      for (unsigned i = run * 15; i < run * 15 + 15; ++i)
         counting.packet(packets[i].key, packets[i].bytes, packets[i].time);
   }
   EXPECT_EQ(store.content(), rowsOf(packets, 2));
}

} // namespace
} // namespace Offload
