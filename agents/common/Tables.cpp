// SPDX-License-Identifier: Apache-2.0
// How the agents' tables are mounted. See Tables.h.
#include "Tables.h"

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/WriterLock.h"
#include "PacketSource.h"

#include <cerrno>
#include <cstring>
#include <string_view>

namespace Agents {
namespace {

using FlowTracking::HoFlowState;
using FlowTracking::HosStateCounter;
using FlowTracking::HosStateCounterEntry;

constexpr unsigned stateTableSize = 16;

/// Listens to the library's traces while a table is mounted; they don't go to stderr then.
class OpeningWords {
public:
   explicit OpeningWords(std::string const& collection)
      : handler_(Lomi::Platform::getDebugHandler(collection, true)) {
      handler_->maskIs(0b11);
      Lomi::Platform::traceSinkIs([this](unsigned level, auto, auto, std::string_view text) {
         lost_ |= text.starts_with("all entries from ");
         if (first_.empty() && (level == 0 || text.starts_with("owner file "))) first_ = text;
      });
   }
   ~OpeningWords() {
      Lomi::Platform::traceSinkIs({});
      handler_->maskIs(0b1);
   }
   OpeningWords(OpeningWords const&) = delete;
   OpeningWords& operator=(OpeningWords const&) = delete;
   /// What was wrong with a table that was found and had to be formatted anew, else nothing.
   std::string lost() const { return lost_ ? first_ : std::string(); }

private:
   std::shared_ptr<Lomi::Platform::DebugHandler> handler_;
   bool lost_ = false;
   std::string first_;
};

} // namespace

std::string mountWriter(Zeb::Ptr<ZebMirak::CollectionControl> const& control, char const* collection,
                        unsigned rows) {
   OpeningWords const words(collection);
   control->init(Mirak::MapDescriptor(rows));
   return words.lost();
}

void openTables(std::function<void()> const& mount) {
   try {
      mount();
   } catch (Lomi::MemoryResourceException const&) {
      throw;
   } catch (Lomi::Exception const& e) {
      if (std::string_view(e.what()).ends_with(std::strerror(ENOSPC)))
         throw Lomi::MemoryResourceException(e.what());
      throw CannotOpen(std::string("the tables can't be opened: ") + e.what());
   }
}

unsigned writerOf(std::string const& path) {
   auto const handler = Lomi::Platform::getDebugHandler("Agents", true);
   Mem::NaoRootPath const place(*handler, path, false);
   Mem::u32 pid = 0;
   return place.exists() && Mem::WriterLock::ownerIsAlive(*handler, place, &pid) ? pid : 0;
}

CounterTables::CounterTables(std::string const& type, std::string const& name)
   : CounterTables(FlowTracking::hoFlowCounterFactory(name), type, name) {}

CounterTables::CounterTables(Zeb::Ptr<Counter> counter, std::string const& type, std::string const& name)
   : ip4(*counter, counter->hoIpFlowCounter())
   , ip6(*counter, counter->hoIp6FlowCounter())
   , counter_(std::move(counter)) {
   tree_->entityIs(Counter::mountPath(type, name), counter_);
   lost4_ = mountWriter(counter_->hoIpFlowCounterControl(), "hoIpFlowCounter", flowTableSize);
   lost6_ = mountWriter(counter_->hoIp6FlowCounterControl(), "hoIp6FlowCounter", flowTableSize);
}

StateTables::StateTables(std::string const& type) {
   tree_->entityIs(HosStateCounter::mountPath(type), states_);
   mountWriter(states_->hosStateIpCounterControl(), "hosStateIpCounter", stateTableSize);
   mountWriter(states_->hosStateIp6CounterControl(), "hosStateIp6Counter", stateTableSize);
   states_->hosStateIpCounterDelAll();
   states_->hosStateIp6CounterDelAll();
}

void StateTables::countsAre(StateCounts const& ip4, StateCounts const& ip6) {
   auto const store = [](StateCounts const& counts, auto& collection, auto write) {
      for (std::size_t number = 0; number < counts.size(); ++number) {
         HosStateCounterEntry row(static_cast<HoFlowState>(number));
         row.hoFlowsIs(counts[number]);
         bool known = false;
         auto const* const old = collection.safeLookup(row.key(), known, nullptr);
         if (known ? !(*old == row) : number == 0 || counts[number] != 0) write(row);
      }
   };
   store(ip4, states_->hosStateIpCounter(), [this](auto row) { states_->hosStateIpCounterIs(row); });
   store(ip6, states_->hosStateIp6Counter(), [this](auto row) { states_->hosStateIp6CounterIs(row); });
}

} // namespace Agents
