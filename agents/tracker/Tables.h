// SPDX-License-Identifier: Apache-2.0
// The tracker's tables: two entities, placed in trees and mounted as their collections' one writer. The
// counters are behind RowStores, as FlowCounter.h wants them. While it lives this process is the tables'
// writer; their files stay when it ends.
#pragma once

#include "FlowCounter.h"
#include "FlowTracking/HoFlowCounterEntity.h"
#include "FlowTracking/HosStateCounter.h"

#include <string>

namespace Tracker {

/// One collection of the entity. @tparam rowIs, delAll its operations
template <class Record, class Collection, void (FlowTracking::HoFlowCounter::*rowIs)(Record const&),
          void (FlowTracking::HoFlowCounter::*delAll)()>
class TableStore final : public RowStore<Record> {
public:
   using typename RowStore<Record>::Key;

   TableStore(FlowTracking::HoFlowCounter& entity, Collection& collection)
      : entity_(entity)
      , collection_(collection) {}

   // Reads go to the back end: a table that is found damaged by one is an exception, which the tracker
   // reports.
   bool read(Key const& key, Record& row) const override {
      bool found = false;
      auto const* const value = collection_.back().lookup(key, found, nullptr);
      if (found) row = *value;
      return found;
   }
   void write(Record const& row) override { (entity_.*rowIs)(row); }
   std::uint64_t rows() const override { return collection_.members(); }
   void forEach(std::function<void(Record const&)> const& visit) const override {
      auto const& table = collection_.back();
      typename Collection::Value value;
      Mirak::IterHint hint;
      for (bool more = table.first(value, hint); more; more = table.next(value.key(), value, hint))
         visit(value);
   }
   void removeAll() override { (entity_.*delAll)(); }

private:
   FlowTracking::HoFlowCounter& entity_;
   Collection& collection_;
};

class Tables {
   using Counter = FlowTracking::HoFlowCounter;

public:
   /// Mounts the counters of TYPE and NAME.
   /// @throws Lomi::InvalidInitializeException: another tracker writes them, or their files can't be made
   ///         Lomi::MemoryResourceException: no room
   Tables(std::string const& type, std::string const& name);

   TableStore<FlowTracking::HoIpFlowCounter, Counter::Attribute4::Map, &Counter::hoIpFlowCounterIs,
              &Counter::hoIpFlowCounterDelAll>
       ip4;
   TableStore<FlowTracking::HoIp6FlowCounter, Counter::Attribute6::Map, &Counter::hoIp6FlowCounterIs,
              &Counter::hoIp6FlowCounterDelAll>
       ip6;

   /// Why a table came back without the rows that an earlier writer left, else nothing.
   std::string const& lost4() const { return lost4_; }
   std::string const& lost6() const { return lost6_; }
   /// Mounts the counts by state, which one tracker of a TYPE keeps.
   /// @throws Lomi::InvalidInitializeException: another tracker does, or their files can't be made
   ///         Lomi::MemoryResourceException: no room
   void mountStates();
   /// Stores how many flows stand in each state, if that is mounted. A tracker offloads nothing: all are in
   /// the state `unknown`.
   void countStates();

private:
   Tables(Zeb::Ptr<Counter> counter, std::string const& type, std::string const& name);

   std::string const type_;
   // One tree for each entity: a NAME may be that of the other one's place.
   Zeb::Ptr<Zeb::Dir> counterTree_ = Zeb::Dir::DirIs(""), stateTree_;
   Zeb::Ptr<Counter> counter_;
   Zeb::Ptr<FlowTracking::HosStateCounter> states_; ///< null unless mounted
   std::string lost4_, lost6_;
};

} // namespace Tracker
