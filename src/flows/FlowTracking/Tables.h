// SPDX-License-Identifier: Apache-2.0
// The seven tables: for each record its policy type, its writer, its reader and its collection. The templates
// are instantiated once, in the Tables*.cpp beside this, so a user's source compiles quickly.
//
//   char const* const table = "flowtracking/default/...";
//   Mirak::MirakWriter<FlowTracking::HoIpFlowCounterOps> writer(handler, table, Mirak::MapDescriptor(100));
//   Mirak::MirakReader<FlowTracking::HoIpFlowCounterOps> reader(handler, table, {});
#pragma once

#include "FlowTracking/HoFlowConfig.h"
#include "FlowTracking/HoFlowCounter.h"
#include "FlowTracking/HoFlowStatus.h"
#include "FlowTracking/HosStateCounterEntry.h"
#include "Mirak/MirakMap.h"
#include "Mirak/MirakReader.h"
#include "Mirak/MirakWriter.h"
#include "Mirak/TesselPos.h"
#include "Tessel/DummyTesselWriter.h"
#include "Tessel/TesselWriter.h"
#include "ZebMirak/ZebMirakMapValueWrapper.h"

namespace FlowTracking {

/// The policy of a table of `Record`s whose writer feeds `TesselWriter`.
template <class Record, class TesselWriter> struct TablePolicy {
   using Key = typename Record::Key;
   using Value = ZebMirak::ZebMirakMapValueWrapper<Record, Key, &Record::key, false>;
   using Ops = Mirak::Ops<
       Key, Value,
       Mirak::KeyOps<Key, Value, Mirak::KeyRetrieval<Key, Value, &Value::fwkKey>, Mirak::Hash<Key, false>>,
       Mirak::ValueOps<Key, Value, Mirak::Marshall<Value>, Mirak::Allocator<Value>>,
       Mirak::SlotAllocator<Key, Value>, TesselWriter, Mirak::NullPrevValueAnchor>;
};

using ChangeQueue = Tessel::TesselWriter<Tessel::BasicSlot, Mirak::TesselPos>;
using NoQueue = Tessel::DummyTesselWriter;

// Types of their own, not aliases: they are exported, and the names of the instances stay short.
struct HOFLOW_EXPORT HoIpFlowConfigOps : TablePolicy<HoIpFlowConfig, ChangeQueue>::Ops {};
struct HOFLOW_EXPORT HoIp6FlowConfigOps : TablePolicy<HoIp6FlowConfig, ChangeQueue>::Ops {};
struct HOFLOW_EXPORT HoIpFlowStatusOps : TablePolicy<HoIpFlowStatus, ChangeQueue>::Ops {};
struct HOFLOW_EXPORT HoIp6FlowStatusOps : TablePolicy<HoIp6FlowStatus, ChangeQueue>::Ops {};
struct HOFLOW_EXPORT HoIpFlowCounterOps : TablePolicy<HoIpFlowCounter, NoQueue>::Ops {};
struct HOFLOW_EXPORT HoIp6FlowCounterOps : TablePolicy<HoIp6FlowCounter, NoQueue>::Ops {};
struct HOFLOW_EXPORT HosStateCounterOps : TablePolicy<HosStateCounterEntry, NoQueue>::Ops {};

} // namespace FlowTracking

extern template class Mirak::MirakReader<FlowTracking::HoIpFlowConfigOps>;
extern template class Mirak::MirakReader<FlowTracking::HoIp6FlowConfigOps>;
extern template class Mirak::MirakReader<FlowTracking::HoIpFlowStatusOps>;
extern template class Mirak::MirakReader<FlowTracking::HoIp6FlowStatusOps>;
extern template class Mirak::MirakReader<FlowTracking::HoIpFlowCounterOps>;
extern template class Mirak::MirakReader<FlowTracking::HoIp6FlowCounterOps>;
extern template class Mirak::MirakReader<FlowTracking::HosStateCounterOps>;

extern template class Mirak::MirakWriter<FlowTracking::HoIpFlowConfigOps>;
extern template class Mirak::MirakWriter<FlowTracking::HoIp6FlowConfigOps>;
extern template class Mirak::MirakWriter<FlowTracking::HoIpFlowStatusOps>;
extern template class Mirak::MirakWriter<FlowTracking::HoIp6FlowStatusOps>;
extern template class Mirak::MirakWriter<FlowTracking::HoIpFlowCounterOps>;
extern template class Mirak::MirakWriter<FlowTracking::HoIp6FlowCounterOps>;
extern template class Mirak::MirakWriter<FlowTracking::HosStateCounterOps>;

extern template class Mirak::MirakMap<FlowTracking::HoIpFlowConfigOps>;
extern template class Mirak::MirakMap<FlowTracking::HoIp6FlowConfigOps>;
extern template class Mirak::MirakMap<FlowTracking::HoIpFlowStatusOps>;
extern template class Mirak::MirakMap<FlowTracking::HoIp6FlowStatusOps>;
extern template class Mirak::MirakMap<FlowTracking::HoIpFlowCounterOps>;
extern template class Mirak::MirakMap<FlowTracking::HoIp6FlowCounterOps>;
extern template class Mirak::MirakMap<FlowTracking::HosStateCounterOps>;
