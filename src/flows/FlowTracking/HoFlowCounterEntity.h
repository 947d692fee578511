// SPDX-License-Identifier: Apache-2.0
// FlowTracking::HoFlowCounter: the entity that holds packets and bytes of each offloaded flow.
// Its tables have no change queue: another process reads them, by lookup or by walking, and is told of
// nothing; mounting one as shadow or keyshadow is refused. Notifiees in the writer's process are told as
// ever.
//
// What the operations do, and in which order, is told once, in ZebMirak/CollectionAttribute.h; what an entity
// is, in FlowTracking/TableEntity.h. Operations are legal from construction on: until its collection is
// mounted an entity keeps rows in private memory, and loses them when it gets its parent and when it is
// mounted.
#pragma once

#include "FlowTracking/TableEntity.h"
#include "FlowTracking/Tables.h"

namespace FlowTracking {

class HOFLOW_EXPORT HoFlowCounter final
   : public TableEntity<HoFlowCounter, HoIpFlowCounter, HoIpFlowCounterOps, HoIp6FlowCounter,
                        HoIp6FlowCounterOps> {
public:
   using HoFlowCounterZeroReferencesNotifiee = ZeroReferencesNotifiee;
   static constexpr char const* typeName = "FlowTracking::HoFlowCounter";
   /// IPv4 collection, its control, IPv6 collection, its control.
   static constexpr char const* attributeNames[] = {"hoIpFlowCounter", "hoIpFlowCounterControl",
                                                    "hoIp6FlowCounter", "hoIp6FlowCounterControl"};

   static Zeb::Ptr<HoFlowCounter> HoFlowCounterIs(Zeb::String const& name) { return make(name); }
   explicit HoFlowCounter(Zeb::String const& name);

   /// Where its tables are mounted by custom: "flowtracking/TYPE/hwOffload/counter/NAME": one entity for each
   /// name.
   static Zeb::String mountPath(Zeb::String const& ftrTypeStr, Zeb::String const& name);

   // --- hoIpFlowCounter: IPv4 rows; attribute 258, its control 259 ---

   /// Stores a row, over an old one of that key. @throws what the table throws; nobody is told then
   void hoIpFlowCounterIs(HoIpFlowCounter const& v) { ip_.is(v); }
   /// Removes a row. @param k lies outside the table: notifiees are told by it when the row is gone
   /// @return the row, or the default row if there was none, of which nobody is told
   HoIpFlowCounter hoIpFlowCounterDel(IpFlowKey const& k) { return ip_.del(k); }
   /// Removes every row that the walk meets.
   void hoIpFlowCounterDelAll() { ip_.delAll(); }
   /// Ends a change in place, begun on the collection by directWrite or directUpdate. Counts as an `Is`.
   void hoIpFlowCounterCommit(HoIpFlowCounter const* v) { ip_.commit(v); }
   /// @return a copy of the row, or the default row
   HoIpFlowCounter hoIpFlowCounter(IpFlowKey const& k) const { return ip_.get(k); }
   /// The collection itself: walks, lookups, the table's facts.
   Attribute4::Map& hoIpFlowCounter() { return ip_.map(); }
   Attribute4::Map const& hoIpFlowCounter() const { return ip_.map(); }
   /// Mounts and unmounts the collection, and tells how its mount stands.
   Zeb::Ptr<ZebMirak::CollectionControl> const& hoIpFlowCounterControl() const { return ip_.control(); }
   void hoIpFlowCounterControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) { ip_.controlIs(c); }
   // Called by the collection.
   void hoIpFlowCounterNotify(IpFlowKey const& k) { ip_.notify(k); }
   void hoIpFlowCounterNotifyQuiesced(bool q) { ip_.notifyQuiesced(q); }
   void hoIpFlowCounterNotifyMountStatus() { ip_.notifyMountStatus(); }

   // --- hoIp6FlowCounter: IPv6 rows; attribute 260, its control 261 ---

   /// Stores a row, over an old one of that key. @throws what the table throws; nobody is told then
   void hoIp6FlowCounterIs(HoIp6FlowCounter const& v) { ip6_.is(v); }
   /// Removes a row. @param k lies outside the table: notifiees are told by it when the row is gone
   /// @return the row, or the default row if there was none, of which nobody is told
   HoIp6FlowCounter hoIp6FlowCounterDel(Ip6FlowKey const& k) { return ip6_.del(k); }
   /// Removes every row that the walk meets.
   void hoIp6FlowCounterDelAll() { ip6_.delAll(); }
   /// Ends a change in place, begun on the collection by directWrite or directUpdate. Counts as an `Is`.
   void hoIp6FlowCounterCommit(HoIp6FlowCounter const* v) { ip6_.commit(v); }
   /// @return a copy of the row, or the default row
   HoIp6FlowCounter hoIp6FlowCounter(Ip6FlowKey const& k) const { return ip6_.get(k); }
   /// The collection itself: walks, lookups, the table's facts.
   Attribute6::Map& hoIp6FlowCounter() { return ip6_.map(); }
   Attribute6::Map const& hoIp6FlowCounter() const { return ip6_.map(); }
   /// Mounts and unmounts the collection, and tells how its mount stands.
   Zeb::Ptr<ZebMirak::CollectionControl> const& hoIp6FlowCounterControl() const { return ip6_.control(); }
   void hoIp6FlowCounterControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) { ip6_.controlIs(c); }
   // Called by the collection.
   void hoIp6FlowCounterNotify(Ip6FlowKey const& k) { ip6_.notify(k); }
   void hoIp6FlowCounterNotifyQuiesced(bool q) { ip6_.notifyQuiesced(q); }
   void hoIp6FlowCounterNotifyMountStatus() { ip6_.notifyMountStatus(); }
};

HOFLOW_EXPORT Zeb::Ptr<HoFlowCounter> hoFlowCounterFactory(Zeb::String const& name);

} // namespace FlowTracking
