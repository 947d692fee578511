// SPDX-License-Identifier: Apache-2.0
// A RowStore in private memory that can die at a chosen change: the tracker's rule of restart can then be
// tried at every point without files. What real tables do when their writer dies is tried in KillTest.cpp.
#pragma once

#include "FlowTracking/HoFlowCounter.h"
#include "RowStore.h"
#include "Track.h"

#include <gtest/gtest.h>
#include <map>
#include <random>
#include <vector>

namespace Tracker {

struct Killed {};

template <class Record> class MemoryStore final : public Agents::RowStore<Record> {
public:
   using typename Agents::RowStore<Record>::Key;
   using Rows = std::map<Key, Record>;

   bool read(Key const& key, Record& row) const override {
      auto const place = rows_.find(key);
      if (place != rows_.end()) row = place->second;
      return place != rows_.end();
   }
   void write(Record const& row) override {
      step();
      rows_.insert_or_assign(row.key(), row);
   }
   void remove(Key const& key) override {
      step();
      rows_.erase(key);
   }
   std::uint64_t rows() const override { return rows_.size(); }
   void forEach(std::function<void(Record const&)> const& visit) const override {
      for (auto const& [key, row] : rows_) visit(row);
   }
   void removeAll() override {
      while (!rows_.empty()) {
         step();
         rows_.erase(rows_.begin());
      }
   }

   Rows& content() { return rows_; }
   std::uint64_t changes() const { return changes_; }
   /// The change after `changes` more ones is not made: the process dies there.
   void dieAfter(std::uint64_t changes) { deadline_ = changes_ + changes; }

private:
   void step() {
      if (changes_ == deadline_) throw Killed();
      ++changes_;
   }

   Rows rows_;
   std::uint64_t changes_ = 0, deadline_ = ~0ull;
};

/// What `run` makes of rows that it finds, when it dies at its first change, at its second one and so on, and
/// is then started again: `wanted`, each time.
template <class Record, class Run>
void expectInSpiteOfDeaths(typename MemoryStore<Record>::Rows const& found,
                           typename MemoryStore<Record>::Rows const& wanted, Run run) {
   bool died = true;
   for (std::uint64_t after = 0; died; ++after) {
      MemoryStore<Record> store;
      store.content() = found;
      store.dieAfter(after);
      died = false;
      try {
         run(store);
      } catch (Killed const&) {
         died = true;
      }
      store.dieAfter(~0ull >> 1);
      run(store);
      ASSERT_EQ(store.content(), wanted) << "died at change " << after;
   }
}

struct TestPacket {
   FlowTracking::IpFlowKey key;
   std::uint64_t bytes;
   double time;
};
using TestPackets = std::vector<TestPacket>;

inline FlowTracking::IpFlowKey flowKey(unsigned flow) {
   return {0,
           0,
           Ip::IpAddr({10, 0, 0, 1}),
           Ip::IpAddr({10, 0, 0, 2}),
           Ip::Protocol::udp,
           static_cast<std::uint16_t>(flow),
           53};
}
/// Packets of so many flows, some of them backwards in time.
inline TestPackets makePackets(unsigned seed, unsigned count, unsigned flows) {
   std::mt19937 draw(seed);
   TestPackets packets;
   for (unsigned i = 0; i < count; ++i) {
      auto const flow = static_cast<unsigned>(draw() % flows);
      packets.push_back({flowKey(flow), 40 + draw() % 3, 1000.0 + static_cast<double>(draw() % 5)});
   }
   return packets;
}
/// The rows that the packets of the flows below `end` make.
inline MemoryStore<FlowTracking::HoIpFlowCounter>::Rows rowsOf(TestPackets const& packets,
                                                               unsigned end = ~0u) {
   MemoryStore<FlowTracking::HoIpFlowCounter>::Rows rows;
   for (auto const& packet : packets) {
      if (packet.key.srcPort() >= end) continue;
      auto const [place, isNew] = rows.try_emplace(packet.key, packet.key);
      auto& row = place->second;
      if (isNew) row.createTimeIs(packet.time);
      row.updateTimeIs(packet.time);
      row.packetsInc(1);
      row.bytesInc(packet.bytes);
   }
   return rows;
}

/// Counts a whole capture, and chooses nothing.
template <class Table4, class Table6>
Agents::Figures countAll(Agents::PacketSource& source, Table4& table4, Table6& table6) {
   Works works;
   works.ip4.counter.emplace(table4);
   works.ip6.counter.emplace(table6);
   Agents::Figures figures;
   track(source, works, figures, [](std::uint64_t) { return true; });
   return figures;
}

} // namespace Tracker
