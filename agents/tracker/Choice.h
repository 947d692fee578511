// SPDX-License-Identifier: Apache-2.0
// Which flows of one family are worth offloading: each that has had enough packets gets a row in the table of
// chosen flows, and loses it once it was idle for too long. The row has what the hardware needs: the Ethernet
// addresses and VLAN tags of the flow's first packet.
//
// Time is that of the packets, as far as it went; it never goes back. A flow that comes again after it was
// dropped is a new one.
//
// Started on rows of an earlier run:
//   a capture    is read again from its beginning. A row that it gives again is left alone, so followers hear
//                nothing of it; one that differs is stored; one that it doesn't give is removed by finish()
//   an interface the rows' flows are known and were seen just now
//
// It keeps a few hundred bytes of private memory for each flow.
#pragma once

#include "Frame.h"
#include "Nimbet/IntfId.h"
#include "RowStore.h"
#include "SeededHash.h"
#include "Zeb/Seconds.h"

#include <list>
#include <unordered_map>
#include <unordered_set>

namespace Tracker {

struct ChoiceRules {
   std::uint64_t offloadAfter = 1; // packets
   double idle = 0;                // seconds, 0 for never
   Nimbet::IntfId intfId = {};     // where the packets come from
   bool live = false;
};

/// @tparam Config HoIpFlowConfig or HoIp6FlowConfig
template <class Config> class Choice {
public:
   using Key = typename Config::Key;

   /// @param now seconds since 1970; of an interface alone
   Choice(Agents::RowStore<Config>& table, ChoiceRules const& rules, Zeb::Seconds now = 0)
      : table_(table)
      , rules_(rules)
      , clock_(rules.live ? now : 0) {
      table_.forEach([this](Config const& row) {
         if (rules_.live)
            flow(row.key(), [&](Flow& known) { known.row = row, known.packets = rules_.offloadAfter; });
         else
            unproven_.insert(row.key());
      });
   }

   template <class FlowKey>
   void packet(FlowKey const& flowKey, Agents::Frame const& frame, Zeb::Seconds time) {
      timeIs(time);
      Key const key(flowKey, rules_.intfId);
      Flow& known = flow(key, [&](Flow& fresh) {
         fresh.row.createTimeIs(time);
         fresh.row.srcEthAddrIs(frame.srcEthAddr);
         fresh.row.dstEthAddrIs(frame.dstEthAddr);
         fresh.row.dot1qVlanTagIs(frame.vlanTag);
         fresh.row.dot1qCustomerVlanTagIs(frame.customerVlanTag);
         fresh.row.cachedIntfIdIs(rules_.intfId);
      });
      ++packets_;
      bytes_ += frame.bytes;
      if (++known.packets != rules_.offloadAfter) return;
      known.row.updateTimeIs(time);
      choose(known.row);
   }

   /// Time goes on, with or without packets: idle flows go.
   void timeIs(Zeb::Seconds now) {
      if (!(now > clock_)) return;
      clock_ = now;
      while (rules_.idle > 0 && !flows_.empty() && clock_ - flows_.front().seen > rules_.idle) {
         Flow const& idle = flows_.front();
         if (isChosen(idle)) {
            table_.remove(idle.row.key());
            ++removed_;
         }
         index_.erase(idle.row.key());
         flows_.pop_front();
      }
   }

   /// To be called once all packets of a capture were given: removes the rows that it doesn't give.
   void finish() {
      for (Key const& key : unproven_) {
         table_.remove(key);
         ++foreign_;
      }
      unproven_.clear();
   }

   void forEachChosen(auto visit) const {
      for (Flow const& flow : flows_)
         if (isChosen(flow)) visit(flow.row.key());
   }

   std::uint64_t rows() const { return table_.rows(); }
   /// Packets and bytes of the family, chosen flows or not.
   std::uint64_t packets() const { return packets_; }
   std::uint64_t bytes() const { return bytes_; }
   std::uint64_t flows() const { return flows_.size(); }
   /// Rows stored by this run, removed as idle, and removed because the capture doesn't give them.
   std::uint64_t stores() const { return stores_; }
   std::uint64_t removed() const { return removed_; }
   std::uint64_t foreign() const { return foreign_; }

private:
   struct Flow {
      Config row;
      std::uint64_t packets = 0;
      double seen = 0;
   };
   bool isChosen(Flow const& flow) const { return flow.packets >= rules_.offloadAfter; }

   /// The flow of `key`, seen now. `fill` completes a new one.
   template <class Fill> Flow& flow(Key const& key, Fill fill) {
      auto const [place, isNew] = index_.try_emplace(key);
      if (isNew) {
         flows_.push_back({Config(key)});
         place->second = std::prev(flows_.end());
         fill(flows_.back());
      } else {
         flows_.splice(flows_.end(), flows_, place->second);
      }
      flows_.back().seen = clock_;
      return flows_.back();
   }

   void choose(Config const& row) {
      Config old;
      unproven_.erase(row.key());
      if (table_.read(row.key(), old) && old == row) return;
      table_.write(row);
      ++stores_;
   }

   Agents::RowStore<Config>& table_;
   ChoiceRules const rules_;
   double clock_;
   std::list<Flow> flows_; // the one that was seen last is last
   std::unordered_map<Key, typename std::list<Flow>::iterator, Agents::SeededHash<Key>> index_;
   std::unordered_set<Key, Agents::SeededHash<Key>> unproven_; // rows of an earlier run that weren't met yet
   std::uint64_t packets_ = 0, bytes_ = 0, stores_ = 0, removed_ = 0, foreign_ = 0;
};

} // namespace Tracker
