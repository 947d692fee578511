// SPDX-License-Identifier: Apache-2.0
// The names of HosStateCounter, and its one instantiation. See HosStateCounter.h.
#include "FlowTracking/HosStateCounter.h"

#include "FlowTracking/EntityInterface.h"

namespace FlowTracking {

HosStateCounter::HosStateCounter(Zeb::String const& name)
   : TableEntity(name,
                 {attributeNames[0], 258, &HosStateCounter::hosStateIpCounterNotify,
                  &HosStateCounter::hosStateIpCounterNotifyMountStatus,
                  &HosStateCounter::hosStateIpCounterNotifyQuiesced},
                 {attributeNames[2], 260, &HosStateCounter::hosStateIp6CounterNotify,
                  &HosStateCounter::hosStateIp6CounterNotifyMountStatus,
                  &HosStateCounter::hosStateIp6CounterNotifyQuiesced}) {
   construct(this);
}

Zeb::String HosStateCounter::mountPath(Zeb::String const& ftrTypeStr) {
   return Zeb::String(fmt::format("flowtracking/{}/hwOffload/counter/status", ftrTypeStr.view()));
}

Zeb::Ptr<HosStateCounter> hosStateCounterFactory(Zeb::String const& name) {
   return HosStateCounter::HosStateCounterIs(name);
}

/// What the registry says of it.
extern constinit Zeb::TypeInfo const hosStateCounterInfo;
constinit Zeb::TypeInfo const hosStateCounterInfo = EntityInterface<HosStateCounter>::info;

} // namespace FlowTracking
