// SPDX-License-Identifier: Apache-2.0
// FlowTracking::HoIpFlowCounter and HoIp6FlowCounter: packets and bytes of a flow. The key is the plain flow
// key: the interface is an ordinary field, so that one flow has one row whatever the interface.
//
// Layout (part of the table format). K is the size of the key, 28 for IPv4 and 52 for IPv6:
//
//    offset  width  field
//         0      K  key
//         K      8  intfId
//     K +  8     8  packets
//     K + 16     8  bytes
//     K + 24     8  createTime
//     K + 32     8  updateTime
//     K + 40     4  hosEntries
//
// A plain value: rows are copies of these bytes. The arithmetic is modular and not atomic; it changes a
// private copy, which the writer then writes back.
#pragma once

#include "FlowTracking/IpFlowKey.h"
#include "Nimbet/IntfId.h"
#include "Zeb/Seconds.h"

namespace FlowTracking {

#pragma pack(push, 4)
template <class K> class HOFLOW_EXPORT BasicHoFlowCounter {
public:
   using Key = K;
   static constexpr bool isIp6 = K::isIp6;
   static constexpr char const* typeName =
       isIp6 ? "FlowTracking::HoIp6FlowCounter" : "FlowTracking::HoIpFlowCounter";

   BasicHoFlowCounter() {}
   explicit BasicHoFlowCounter(K const& key)
      : key_(key) {}
   /// Parses the text form and moves `it` behind it. @throws Zeb::SyntaxException, Zeb::RangeException
   BasicHoFlowCounter(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end);

   K const& key() const { return key_; }
   Nimbet::IntfId intfId() const { return intfId_; }
   unsigned long long packets() const { return packets_; }
   unsigned long long bytes() const { return bytes_; }
   Zeb::Seconds createTime() const { return createTime_; }
   Zeb::Seconds updateTime() const { return updateTime_; }
   unsigned int hosEntries() const { return hosEntries_; }

   void intfIdIs(Nimbet::IntfId intfId) { intfId_ = intfId; }
   void packetsIs(unsigned long long packets) { packets_ = packets; }
   void bytesIs(unsigned long long bytes) { bytes_ = bytes; }
   void createTimeIs(Zeb::Seconds time) { createTime_ = time; }
   void updateTimeIs(Zeb::Seconds time) { updateTime_ = time; }
   void hosEntriesIs(unsigned int entries) { hosEntries_ = entries; }

   /// Each returns the new value.
   unsigned long long packetsInc(unsigned long long n) { return packets_ += n; }
   unsigned long long bytesInc(unsigned long long n) { return bytes_ += n; }
   unsigned int hosEntriesInc(unsigned int n) { return hosEntries_ += n; }
   unsigned int hosEntriesDec(unsigned int n) { return hosEntries_ -= n; }

   bool operator==(BasicHoFlowCounter const& other) const {
      return key_ == other.key_ && intfId_ == other.intfId_ && packets_ == other.packets_ &&
             bytes_ == other.bytes_ && createTime_ == other.createTime_ && updateTime_ == other.updateTime_ &&
             hosEntries_ == other.hosEntries_;
   }
   /// False for a record that equals a default one.
   explicit operator bool() const { return !(*this == BasicHoFlowCounter()); }

   /// For traces.
   Zeb::String mirakString() const {
      std::ostringstream out;
      out << '[' << key_.str() << ']' << " intf: " << intfId_ << ',' << " pkts: " << packets() << ','
          << " bytes: " << bytes() << ',' << " hos: " << hosEntries() << ',' << " created: " << createTime()
          << ',' << " updated: " << updateTime();
      return out.str();
   }

   static constexpr bool layoutHolds() {
      using R = BasicHoFlowCounter;
      constexpr unsigned k = sizeof(K);
      static_assert(offsetof(R, key_) == 0, "tables find the key at the front of the row");
      static_assert(offsetof(R, intfId_) == k, "the interface follows the key without a gap");
      static_assert(offsetof(R, packets_) == k + 8, "counts are packed to multiples of 4");
      static_assert(offsetof(R, bytes_) == k + 16, "counts are packed to multiples of 4");
      static_assert(offsetof(R, createTime_) == k + 24, "times are packed to multiples of 4");
      static_assert(offsetof(R, updateTime_) == k + 32, "times are packed to multiples of 4");
      static_assert(offsetof(R, hosEntries_) == k + 40, "hosEntries is the last field");
      static_assert(sizeof(R) == k + 44 && alignof(R) == 4, "slots reserve this much for the row");
      static_assert(std::is_trivially_copyable_v<R>, "rows are copied as bytes");
      return true;
   }

private:
   K key_;
   Nimbet::IntfId intfId_;
   unsigned long long packets_ = 0;
   unsigned long long bytes_ = 0;
   Zeb::Seconds createTime_ = 0;
   Zeb::Seconds updateTime_ = 0;
   unsigned int hosEntries_ = 0;
};
#pragma pack(pop)

using HoIpFlowCounter = BasicHoFlowCounter<IpFlowKey>;
using HoIp6FlowCounter = BasicHoFlowCounter<Ip6FlowKey>;

HOFLOW_EXPORT Zeb::String valueToStrep(HoIpFlowCounter const& value);
HOFLOW_EXPORT Zeb::String valueToStrep(HoIp6FlowCounter const& value);
inline std::ostream& operator<<(std::ostream& out, HoIpFlowCounter const& value) {
   return out << valueToStrep(value);
}
inline std::ostream& operator<<(std::ostream& out, HoIp6FlowCounter const& value) {
   return out << valueToStrep(value);
}

static_assert(HoIpFlowCounter::layoutHolds() && HoIp6FlowCounter::layoutHolds(), "part of the table format");
static_assert(sizeof(HoIpFlowCounter) == 72 && sizeof(HoIp6FlowCounter) == 96, "part of the table format");

} // namespace FlowTracking
