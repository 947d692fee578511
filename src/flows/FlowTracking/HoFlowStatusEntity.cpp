// SPDX-License-Identifier: Apache-2.0
// The names of HoFlowStatus, and its one instantiation. See HoFlowStatusEntity.h.
#include "FlowTracking/HoFlowStatusEntity.h"

#include "FlowTracking/EntityInterface.h"

namespace FlowTracking {

HoFlowStatus::HoFlowStatus(Zeb::String const& name)
   : TableEntity(
         name,
         {attributeNames[0], 258, &HoFlowStatus::hoIpFlowStatusNotify,
          &HoFlowStatus::hoIpFlowStatusNotifyMountStatus, &HoFlowStatus::hoIpFlowStatusNotifyQuiesced},
         {attributeNames[2], 260, &HoFlowStatus::hoIp6FlowStatusNotify,
          &HoFlowStatus::hoIp6FlowStatusNotifyMountStatus, &HoFlowStatus::hoIp6FlowStatusNotifyQuiesced}) {
   construct(this);
}

Zeb::String HoFlowStatus::mountPath(Zeb::String const& ftrTypeStr) {
   return Zeb::String(fmt::format("flowtracking/{}/hwOffload/status", ftrTypeStr.view()));
}

Zeb::Ptr<HoFlowStatus> hoFlowStatusFactory(Zeb::String const& name) {
   return HoFlowStatus::HoFlowStatusIs(name);
}

/// What the registry says of it.
extern constinit Zeb::TypeInfo const hoFlowStatusInfo;
constinit Zeb::TypeInfo const hoFlowStatusInfo = EntityInterface<HoFlowStatus>::info;

} // namespace FlowTracking
