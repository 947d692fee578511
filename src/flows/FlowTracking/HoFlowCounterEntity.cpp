// SPDX-License-Identifier: Apache-2.0
// The names of HoFlowCounter, and its one instantiation. See HoFlowCounterEntity.h.
#include "FlowTracking/HoFlowCounterEntity.h"

#include "FlowTracking/EntityInterface.h"

namespace FlowTracking {

HoFlowCounter::HoFlowCounter(Zeb::String const& name)
   : TableEntity(name,
                 {attributeNames[0], 258, &HoFlowCounter::hoIpFlowCounterNotify,
                  &HoFlowCounter::hoIpFlowCounterNotifyMountStatus,
                  &HoFlowCounter::hoIpFlowCounterNotifyQuiesced},
                 {attributeNames[2], 260, &HoFlowCounter::hoIp6FlowCounterNotify,
                  &HoFlowCounter::hoIp6FlowCounterNotifyMountStatus,
                  &HoFlowCounter::hoIp6FlowCounterNotifyQuiesced}) {
   construct(this);
}

Zeb::String HoFlowCounter::mountPath(Zeb::String const& ftrTypeStr, Zeb::String const& name) {
   return Zeb::String(fmt::format("flowtracking/{}/hwOffload/counter/{}", ftrTypeStr.view(), name.view()));
}

Zeb::Ptr<HoFlowCounter> hoFlowCounterFactory(Zeb::String const& name) {
   return HoFlowCounter::HoFlowCounterIs(name);
}

/// What the registry says of it.
extern constinit Zeb::TypeInfo const hoFlowCounterInfo;
constinit Zeb::TypeInfo const hoFlowCounterInfo = EntityInterface<HoFlowCounter>::info;

} // namespace FlowTracking
