// SPDX-License-Identifier: Apache-2.0
// How the tracker's tables are mounted. See Tables.h.
#include "Tables.h"

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"

#include <string_view>

namespace Tracker {
namespace {

/// Rows that a tracker's table is laid out for; above it the table grows by tenths instead of doubling.
constexpr unsigned tableSize = 1u << 20;
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

std::string mount(Zeb::Ptr<ZebMirak::CollectionControl> const& control, char const* collection,
                  unsigned size) {
   OpeningWords const words(collection);
   control->init(Mirak::MapDescriptor(size));
   return words.lost();
}

} // namespace

Tables::Tables(std::string const& type, std::string const& name)
   : Tables(FlowTracking::hoFlowCounterFactory(name), type, name) {}

Tables::Tables(Zeb::Ptr<Counter> counter, std::string const& type, std::string const& name)
   : ip4(*counter, counter->hoIpFlowCounter())
   , ip6(*counter, counter->hoIp6FlowCounter())
   , type_(type)
   , counter_(counter) {
   counterTree_->entityIs(Counter::mountPath(type, name), counter_);
   lost4_ = mount(counter_->hoIpFlowCounterControl(), "hoIpFlowCounter", tableSize);
   lost6_ = mount(counter_->hoIp6FlowCounterControl(), "hoIp6FlowCounter", tableSize);
}

void Tables::mountStates() {
   auto const tree = Zeb::Dir::DirIs(""); // its end lets go of what was mounted before a refusal
   auto const states = FlowTracking::hosStateCounterFactory("status");
   tree->entityIs(FlowTracking::HosStateCounter::mountPath(type_), states);
   mount(states->hosStateIpCounterControl(), "hosStateIpCounter", stateTableSize);
   mount(states->hosStateIp6CounterControl(), "hosStateIp6Counter", stateTableSize);
   stateTree_ = tree;
   states_ = states;
}

void Tables::countStates() {
   if (!states_) return;
   auto const entry = [](std::uint64_t flows) {
      FlowTracking::HosStateCounterEntry row(FlowTracking::HoFlowState::unknown);
      row.hoFlowsIs(static_cast<unsigned>(flows));
      return row;
   };
   states_->hosStateIpCounterIs(entry(ip4.rows()));
   states_->hosStateIp6CounterIs(entry(ip6.rows()));
}

} // namespace Tracker
