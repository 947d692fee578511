// SPDX-License-Identifier: Apache-2.0
// See HoflowTable.h.
#include "peers/HoflowTable.h"

template class Mirak::MirakWriter<FlowTracking::HoIpFlowConfigBenchOps>;
template class Mirak::MirakReader<FlowTracking::HoIpFlowConfigBenchOps>;

namespace Bench {
namespace {

constexpr char const* path = "flowtracking/bench/hwOffload/config/hoIpFlowConfig";

Lomi::Platform::DebugHandler const& handler() {
   static Lomi::Platform::DebugHandler const it("bench");
   return it;
}

} // namespace

std::unique_ptr<Table> openWriter(Place const& place, bool fixedSize) {
   Mem::RootPath::set(place.directory);
   Mirak::MapDescriptor descriptor(static_cast<Mirak::u32>(place.rows));
   descriptor.fixedSize = fixedSize;
   auto table = std::make_unique<Mirak::MirakWriter<TableOps>>(handler(), path, descriptor);
   if (!table->initialize("bench")) wrong("hoflow", "the writer can't open its table");
   return table;
}

std::unique_ptr<Table> openReader(Place const& place) {
   Mem::RootPath::set(place.directory);
   auto table = std::make_unique<Mirak::MirakReader<TableOps>>(handler(), path, TableOps{}, nullptr);
   if (!table->initialize("bench"))
      wrong("hoflow", "a reader can't open the table: " + table->initializeError());
   return table;
}

} // namespace Bench
