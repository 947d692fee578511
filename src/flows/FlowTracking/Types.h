// SPDX-License-Identifier: Apache-2.0
// The registered types of flow tracking: the four modules of keys, records and entities, and those of what
// they are made of. Programs find types by name (Zeb/Registry.h) and need none of this.
#pragma once

#include "FlowTracking/HoFlowConfig.h"
#include "FlowTracking/HoFlowCounter.h"
#include "FlowTracking/HoFlowStatus.h"
#include "FlowTracking/HosStateCounterEntry.h"
#include "Ip/Types.h"
#include "Nimbet/Types.h"
#include "Ovie/Types.h"
#include "Zeb/BuiltinTypes.h"

extern HOFLOW_EXPORT Zeb::Module const _HoFlow_adf6f25f_zebModule;
extern HOFLOW_EXPORT Zeb::Module const _Ho6Flow_e944d5d2_zebModule;
extern HOFLOW_EXPORT Zeb::Module const _HoFlowConfig_d7c62409_zebModule;
extern HOFLOW_EXPORT Zeb::Module const _HoFlowStatus_b4e443f4_zebModule;

extern HOFLOW_EXPORT Zeb::Module const _FlowTable_b9c42498_zebModule;
extern HOFLOW_EXPORT Zeb::Module const _TrafficDirection_9bb1a0a1_zebModule;
extern HOFLOW_EXPORT Zeb::Module const _FlowTrackingCairnTypes_28a9bdff_zebModule;

namespace FlowTracking {
class HoFlowConfig;
class HoFlowStatus;
class HoFlowCounter;
class HosStateCounter;
} // namespace FlowTracking

namespace Zeb {

template <> inline constexpr ZebType typeOf<FlowTracking::IpFlowKey>{&_FlowTable_b9c42498_zebModule, 0};
template <> inline constexpr ZebType typeOf<FlowTracking::Ip6FlowKey>{&_FlowTable_b9c42498_zebModule, 1};
template <>
inline constexpr ZebType typeOf<FlowTracking::TrafficDirection>{&_TrafficDirection_9bb1a0a1_zebModule, 0};
template <>
inline constexpr ZebType typeOf<FlowTracking::HoFlowState>{&_FlowTrackingCairnTypes_28a9bdff_zebModule, 0};

template <> inline constexpr ZebType typeOf<FlowTracking::HoIpFlowKey>{&_HoFlow_adf6f25f_zebModule, 0};
template <> inline constexpr ZebType typeOf<FlowTracking::HoIp6FlowKey>{&_Ho6Flow_e944d5d2_zebModule, 0};

template <>
inline constexpr ZebType typeOf<FlowTracking::HoIpFlowConfig>{&_HoFlowConfig_d7c62409_zebModule, 0};
template <>
inline constexpr ZebType typeOf<FlowTracking::HoIp6FlowConfig>{&_HoFlowConfig_d7c62409_zebModule, 1};

template <>
inline constexpr ZebType typeOf<FlowTracking::HoIpFlowStatus>{&_HoFlowStatus_b4e443f4_zebModule, 0};
template <>
inline constexpr ZebType typeOf<FlowTracking::HoIp6FlowStatus>{&_HoFlowStatus_b4e443f4_zebModule, 1};
template <>
inline constexpr ZebType typeOf<FlowTracking::HosStateCounterKey>{&_HoFlowStatus_b4e443f4_zebModule, 3};
template <>
inline constexpr ZebType typeOf<FlowTracking::HosStateCounterEntry>{&_HoFlowStatus_b4e443f4_zebModule, 4};
template <>
inline constexpr ZebType typeOf<FlowTracking::HoIpFlowCounter>{&_HoFlowStatus_b4e443f4_zebModule, 6};
template <>
inline constexpr ZebType typeOf<FlowTracking::HoIp6FlowCounter>{&_HoFlowStatus_b4e443f4_zebModule, 7};

// The entities.
template <> inline constexpr ZebType typeOf<FlowTracking::HoFlowConfig>{&_HoFlowConfig_d7c62409_zebModule, 2};
template <> inline constexpr ZebType typeOf<FlowTracking::HoFlowStatus>{&_HoFlowStatus_b4e443f4_zebModule, 2};
template <>
inline constexpr ZebType typeOf<FlowTracking::HosStateCounter>{&_HoFlowStatus_b4e443f4_zebModule, 5};
template <>
inline constexpr ZebType typeOf<FlowTracking::HoFlowCounter>{&_HoFlowStatus_b4e443f4_zebModule, 8};

} // namespace Zeb
