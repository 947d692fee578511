// SPDX-License-Identifier: Apache-2.0
// What the layers in front of a table cost: the same calls on the same mounted table, made to the bare back
// end, to the front object, which adds the boundary at which damage is met, and to the entity, which also
// counts and tells notifiees. Rows are those of HoFlowCounter, as a table without a change queue is the
// fastest there is.
#include "FlowTracking/HoFlowCounterEntity.h"
#include "core/Runs.h"

#include <random>

namespace Bench {

std::vector<std::string> const layerOperations{"read", "write"};
std::vector<Traits> const layers{
    {"back end", false, true, true, true, "MirakWriter through the back end interface"},
    {"front object", false, true, true, false, "MirakMap::safeLookup, safeWrite"},
    {"entity", false, true, true, false, "HoFlowCounter, nobody listening"},
    {"entity, 4 notifiees", false, true, true, false, "each adds 1 to a count"},
};

namespace {

using FlowTracking::HoFlowCounter;
using FlowTracking::HoIpFlowCounter;
using FlowTracking::IpFlowKey;

class Counting final : public Zeb::PtrInterface::NotifieeConst {
public:
   void onAttribute(Zeb::AttributeId, void const*) override { ++heard; }
   u64 heard = 0;
};

class Mounted {
public:
   Mounted(Place const& place, std::size_t rows)
      : tree_(Zeb::Dir::DirIs(""))
      , entity_(FlowTracking::hoFlowCounterFactory("bench")) {
      Mem::RootPath::set(place.directory);
      tree_->entityIs(HoFlowCounter::mountPath("bench", "bench"), entity_);
      entity_->hoIpFlowCounterControl()->init(Mirak::MapDescriptor(static_cast<Mirak::u32>(rows)));
      for (std::size_t n = 0; n < rows; ++n) {
         auto const word = static_cast<u32>(n);
         rows_.emplace_back(IpFlowKey(
             0, 0, Ip::IpAddr(Ip::IpAddr::Bytes{10, 0, u8(word >> 16), u8(word >> 8)}),
             Ip::IpAddr(Ip::IpAddr::Bytes{10, 1, 0, 1}), Ip::Protocol::tcp, static_cast<u16>(word), 443));
         entity_->hoIpFlowCounterIs(rows_.back());
      }
      std::shuffle(rows_.begin(), rows_.end(), std::mt19937_64(1));
      for (auto& one : listeners_) {
         one = {new Counting, Zeb::Ptr<Counting>::adopt};
         one->hasNotificationActiveIs(true);
      }
   }

   void measure(std::size_t layer, FigureKey key, Figures& figures) {
      auto& entity = *entity_;
      auto& front = entity.hoIpFlowCounter();
      auto& back = front.back();
      bool found = false;
      key.operation = "read";
      auto const add = [&](auto call) { figures.add(key, timed(call)); };
      if (layer == 0)
         add([&](HoIpFlowCounter const& row) { return back.lookup(row.key(), found, nullptr)->packets(); });
      else if (layer == 1)
         add([&](HoIpFlowCounter const& row) {
            return front.safeLookup(row.key(), found, nullptr)->packets();
         });
      else if (layer == 2)
         add([&](HoIpFlowCounter const& row) { return entity.hoIpFlowCounter(row.key()).packets(); });
      key.operation = "write";
      ++generation_;
      for (auto& row : rows_) row.packetsIs(generation_);
      if (layer == 3)
         for (auto const& one : listeners_) entity.newMember(one);
      using Row = FlowTracking::HoIpFlowCounterOps::Value;
      if (layer == 0)
         add([&](HoIpFlowCounter const& row) { return back.write(Row(row), true)->packets(); });
      else if (layer == 1)
         add([&](HoIpFlowCounter const& row) { return front.safeWrite(Row(row))->packets(); });
      else
         add([&](HoIpFlowCounter const& row) { return entity.hoIpFlowCounterIs(row), generation_; });
      if (layer == 3)
         for (auto const& one : listeners_) entity.deleteMember(one);
      for (auto const& row : rows_)
         if (!(entity.hoIpFlowCounter(row.key()) == row)) wrong("layers", "a row isn't what was written");
   }

   /// That they were called at all.
   bool everyoneHeard(u64 visits) const {
      return std::all_of(listeners_.begin(), listeners_.end(),
                         [=](auto const& one) { return one->heard == visits; });
   }
   u64 callsInABatch() const { return passesFor(rows_.size()) * rows_.size(); }

private:
   template <class Call> double timed(Call call) {
      u64 sum = 0;
      auto const start = Clock::now();
      for (u64 pass = 0, passes = passesFor(rows_.size()); pass < passes; ++pass)
         for (auto const& row : rows_) sum += call(row);
      double const ns = nsSince(start, callsInABatch());
      if (sum != generation_ * callsInABatch()) wrong("layers", "the rows read have a wrong sum");
      return ns;
   }

   Zeb::Ptr<Zeb::Dir> tree_;
   Zeb::Ptr<HoFlowCounter> entity_;
   std::vector<HoIpFlowCounter> rows_;
   std::array<Zeb::Ptr<Counting>, 4> listeners_;
   u64 generation_ = 0;
};

} // namespace

void runLayers(Workload const& load, Setting const& setting, Figures& figures) {
   Folder const folder;
   Mounted mounted({folder.path(), load.rows, setting.core}, load.rows);
   int const times = setting.repetitions * (load.rows <= 20'000 ? 4 : load.rows <= 200'000 ? 2 : 1);
   for (int time = 0; time < times; ++time) {
      for (std::size_t turn = 0; turn < layers.size(); ++turn) {
         std::size_t const layer = (turn + static_cast<std::size_t>(time)) % layers.size();
         mounted.measure(layer, {nameOf(load.family), load.rows, layers[layer].name, ""}, figures);
      }
   }
   if (!mounted.everyoneHeard(static_cast<u64>(times) * mounted.callsInABatch()))
      wrong("layers", "a notifiee wasn't told of each write");
}

} // namespace Bench
