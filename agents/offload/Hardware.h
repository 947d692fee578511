// SPDX-License-Identifier: Apache-2.0
// The pretended hardware: which of the wanted flows it holds. It has a number of slots for flows of both
// families. A wanted flow takes a slot, and its status says `offloaded`; where there is none it says
// `rejected`, and the flow waits. When a held flow is no longer wanted, its status goes, and the flow that
// has waited longest takes the slot.
//
// The tables of states are the memory of it: an agent that is started again holds what they say was held, so
// that no flow loses its slot to another one because its agent was killed.
//
// No event loop and no shared tables are needed to try it: states go to a RowStore.
#pragma once

#include "FlowTracking/HoFlowState.h"
#include "RowStore.h"
#include "SeededHash.h"
#include "Tables.h"
#include "Zeb/Seconds.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

namespace Offload {

/// The slots, and the numbers by which waiting flows of both families stand in one row.
class Slots {
public:
   /// @param limit 0: as many as there are flows
   explicit Slots(std::uint64_t limit)
      : limit_(limit) {}

   std::uint64_t limit() const { return limit_; }
   std::uint64_t used() const { return used_; }
   bool free() const { return limit_ == 0 || used_ < limit_; }
   void take() { ++used_; }
   void give() { --used_; }
   std::uint64_t arrival() { return ++arrivals_; }

private:
   std::uint64_t const limit_;
   std::uint64_t used_ = 0, arrivals_ = 0;
};

/// What it does to the counters of a flow.
template <class Key> class Holder {
public:
   virtual ~Holder() = default;
   virtual void hold(Key const& key) = 0;
   virtual void release(Key const& key) = 0;
};

/// One family's flows. @tparam Status HoIpFlowStatus or HoIp6FlowStatus
template <class Status> class Hardware {
   using State = FlowTracking::HoFlowState;

public:
   using Key = typename Status::Key;

   /// Takes over what the table says; call fill() after it. @param now gives the seconds since 1970
   Hardware(Agents::RowStore<Status>& statuses, Slots& slots, Holder<Key>& holder,
            std::function<Zeb::Seconds()> now)
      : statuses_(statuses)
      , slots_(slots)
      , holder_(holder)
      , now_(std::move(now)) {
      std::vector<Status> rows;
      statuses_.forEach([&](Status const& row) { rows.push_back(row); });
      std::stable_sort(rows.begin(), rows.end(), [](Status const& a, Status const& b) {
         return isHeld(a) != isHeld(b) ? isHeld(a) : a.createTime() < b.createTime();
      });
      for (Status const& row : rows) place(row.key(), &row);
   }

   /// A flow is wanted, perhaps as before.
   void want(Key const& key) {
      if (!flows_.contains(key)) place(key, nullptr);
   }
   /// It is not, or no longer. The caller fills the slot that may become free; see fill().
   void drop(Key const& key) {
      auto const found = flows_.find(key);
      if (found == flows_.end()) return;
      if (std::uint64_t const arrival = found->second) {
         waiting_.erase(arrival);
      } else {
         slots_.give();
         holder_.release(key);
      }
      Key const gone = key; // `key` may be the map's own
      flows_.erase(found);
      statuses_.remove(gone);
   }
   /// Drops all for which `wanted(key)` is false.
   void keep(std::function<bool(Key const&)> const& wanted) {
      std::vector<Key> unwanted;
      for (auto const& [key, arrival] : flows_)
         if (!wanted(key)) unwanted.push_back(key);
      for (Key const& key : unwanted) drop(key);
   }

   /// When the flow that waits longest came; nothing if none waits.
   std::optional<std::uint64_t> firstWaiting() const {
      if (waiting_.empty()) return std::nullopt;
      return waiting_.begin()->first;
   }
   /// Gives that flow a slot.
   void holdFirst() {
      Key const key = waiting_.begin()->second;
      waiting_.erase(waiting_.begin());
      hold(key);
   }

   std::uint64_t flows() const { return flows_.size(); }
   Agents::StateCounts counts() const {
      Agents::StateCounts counts{};
      counts[static_cast<std::size_t>(State::rejected)] = static_cast<std::uint32_t>(waiting_.size());
      counts[static_cast<std::size_t>(State::offloaded)] =
          static_cast<std::uint32_t>(flows_.size() - waiting_.size());
      return counts;
   }

private:
   static bool isHeld(Status const& row) { return row.hoFlowState() == State::offloaded; }

   /// Where a new flow goes. @param old what the table says of it
   void place(Key const& key, Status const* old) {
      if (slots_.free() && (!old || isHeld(*old))) return hold(key);
      std::uint64_t const arrival = slots_.arrival();
      flows_[key] = arrival;
      waiting_.emplace(arrival, key);
      stateIs(key, State::rejected);
   }
   void hold(Key const& key) {
      slots_.take();
      flows_[key] = 0;
      holder_.hold(key);
      stateIs(key, State::offloaded);
   }
   void stateIs(Key const& key, State state) {
      Status row(key);
      bool const known = statuses_.read(key, row);
      if (known && row.hoFlowState() == state) return;
      if (!known) row.createTimeIs(now_());
      row.updateTimeIs(known ? now_() : row.createTime());
      row.hoFlowStateIs(state);
      statuses_.write(row);
   }

   Agents::RowStore<Status>& statuses_;
   Slots& slots_;
   Holder<Key>& holder_;
   std::function<Zeb::Seconds()> now_;
   std::unordered_map<Key, std::uint64_t, Agents::SeededHash<Key>> flows_; // 0: held, else when it came
   std::map<std::uint64_t, Key> waiting_;                                  // by that number
};

/// Gives free slots to the flows that have waited longest, of whichever family.
template <class Hardware4, class Hardware6> void fill(Slots const& slots, Hardware4& ip4, Hardware6& ip6) {
   while (slots.free()) {
      auto const first4 = ip4.firstWaiting(), first6 = ip6.firstWaiting();
      if (!first4 && !first6) return;
      if (first4 && (!first6 || *first4 < *first6))
         ip4.holdFirst();
      else
         ip6.holdFirst();
   }
}

} // namespace Offload
