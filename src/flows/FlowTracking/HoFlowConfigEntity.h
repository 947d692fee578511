// SPDX-License-Identifier: Apache-2.0
// FlowTracking::HoFlowConfig: the entity that holds the flows chosen for offload, with their Ethernet
// addresses and VLAN tags. Its tables have a change queue: another process may follow them as shadow or
// keyshadow.
//
// What the operations do, and in which order, is told once, in ZebMirak/CollectionAttribute.h; what an entity
// is, in FlowTracking/TableEntity.h. Operations are legal from construction on: until its collection is
// mounted an entity keeps rows in private memory, and loses them when it gets its parent and when it is
// mounted.
#pragma once

#include "FlowTracking/TableEntity.h"
#include "FlowTracking/Tables.h"

namespace FlowTracking {

class HOFLOW_EXPORT HoFlowConfig final : public TableEntity<HoFlowConfig, HoIpFlowConfig, HoIpFlowConfigOps,
                                                            HoIp6FlowConfig, HoIp6FlowConfigOps> {
public:
   using HoFlowConfigZeroReferencesNotifiee = ZeroReferencesNotifiee;
   static constexpr char const* typeName = "FlowTracking::HoFlowConfig";
   /// IPv4 collection, its control, IPv6 collection, its control.
   static constexpr char const* attributeNames[] = {"hoIpFlowConfig", "hoIpFlowConfigControl",
                                                    "hoIp6FlowConfig", "hoIp6FlowConfigControl"};

   static Zeb::Ptr<HoFlowConfig> HoFlowConfigIs(Zeb::String const& name) { return make(name); }
   explicit HoFlowConfig(Zeb::String const& name);

   /// Where its tables are mounted by custom: "flowtracking/TYPE/hwOffload/config".
   static Zeb::String mountPath(Zeb::String const& ftrTypeStr);

   // --- hoIpFlowConfig: IPv4 rows; attribute 258, its control 259 ---

   /// Stores a row, over an old one of that key. @throws what the table throws; nobody is told then
   void hoIpFlowConfigIs(HoIpFlowConfig const& v) { ip_.is(v); }
   /// Removes a row. @param k lies outside the table: notifiees are told by it when the row is gone
   /// @return the row, or the default row if there was none, of which nobody is told
   HoIpFlowConfig hoIpFlowConfigDel(HoIpFlowKey const& k) { return ip_.del(k); }
   /// Removes every row that the walk meets.
   void hoIpFlowConfigDelAll() { ip_.delAll(); }
   /// Ends a change in place, begun on the collection by directWrite or directUpdate. Counts as an `Is`.
   void hoIpFlowConfigCommit(HoIpFlowConfig const* v) { ip_.commit(v); }
   /// @return a copy of the row, or the default row
   HoIpFlowConfig hoIpFlowConfig(HoIpFlowKey const& k) const { return ip_.get(k); }
   /// The collection itself: walks, lookups, the table's facts.
   Attribute4::Map& hoIpFlowConfig() { return ip_.map(); }
   Attribute4::Map const& hoIpFlowConfig() const { return ip_.map(); }
   /// Mounts and unmounts the collection, and tells how its mount stands.
   Zeb::Ptr<ZebMirak::CollectionControl> const& hoIpFlowConfigControl() const { return ip_.control(); }
   void hoIpFlowConfigControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) { ip_.controlIs(c); }
   // Called by the collection.
   void hoIpFlowConfigNotify(HoIpFlowKey const& k) { ip_.notify(k); }
   void hoIpFlowConfigNotifyQuiesced(bool q) { ip_.notifyQuiesced(q); }
   void hoIpFlowConfigNotifyMountStatus() { ip_.notifyMountStatus(); }

   // --- hoIp6FlowConfig: IPv6 rows; attribute 260, its control 261 ---

   /// Stores a row, over an old one of that key. @throws what the table throws; nobody is told then
   void hoIp6FlowConfigIs(HoIp6FlowConfig const& v) { ip6_.is(v); }
   /// Removes a row. @param k lies outside the table: notifiees are told by it when the row is gone
   /// @return the row, or the default row if there was none, of which nobody is told
   HoIp6FlowConfig hoIp6FlowConfigDel(HoIp6FlowKey const& k) { return ip6_.del(k); }
   /// Removes every row that the walk meets.
   void hoIp6FlowConfigDelAll() { ip6_.delAll(); }
   /// Ends a change in place, begun on the collection by directWrite or directUpdate. Counts as an `Is`.
   void hoIp6FlowConfigCommit(HoIp6FlowConfig const* v) { ip6_.commit(v); }
   /// @return a copy of the row, or the default row
   HoIp6FlowConfig hoIp6FlowConfig(HoIp6FlowKey const& k) const { return ip6_.get(k); }
   /// The collection itself: walks, lookups, the table's facts.
   Attribute6::Map& hoIp6FlowConfig() { return ip6_.map(); }
   Attribute6::Map const& hoIp6FlowConfig() const { return ip6_.map(); }
   /// Mounts and unmounts the collection, and tells how its mount stands.
   Zeb::Ptr<ZebMirak::CollectionControl> const& hoIp6FlowConfigControl() const { return ip6_.control(); }
   void hoIp6FlowConfigControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) { ip6_.controlIs(c); }
   // Called by the collection.
   void hoIp6FlowConfigNotify(HoIp6FlowKey const& k) { ip6_.notify(k); }
   void hoIp6FlowConfigNotifyQuiesced(bool q) { ip6_.notifyQuiesced(q); }
   void hoIp6FlowConfigNotifyMountStatus() { ip6_.notifyMountStatus(); }
};

HOFLOW_EXPORT Zeb::Ptr<HoFlowConfig> hoFlowConfigFactory(Zeb::String const& name);

} // namespace FlowTracking
