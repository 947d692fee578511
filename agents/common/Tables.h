// SPDX-License-Identifier: Apache-2.0
// The tables that both agents write, each an entity placed in a tree of its own and mounted as its
// collections' one writer: the counters, and the counts by state. While such an object lives this process is
// the tables' writer; their files stay when it ends.
#pragma once

#include "FlowTracking/HoFlowCounterEntity.h"
#include "FlowTracking/HosStateCounter.h"
#include "RowStore.h"

#include <array>
#include <functional>
#include <string>

namespace Agents {

/// Mounts a collection as writer. `collection` is its name.
/// @return why it came back without the rows that an earlier writer left, else nothing
/// @throws Lomi::InvalidInitializeException: another process writes it, or its files can't be made
///         Lomi::MemoryResourceException: no room
std::string mountWriter(Zeb::Ptr<ZebMirak::CollectionControl> const& control, char const* collection,
                        unsigned rows);

/// Runs a start's mounting, and turns a refusal into CannotOpen. @throws also Lomi::MemoryResourceException
void openTables(std::function<void()> const& mount);

/// Rows that a table of flows is laid out for; beyond it the table grows by tenths instead of doubling.
inline constexpr unsigned flowTableSize = 1u << 20;

/// The process that writes the table at `path` now, 0 if none does.
unsigned writerOf(std::string const& path);

class CounterTables {
   using Counter = FlowTracking::HoFlowCounter;

public:
   /// Mounts those of TYPE and NAME. Throws what mountWriter() throws.
   CounterTables(std::string const& type, std::string const& name);

   TableStore<Counter, Counter::Attribute4, &Counter::hoIpFlowCounterIs, &Counter::hoIpFlowCounterDel,
              &Counter::hoIpFlowCounterDelAll>
       ip4;
   TableStore<Counter, Counter::Attribute6, &Counter::hoIp6FlowCounterIs, &Counter::hoIp6FlowCounterDel,
              &Counter::hoIp6FlowCounterDelAll>
       ip6;

   /// Why a table came back without the rows that an earlier writer left, else nothing.
   std::string const& lost4() const { return lost4_; }
   std::string const& lost6() const { return lost6_; }

private:
   CounterTables(Zeb::Ptr<Counter> counter, std::string const& type, std::string const& name);

   // A tree of its own: a NAME may be that of another entity's place.
   Zeb::Ptr<Zeb::Dir> tree_ = Zeb::Dir::DirIs("");
   Zeb::Ptr<Counter> counter_;
   std::string lost4_, lost6_;
};

/// How many flows stand in each state, by the state's number.
using StateCounts = std::array<std::uint32_t, std::size(FlowTracking::hoFlowStateNames)>;

class StateTables {
public:
   /// Mounts those of TYPE, and removes what an earlier writer left. Throws what mountWriter() throws.
   explicit StateTables(std::string const& type);

   /// Stores a row for `unknown`, and one for each other state that flows are in or were in.
   void countsAre(StateCounts const& ip4, StateCounts const& ip6);

private:
   Zeb::Ptr<Zeb::Dir> tree_ = Zeb::Dir::DirIs("");
   Zeb::Ptr<FlowTracking::HosStateCounter> states_ = FlowTracking::hosStateCounterFactory("status");
};

} // namespace Agents
