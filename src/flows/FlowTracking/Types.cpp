// SPDX-License-Identifier: Apache-2.0
// The modules of flow tracking, and their registration while the library is loaded, which is all that happens
// then. A type's place in its list is its index.
#include "FlowTracking/Types.h"

#include "FlowTracking/Attributes.h"
#include "Zeb/EntityType.h"
#include "Zeb/GenericIfImpl.h"
#include "Zeb/Registry.h"
#include "ZebMirak/Types.h"

namespace FlowTracking {
// Each is defined beside its entity.
extern Zeb::TypeInfo const hoFlowConfigInfo, hoFlowStatusInfo, hoFlowCounterInfo, hosStateCounterInfo;
} // namespace FlowTracking

namespace {

using namespace FlowTracking;
using Zeb::GenericIfImpl::compositeInfo;
using Zeb::GenericIfImpl::plainInfo;
using Types = Zeb::TypeInfo const* const[];

constexpr Types hoFlowTypes = {&compositeInfo<HoIpFlowKey>};
constexpr Types ho6FlowTypes = {&compositeInfo<HoIp6FlowKey>};
constexpr Types hoFlowConfigTypes = {&compositeInfo<HoIpFlowConfig>, &compositeInfo<HoIp6FlowConfig>,
                                     &hoFlowConfigInfo};
constexpr Types hoFlowStatusTypes = {
    &compositeInfo<HoIpFlowStatus>,
    &compositeInfo<HoIp6FlowStatus>,
    &hoFlowStatusInfo,
    &compositeInfo<HosStateCounterKey, Zeb::typeIsValue>,
    &compositeInfo<HosStateCounterEntry, Zeb::typeIsValue>,
    &hosStateCounterInfo,
    &compositeInfo<HoIpFlowCounter>,
    &compositeInfo<HoIp6FlowCounter>,
    &hoFlowCounterInfo,
};

constexpr Types flowTableTypes = {&compositeInfo<IpFlowKey>, &compositeInfo<Ip6FlowKey>};
constexpr Zeb::TypeInfo direction = plainInfo<TrafficDirection>("FlowTracking::TrafficDirection");
constexpr Types directionTypes = {&direction};
constexpr Zeb::TypeInfo state = plainInfo<HoFlowState>("FlowTracking::HoFlowState");
constexpr Types stateTypes = {&state};

using Modules = Zeb::Module const* const[];
constexpr Modules ofFlowTable = {
    &Zeb::builtinModule,     &_IpAddr_a3351900_zebModule,           &_Ip6Addr_acdcd70c_zebModule,
    &_Ip_bb465fd1_zebModule, &_TrafficDirection_9bb1a0a1_zebModule, &_VlanId_a7f886d5_zebModule};
constexpr Modules ofKeys = {&_FlowTable_b9c42498_zebModule, &_IntfId_2da7d77e_zebModule};
constexpr Modules ofConfig = {&_HoFlow_adf6f25f_zebModule,  &_Ho6Flow_e944d5d2_zebModule,
                              &_EthAddr_8b9415d4_zebModule, &_VlanTag_28eef3c3_zebModule,
                              &Zeb::entityModule,           &_CollectionControl_e111d95_zebModule};
constexpr Modules ofStatus = {&_HoFlow_adf6f25f_zebModule, &_Ho6Flow_e944d5d2_zebModule,
                              &_FlowTrackingCairnTypes_28a9bdff_zebModule, &Zeb::entityModule,
                              &_CollectionControl_e111d95_zebModule};

} // namespace

constinit Zeb::Module const _TrafficDirection_9bb1a0a1_zebModule{"TrafficDirection", directionTypes};
constinit Zeb::Module const _FlowTrackingCairnTypes_28a9bdff_zebModule{"FlowTrackingCairnTypes", stateTypes};
constinit Zeb::Module const _FlowTable_b9c42498_zebModule{"FlowTable", flowTableTypes, ofFlowTable};

constinit Zeb::Module const _HoFlow_adf6f25f_zebModule{"HoFlow", hoFlowTypes, ofKeys};
constinit Zeb::Module const _HoFlowConfig_d7c62409_zebModule{"HoFlowConfig", hoFlowConfigTypes, ofConfig};
constinit Zeb::Module const _HoFlowStatus_b4e443f4_zebModule{"HoFlowStatus", hoFlowStatusTypes, ofStatus};
constinit Zeb::Module const _Ho6Flow_e944d5d2_zebModule{"Ho6Flow", ho6FlowTypes, ofKeys};

namespace {

[[maybe_unused]] bool const registered = [] {
   for (auto const* const module : {&_HoFlow_adf6f25f_zebModule, &_HoFlowConfig_d7c62409_zebModule,
                                    &_HoFlowStatus_b4e443f4_zebModule, &_Ho6Flow_e944d5d2_zebModule})
      Zeb::zebModuleIs(module);
   return true;
}();

} // namespace
