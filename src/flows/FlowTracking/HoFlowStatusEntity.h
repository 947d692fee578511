// SPDX-License-Identifier: Apache-2.0
// FlowTracking::HoFlowStatus: the entity that holds the offload state of each flow.
// Its tables have a change queue: another process may follow them as shadow or keyshadow.
//
// What the operations do, and in which order, is told once, in ZebMirak/CollectionAttribute.h; what an entity
// is, in FlowTracking/TableEntity.h. Operations are legal from construction on: until its collection is
// mounted an entity keeps rows in private memory, and loses them when it gets its parent and when it is
// mounted.
#pragma once

#include "FlowTracking/TableEntity.h"
#include "FlowTracking/Tables.h"

namespace FlowTracking {

class HOFLOW_EXPORT HoFlowStatus final : public TableEntity<HoFlowStatus, HoIpFlowStatus, HoIpFlowStatusOps,
                                                            HoIp6FlowStatus, HoIp6FlowStatusOps> {
public:
   using HoFlowStatusZeroReferencesNotifiee = ZeroReferencesNotifiee;
   static constexpr char const* typeName = "FlowTracking::HoFlowStatus";
   /// IPv4 collection, its control, IPv6 collection, its control.
   static constexpr char const* attributeNames[] = {"hoIpFlowStatus", "hoIpFlowStatusControl",
                                                    "hoIp6FlowStatus", "hoIp6FlowStatusControl"};

   static Zeb::Ptr<HoFlowStatus> HoFlowStatusIs(Zeb::String const& name) { return make(name); }
   explicit HoFlowStatus(Zeb::String const& name);

   /// Where its tables are mounted by custom: "flowtracking/TYPE/hwOffload/status".
   static Zeb::String mountPath(Zeb::String const& ftrTypeStr);

   // --- hoIpFlowStatus: IPv4 rows; attribute 258, its control 259 ---

   /// Stores a row, over an old one of that key. @throws what the table throws; nobody is told then
   void hoIpFlowStatusIs(HoIpFlowStatus const& v) { ip_.is(v); }
   /// Removes a row. @param k lies outside the table: notifiees are told by it when the row is gone
   /// @return the row, or the default row if there was none, of which nobody is told
   HoIpFlowStatus hoIpFlowStatusDel(HoIpFlowKey const& k) { return ip_.del(k); }
   /// Removes every row that the walk meets.
   void hoIpFlowStatusDelAll() { ip_.delAll(); }
   /// Ends a change in place, begun on the collection by directWrite or directUpdate. Counts as an `Is`.
   void hoIpFlowStatusCommit(HoIpFlowStatus const* v) { ip_.commit(v); }
   /// @return a copy of the row, or the default row
   HoIpFlowStatus hoIpFlowStatus(HoIpFlowKey const& k) const { return ip_.get(k); }
   /// The collection itself: walks, lookups, the table's facts.
   Attribute4::Map& hoIpFlowStatus() { return ip_.map(); }
   Attribute4::Map const& hoIpFlowStatus() const { return ip_.map(); }
   /// Mounts and unmounts the collection, and tells how its mount stands.
   Zeb::Ptr<ZebMirak::CollectionControl> const& hoIpFlowStatusControl() const { return ip_.control(); }
   void hoIpFlowStatusControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) { ip_.controlIs(c); }
   // Called by the collection.
   void hoIpFlowStatusNotify(HoIpFlowKey const& k) { ip_.notify(k); }
   void hoIpFlowStatusNotifyQuiesced(bool q) { ip_.notifyQuiesced(q); }
   void hoIpFlowStatusNotifyMountStatus() { ip_.notifyMountStatus(); }

   // --- hoIp6FlowStatus: IPv6 rows; attribute 260, its control 261 ---

   /// Stores a row, over an old one of that key. @throws what the table throws; nobody is told then
   void hoIp6FlowStatusIs(HoIp6FlowStatus const& v) { ip6_.is(v); }
   /// Removes a row. @param k lies outside the table: notifiees are told by it when the row is gone
   /// @return the row, or the default row if there was none, of which nobody is told
   HoIp6FlowStatus hoIp6FlowStatusDel(HoIp6FlowKey const& k) { return ip6_.del(k); }
   /// Removes every row that the walk meets.
   void hoIp6FlowStatusDelAll() { ip6_.delAll(); }
   /// Ends a change in place, begun on the collection by directWrite or directUpdate. Counts as an `Is`.
   void hoIp6FlowStatusCommit(HoIp6FlowStatus const* v) { ip6_.commit(v); }
   /// @return a copy of the row, or the default row
   HoIp6FlowStatus hoIp6FlowStatus(HoIp6FlowKey const& k) const { return ip6_.get(k); }
   /// The collection itself: walks, lookups, the table's facts.
   Attribute6::Map& hoIp6FlowStatus() { return ip6_.map(); }
   Attribute6::Map const& hoIp6FlowStatus() const { return ip6_.map(); }
   /// Mounts and unmounts the collection, and tells how its mount stands.
   Zeb::Ptr<ZebMirak::CollectionControl> const& hoIp6FlowStatusControl() const { return ip6_.control(); }
   void hoIp6FlowStatusControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) { ip6_.controlIs(c); }
   // Called by the collection.
   void hoIp6FlowStatusNotify(HoIp6FlowKey const& k) { ip6_.notify(k); }
   void hoIp6FlowStatusNotifyQuiesced(bool q) { ip6_.notifyQuiesced(q); }
   void hoIp6FlowStatusNotifyMountStatus() { ip6_.notifyMountStatus(); }
};

HOFLOW_EXPORT Zeb::Ptr<HoFlowStatus> hoFlowStatusFactory(Zeb::String const& name);

} // namespace FlowTracking
