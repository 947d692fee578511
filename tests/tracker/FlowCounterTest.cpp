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

/// @return how many packets were counted already, and how many rows were removed
std::pair<std::uint64_t, std::uint64_t> run(Store& store, Packets const& packets) {
   FlowCounter<HoIpFlowCounter> counter(store);
   for (auto const& packet : packets) counter.count(packet.key, packet.bytes, packet.time);
   counter.finish();
   EXPECT_EQ(counter.packets(), packets.size());
   EXPECT_EQ(counter.rows(), store.rows());
   return {counter.packetsKept(), counter.rowsRemoved()};
}

TEST(FlowCounter, RunningAgainChangesNothingAndGrownCapturesAreContinued) {
   Packets const packets = makePackets(3, 60, 7), part(packets.begin(), packets.begin() + 40);
   Store store;
   run(store, part);
   auto const changes = store.changes();
   EXPECT_EQ(run(store, part).first, 40u);
   EXPECT_EQ(store.changes(), changes);
   EXPECT_EQ(run(store, packets).first, 40u);
   EXPECT_EQ(store.content(), rowsOf(packets));
   EXPECT_EQ(run(store, Packets()).second, rowsOf(packets).size()) << "an empty capture has no rows";
   EXPECT_TRUE(store.content().empty());
}

TEST(FlowCounter, BelievesNoForeignRows) {
   Packets const packets = makePackets(4, 40, 5);
   Packets const half(packets.begin(), packets.begin() + 20);
   Packets reordered = half, twice = half;
   std::swap(reordered[3], reordered[4]);
   reordered[3].bytes = reordered[4].bytes + 1;
   twice.push_back(half.back());
   IpFlowKey const stranger(1, 2, {}, {}, Ip::Protocol::tcp, 3, 4);
   auto changed = [&](auto change) {
      auto rows = rowsOf(half);
      change(rows);
      return rows;
   };
   auto first = [&](auto change) { return changed([&](auto& rows) { change(rows.begin()->second); }); };
   std::pair<char const*, Store::Rows> const all[] = {
       {"another capture of the same flows", rowsOf(makePackets(5, 40, 5))},
       {"a longer one", rowsOf(makePackets(6, 90, 50))},
       {"one that differs in a packet", rowsOf(reordered)},
       {"a packet counted twice", rowsOf(twice)},
       {"bytes changed", first([](auto& row) { row.bytesInc(1); })},
       {"packets changed", first([](auto& row) { row.packetsInc(1); })},
       {"packets lost", first([](auto& row) { row.packetsIs(0); })},
       {"packets huge", first([](auto& row) { row.packetsIs(~0ull); })},
       {"update time changed", first([](auto& row) { row.updateTimeIs(7); })},
       {"create time changed", first([](auto& row) { row.createTimeIs(7); })},
       {"another field changed", first([](auto& row) { row.hosEntriesIs(1); })},
       {"one more row, without packets",
        changed([&](auto& rows) { rows.emplace(stranger, HoIpFlowCounter(stranger)); })},
       {"only a row without packets", {{stranger, HoIpFlowCounter(stranger)}}},
       {"one row less", changed([](auto& rows) { rows.erase(rows.begin()); })},
       {"the right sum of wrong rows", changed([](auto& rows) {
           rows.begin()->second.packetsInc(1);
           std::prev(rows.end())->second.packetsInc(~0ull);
        })},
   };
   // Whatever the table holds, and wherever the first run dies in putting it right, the second run ends
   // exact.
   for (auto const& [what, found] : all) {
      SCOPED_TRACE(what);
      expectInSpiteOfDeaths<HoIpFlowCounter>(found, rowsOf(packets),
                                             [&](Store& store) { run(store, packets); });
   }
}

} // namespace
} // namespace Tracker
