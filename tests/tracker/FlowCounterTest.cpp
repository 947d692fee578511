// SPDX-License-Identifier: Apache-2.0
// The rule by which a killed tracker goes on: whatever the table holds at the start, and wherever the tracker
// dies in putting that right, the next run leaves exactly the rows of its capture. Packets are few and their
// keys fewer, so that every point of death can be tried. Deaths on real tables: KillTest.cpp.
#include "FlowCounter.h"
#include "MemoryStore.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace Tracker {
namespace {

using FlowTracking::HoIpFlowCounter;
using FlowTracking::IpFlowKey;
using Store = MemoryStore<HoIpFlowCounter>;

using Packets = TestPackets;

struct Outcome {
   std::uint64_t kept, removed, stores;
};

Outcome run(Store& store, Packets const& packets) {
   FlowCounter<HoIpFlowCounter> counter(store);
   for (auto const& packet : packets) counter.count(packet.key, packet.bytes, packet.time);
   counter.finish();
   EXPECT_EQ(counter.packets(), packets.size());
   EXPECT_EQ(counter.rows(), store.rows());
   return {counter.packetsKept(), counter.rowsRemoved(), counter.stores()};
}

/// Runs and dies at the given change. True if it died.
bool runAndDie(Store& store, Packets const& packets, std::uint64_t after) {
   store.dieAfter(after);
   bool died = false;
   try {
      run(store, packets);
   } catch (Killed const&) {
      died = true;
   }
   store.dieAfter(~0ull >> 1);
   return died;
}

bool holds(Store& store, Packets const& packets) { return store.content() == rowsOf(packets); }

TEST(FlowCounter, RunningAgainChangesNothingAndGrownCapturesAreContinued) {
   Packets const packets = makePackets(3, 60, 7);
   Store store;
   run(store, Packets(packets.begin(), packets.begin() + 40));
   auto const changes = store.changes();
   EXPECT_EQ(run(store, Packets(packets.begin(), packets.begin() + 40)).kept, 40u);
   EXPECT_EQ(store.changes(), changes);
   EXPECT_EQ(run(store, packets).kept, 40u);
   EXPECT_TRUE(holds(store, packets));
   EXPECT_EQ(run(store, Packets()).removed, rowsOf(packets).size()) << "an empty capture has no rows";
   EXPECT_TRUE(store.content().empty());
}

/// Whatever the table holds, and wherever the first run dies in putting it right, the second run ends exact.
void putsRight(Store::Rows const& found, Packets const& packets, char const* what) {
   bool died = true;
   for (std::uint64_t after = 0; died; ++after) {
      Store store;
      store.content() = found;
      died = runAndDie(store, packets, after);
      run(store, packets);
      ASSERT_TRUE(holds(store, packets)) << what << ", died at change " << after;
   }
}

TEST(FlowCounter, BelievesNoForeignRows) {
   Packets const packets = makePackets(4, 40, 5);
   Packets const half(packets.begin(), packets.begin() + 20);
   putsRight(rowsOf(makePackets(5, 40, 5)), packets, "another capture of the same flows");
   putsRight(rowsOf(makePackets(6, 90, 50)), packets, "a longer one");
   Packets reordered = half;
   std::swap(reordered[3], reordered[4]);
   reordered[3].bytes = reordered[4].bytes + 1;
   putsRight(rowsOf(reordered), packets, "one that differs in a packet");
   Packets twice = half;
   twice.push_back(half.back());
   putsRight(rowsOf(twice), packets, "a packet counted twice");

   auto changed = [&](auto change) {
      auto rows = rowsOf(half);
      change(rows.begin()->second);
      return rows;
   };
   putsRight(changed([](auto& row) { row.bytesInc(1); }), packets, "bytes changed");
   putsRight(changed([](auto& row) { row.packetsInc(1); }), packets, "packets changed");
   putsRight(changed([](auto& row) { row.packetsIs(0); }), packets, "packets lost");
   putsRight(changed([](auto& row) { row.packetsIs(~0ull); }), packets, "packets huge");
   putsRight(changed([](auto& row) { row.updateTimeIs(7); }), packets, "update time changed");
   putsRight(changed([](auto& row) { row.createTimeIs(7); }), packets, "create time changed");
   putsRight(changed([](auto& row) { row.hosEntriesIs(1); }), packets, "another field changed");
   auto rows = rowsOf(half);
   IpFlowKey const stranger(1, 2, {}, {}, Ip::Protocol::tcp, 3, 4);
   rows.emplace(stranger, HoIpFlowCounter(stranger));
   putsRight(rows, packets, "one more row, without packets");
   putsRight({{stranger, HoIpFlowCounter(stranger)}}, packets, "only a row without packets");
   rows.erase(rows.begin());
   putsRight(rows, packets, "one row less");
   // Counts moved from one row to another leave the sum as it was.
   rows = rowsOf(half);
   rows.begin()->second.packetsInc(1);
   std::prev(rows.end())->second.packetsInc(~0ull);
   putsRight(rows, packets, "the right sum of wrong rows");
}

} // namespace
} // namespace Tracker
