// SPDX-License-Identifier: Apache-2.0
// Counts the packets of the flows that the hardware holds into one table, so that its rows are exact however
// often the agent is killed.
//
// With a capture. The capture is read from its beginning, perhaps several times; each reading is a pass. A
// row is what the first p packets of its flow amount to, and p is its own `packets`: a row is stored whole or
// not at all, so this is true at every moment, whatever dies. In a pass each flow is counted again in private
// memory from its first packet on; the table is left alone until the flow's packet p, where the row must be
// what was counted (it is put right if it isn't), and from there on each packet is stored. At the end a row
// that holds more than the capture gives is put right, too. So a second pass over the same capture changes
// nothing, no row that readers see ever falls back, and flows that came later are simply counted by the next
// pass: those that come during a pass take no part in it.
//
// With an interface. Rows that are found are believed, and each packet is added.
//
// A row goes with its flow. Rows of flows that aren't held are removed when counting begins.
#pragma once

#include "RowStore.h"
#include "SeededHash.h"
#include "Zeb/Seconds.h"

#include <cstdint>
#include <unordered_map>
#include <vector>

namespace Offload {

/// @tparam Counter HoIpFlowCounter or HoIp6FlowCounter
template <class Counter> class Counting {
public:
   using Key = typename Counter::Key;

   /// The table to count into; from here on rows go with their flows. It outlives this.
   void tableIs(Agents::RowStore<Counter>& table) { table_ = &table; }

   /// A flow is held, once more: by another of its keys.
   void hold(Key const& key) {
      Flow& flow = flows_.try_emplace(key, key).first->second;
      if (flow.holds++ > 0) return;
      ++uncounted_;
      if (live_) begin(flow);
   }
   void release(Key const& key) {
      auto const found = flows_.find(key);
      if (found == flows_.end() || --found->second.holds > 0) return;
      if (!found->second.counted) --uncounted_;
      flows_.erase(found);
      if (table_) table_->remove(key);
   }

   /// Begins to count: a pass over a capture, or an interface's packets from here on.
   void begin(bool live) {
      live_ = live;
      packets_ = bytes_ = kept_ = 0;
      std::vector<Key> foreign;
      table_->forEach([&](Counter const& row) {
         if (!flows_.contains(row.key())) foreign.push_back(row.key());
      });
      for (Key const& key : foreign) table_->remove(key);
      removed_ += foreign.size();
      for (auto& [key, flow] : flows_) begin(flow);
   }

   /// Counts one packet. @return false: its flow isn't held, or came too late for this pass
   bool packet(Key const& key, std::uint64_t bytes, Zeb::Seconds time) {
      auto const found = flows_.find(key);
      if (found == flows_.end() || !found->second.counted) return false;
      Flow& flow = found->second;
      ++packets_;
      bytes_ += bytes;
      if (flow.row.packets() == 0) flow.row.createTimeIs(time);
      flow.row.updateTimeIs(time);
      flow.row.packetsInc(1);
      flow.row.bytesInc(bytes);
      if (flow.row.packets() > flow.stored)
         store(flow);
      else if (flow.row.packets() == flow.stored)
         prove(flow);
      return true;
   }

   /// The pass is over, all packets of the capture were given.
   void finish() {
      for (auto& [key, flow] : flows_) {
         if (!flow.counted || flow.row.packets() >= flow.stored) continue;
         if (flow.row.packets())
            store(flow);
         else
            table_->remove(key);
         ++removed_;
      }
   }

   /// Flows that came after the pass began: another one is due.
   bool uncounted() const { return uncounted_ != 0; }

   std::uint64_t rows() const { return table_ ? table_->rows() : 0; }
   /// Of this pass, or of what an interface's rows hold.
   std::uint64_t packets() const { return packets_; }
   std::uint64_t bytes() const { return bytes_; }
   /// Of these, packets that an earlier run or pass had counted.
   std::uint64_t packetsKept() const { return kept_; }
   /// Rows that were removed or put right because this capture doesn't account for them.
   std::uint64_t rowsRemoved() const { return removed_; }
   std::uint64_t stores() const { return stores_; }

private:
   struct Flow {
      explicit Flow(Key const& key)
         : row(key) {}
      Counter row;              // as counted so far, in this pass
      std::uint64_t stored = 0; // packets of its row in the table
      unsigned holds = 0;       // by how many keys
      bool counted = false;     // takes part in this pass
   };

   void begin(Flow& flow) {
      Counter found(flow.row.key());
      bool const known = table_->read(found.key(), found);
      flow.row = known && live_ ? found : Counter(found.key());
      flow.stored = known ? found.packets() : 0;
      if (live_) packets_ += flow.stored, bytes_ += flow.row.bytes(), kept_ += flow.stored;
      if (!flow.counted) --uncounted_;
      flow.counted = true;
   }
   /// What was counted is as much as the row has.
   void prove(Flow& flow) {
      Counter found(flow.row.key());
      if (table_->read(found.key(), found) && found == flow.row)
         kept_ += flow.stored;
      else
         store(flow), ++removed_;
   }
   void store(Flow& flow) {
      table_->write(flow.row);
      flow.stored = flow.row.packets();
      ++stores_;
   }

   Agents::RowStore<Counter>* table_ = nullptr;
   bool live_ = false;
   std::uint64_t uncounted_ = 0;
   std::uint64_t packets_ = 0, bytes_ = 0, kept_ = 0, removed_ = 0, stores_ = 0;
   std::unordered_map<Key, Flow, Agents::SeededHash<Key>> flows_;
};

} // namespace Offload
