// SPDX-License-Identifier: Apache-2.0
// What each key and record says of itself: ids, names and accessors of its attributes. Text forms, parsers
// and the generic interface are made of these alone, so a new record needs a declaration here, a place in
// Types.h and Types.cpp, and a line in Streps.cpp. The ids are the same for both families.
#pragma once

#include "FlowTracking/HoFlowConfig.h"
#include "FlowTracking/HoFlowCounter.h"
#include "FlowTracking/HoFlowStatus.h"
#include "FlowTracking/HosStateCounterEntry.h"
#include "Ovie/Types.h"
#include "Zeb/Composite.h"

template <class Addr> struct Zeb::Declaration<FlowTracking::BasicIpFlowKey<Addr>> {
   using K = FlowTracking::BasicIpFlowKey<Addr>;
   static constexpr std::tuple attributes{
       constructed<&K::vrfId>(3, "vrfId"),
       constructed<&K::vlanId>(4, "vlanId", Ovie::typeVlanId),
       constructed<&K::srcAddr>(5, "srcAddr"),
       constructed<&K::dstAddr>(6, "dstAddr"),
       constructed<&K::ipProtocol>(7, "ipProtocol"),
       constructed<&K::srcPort>(8, "srcPort"),
       constructed<&K::dstPort>(9, "dstPort"),
       constructed<&K::direction>(10, "direction"),
       readOnly<&K::ipProtocolNumber>(11, "ipProtocolNumber"),
   };
};

/// The flow's fields stand among the key's own.
template <class FlowKey> struct Zeb::Declaration<FlowTracking::BasicHoFlowKey<FlowKey>> {
   using K = FlowTracking::BasicHoFlowKey<FlowKey>;
   static constexpr auto attributes = std::tuple_cat(
       std::tuple(constructed<&K::ipFlowKey>(2, "ipFlowKey")),
       fieldsWithin<&K::ipFlowKey>(Declaration<FlowKey>::attributes),
       std::tuple(constructed<&K::intfId>(12, "intfId"), function<&K::mirakString>(13, "mirakString")));
};

template <> struct Zeb::Declaration<FlowTracking::HosStateCounterKey> {
   using K = FlowTracking::HosStateCounterKey;
   static constexpr bool bareStrep = true;
   static constexpr std::tuple attributes{
       constructed<&K::key>(2, "key"),
       function<&K::mirakString>(3, "mirakString"),
   };
};

template <class Key> struct Zeb::Declaration<FlowTracking::BasicHoFlowConfig<Key>> {
   using R = FlowTracking::BasicHoFlowConfig<Key>;
   static constexpr std::tuple attributes{
       constructed<&R::key>(2, "key"),
       field<&R::createTime, &R::createTimeIs>(3, "createTime"),
       field<&R::updateTime, &R::updateTimeIs>(4, "updateTime"),
       field<&R::srcEthAddr, &R::srcEthAddrIs>(5, "srcEthAddr"),
       field<&R::dstEthAddr, &R::dstEthAddrIs>(6, "dstEthAddr"),
       field<&R::dot1qVlanTag, &R::dot1qVlanTagIs>(7, "dot1qVlanTag"),
       field<&R::dot1qCustomerVlanTag, &R::dot1qCustomerVlanTagIs>(8, "dot1qCustomerVlanTag"),
       field<&R::cachedIntfId, &R::cachedIntfIdIs>(9, "cachedIntfId"),
       function<&R::mirakString>(10, "mirakString"),
   };
};

template <class Key> struct Zeb::Declaration<FlowTracking::BasicHoFlowStatus<Key>> {
   using R = FlowTracking::BasicHoFlowStatus<Key>;
   static constexpr std::tuple attributes{
       constructed<&R::key>(2, "key"),
       field<&R::hoFlowState, &R::hoFlowStateIs>(3, "hoFlowState"),
       field<&R::createTime, &R::createTimeIs>(4, "createTime"),
       field<&R::updateTime, &R::updateTimeIs>(5, "updateTime"),
       function<&R::mirakString>(6, "mirakString"),
   };
};

template <class Key> struct Zeb::Declaration<FlowTracking::BasicHoFlowCounter<Key>> {
   using R = FlowTracking::BasicHoFlowCounter<Key>;
   static constexpr std::tuple attributes{
       constructed<&R::key>(2, "key"),
       field<&R::intfId, &R::intfIdIs>(3, "intfId"),
       field<&R::packets, &R::packetsIs>(4, "packets"),
       field<&R::bytes, &R::bytesIs>(5, "bytes"),
       field<&R::createTime, &R::createTimeIs>(6, "createTime"),
       field<&R::updateTime, &R::updateTimeIs>(7, "updateTime"),
       field<&R::hosEntries, &R::hosEntriesIs>(8, "hosEntries"),
       function<&R::mirakString>(9, "mirakString"),
   };
};

template <> struct Zeb::Declaration<FlowTracking::HosStateCounterEntry> {
   using R = FlowTracking::HosStateCounterEntry;
   static constexpr std::tuple attributes{
       constructed<&R::key>(2, "key"),
       field<&R::hoFlows, &R::hoFlowsIs>(3, "hoFlows"),
       function<&R::mirakString>(4, "mirakString"),
   };
};
