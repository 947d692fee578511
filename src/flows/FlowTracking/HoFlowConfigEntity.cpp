// SPDX-License-Identifier: Apache-2.0
// The names of HoFlowConfig, and its one instantiation. See HoFlowConfigEntity.h.
#include "FlowTracking/HoFlowConfigEntity.h"

#include "FlowTracking/EntityInterface.h"

namespace FlowTracking {

HoFlowConfig::HoFlowConfig(Zeb::String const& name)
   : TableEntity(
         name,
         {attributeNames[0], 258, &HoFlowConfig::hoIpFlowConfigNotify,
          &HoFlowConfig::hoIpFlowConfigNotifyMountStatus, &HoFlowConfig::hoIpFlowConfigNotifyQuiesced},
         {attributeNames[2], 260, &HoFlowConfig::hoIp6FlowConfigNotify,
          &HoFlowConfig::hoIp6FlowConfigNotifyMountStatus, &HoFlowConfig::hoIp6FlowConfigNotifyQuiesced}) {
   construct(this);
}

Zeb::String HoFlowConfig::mountPath(Zeb::String const& ftrTypeStr) {
   return Zeb::String(fmt::format("flowtracking/{}/hwOffload/config", ftrTypeStr.view()));
}

Zeb::Ptr<HoFlowConfig> hoFlowConfigFactory(Zeb::String const& name) {
   return HoFlowConfig::HoFlowConfigIs(name);
}

/// What the registry says of it.
extern constinit Zeb::TypeInfo const hoFlowConfigInfo;
constinit Zeb::TypeInfo const hoFlowConfigInfo = EntityInterface<HoFlowConfig>::info;

} // namespace FlowTracking
