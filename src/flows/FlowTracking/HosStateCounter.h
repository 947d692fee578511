// SPDX-License-Identifier: Apache-2.0
// FlowTracking::HosStateCounter: the entity that holds how many flows stand in each state.
// Its tables have no change queue: another process reads them, by lookup or by walking, and is told of
// nothing; mounting one as shadow or keyshadow is refused. Notifiees in the writer's process are told as
// ever. Rows and keys are small and passed by value. Both collections have the same type.
//
// What the operations do, and in which order, is told once, in ZebMirak/CollectionAttribute.h; what an entity
// is, in FlowTracking/TableEntity.h. Operations are legal from construction on: until its collection is
// mounted an entity keeps rows in private memory, and loses them when it gets its parent and when it is
// mounted.
#pragma once

#include "FlowTracking/TableEntity.h"
#include "FlowTracking/Tables.h"

namespace FlowTracking {

class HOFLOW_EXPORT HosStateCounter final
   : public TableEntity<HosStateCounter, HosStateCounterEntry, HosStateCounterOps, HosStateCounterEntry,
                        HosStateCounterOps> {
public:
   using HosStateCounterZeroReferencesNotifiee = ZeroReferencesNotifiee;
   static constexpr char const* typeName = "FlowTracking::HosStateCounter";
   /// IPv4 collection, its control, IPv6 collection, its control.
   static constexpr char const* attributeNames[] = {"hosStateIpCounter", "hosStateIpCounterControl",
                                                    "hosStateIp6Counter", "hosStateIp6CounterControl"};

   static Zeb::Ptr<HosStateCounter> HosStateCounterIs(Zeb::String const& name) { return make(name); }
   explicit HosStateCounter(Zeb::String const& name);

   /// Where its tables are mounted by custom: "flowtracking/TYPE/hwOffload/counter/status".
   static Zeb::String mountPath(Zeb::String const& ftrTypeStr);

   // --- hosStateIpCounter: IPv4 rows; attribute 258, its control 259 ---

   /// Stores a row, over an old one of that key. @throws what the table throws; nobody is told then
   void hosStateIpCounterIs(HosStateCounterEntry v) { ip_.is(v); }
   /// Removes a row. @return it, or the default row if there was none, of which nobody is told
   HosStateCounterEntry hosStateIpCounterDel(HosStateCounterKey k) { return ip_.del(k); }
   /// Removes every row that the walk meets.
   void hosStateIpCounterDelAll() { ip_.delAll(); }
   /// Ends a change in place, begun on the collection by directWrite or directUpdate. Counts as an `Is`.
   void hosStateIpCounterCommit(HosStateCounterEntry const* v) { ip_.commit(v); }
   /// @return a copy of the row, or the default row
   HosStateCounterEntry hosStateIpCounter(HosStateCounterKey k) const { return ip_.get(k); }
   /// The collection itself: walks, lookups, the table's facts.
   Attribute4::Map& hosStateIpCounter() { return ip_.map(); }
   Attribute4::Map const& hosStateIpCounter() const { return ip_.map(); }
   /// Mounts and unmounts the collection, and tells how its mount stands.
   Zeb::Ptr<ZebMirak::CollectionControl> const& hosStateIpCounterControl() const { return ip_.control(); }
   void hosStateIpCounterControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) { ip_.controlIs(c); }
   // Called by the collection.
   void hosStateIpCounterNotify(HosStateCounterKey const& k) { ip_.notify(k); }
   void hosStateIpCounterNotifyQuiesced(bool q) { ip_.notifyQuiesced(q); }
   void hosStateIpCounterNotifyMountStatus() { ip_.notifyMountStatus(); }

   // --- hosStateIp6Counter: IPv6 rows; attribute 260, its control 261 ---

   /// Stores a row, over an old one of that key. @throws what the table throws; nobody is told then
   void hosStateIp6CounterIs(HosStateCounterEntry v) { ip6_.is(v); }
   /// Removes a row. @return it, or the default row if there was none, of which nobody is told
   HosStateCounterEntry hosStateIp6CounterDel(HosStateCounterKey k) { return ip6_.del(k); }
   /// Removes every row that the walk meets.
   void hosStateIp6CounterDelAll() { ip6_.delAll(); }
   /// Ends a change in place, begun on the collection by directWrite or directUpdate. Counts as an `Is`.
   void hosStateIp6CounterCommit(HosStateCounterEntry const* v) { ip6_.commit(v); }
   /// @return a copy of the row, or the default row
   HosStateCounterEntry hosStateIp6Counter(HosStateCounterKey k) const { return ip6_.get(k); }
   /// The collection itself: walks, lookups, the table's facts.
   Attribute6::Map& hosStateIp6Counter() { return ip6_.map(); }
   Attribute6::Map const& hosStateIp6Counter() const { return ip6_.map(); }
   /// Mounts and unmounts the collection, and tells how its mount stands.
   Zeb::Ptr<ZebMirak::CollectionControl> const& hosStateIp6CounterControl() const { return ip6_.control(); }
   void hosStateIp6CounterControlIs(Zeb::Ptr<ZebMirak::CollectionControl> const& c) { ip6_.controlIs(c); }
   // Called by the collection.
   void hosStateIp6CounterNotify(HosStateCounterKey const& k) { ip6_.notify(k); }
   void hosStateIp6CounterNotifyQuiesced(bool q) { ip6_.notifyQuiesced(q); }
   void hosStateIp6CounterNotifyMountStatus() { ip6_.notifyMountStatus(); }
};

HOFLOW_EXPORT Zeb::Ptr<HosStateCounter> hosStateCounterFactory(Zeb::String const& name);

} // namespace FlowTracking
