// SPDX-License-Identifier: Apache-2.0
// FlowTracking::HoIpFlowStatus and HoIp6FlowStatus: the offload state of a flow.
//
// Layout (part of the table format). K is the size of the key, 36 for IPv4 and 60 for IPv6:
//
//    offset  width  field
//         0      K  key
//         K      1  hoFlowState
//     K +  1     3  without meaning: left alone by constructors, not compared, copied with the row
//     K +  4     8  createTime
//     K + 12     8  updateTime
//
// A plain value: rows are copies of these bytes.
#pragma once

#include "FlowTracking/HoFlowKeys.h"
#include "FlowTracking/HoFlowState.h"
#include "Zeb/Seconds.h"

namespace FlowTracking {

#pragma pack(push, 4)
template <class K> class HOFLOW_EXPORT BasicHoFlowStatus {
public:
   using Key = K;
   static constexpr bool isIp6 = K::isIp6;
   static constexpr char const* typeName =
       isIp6 ? "FlowTracking::HoIp6FlowStatus" : "FlowTracking::HoIpFlowStatus";

   BasicHoFlowStatus() {}
   explicit BasicHoFlowStatus(K const& key)
      : key_(key) {}
   /// Parses the text form and moves `it` behind it. @throws Zeb::SyntaxException, Zeb::RangeException
   BasicHoFlowStatus(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end);

   K const& key() const { return key_; }
   HoFlowState hoFlowState() const { return hoFlowState_; }
   Zeb::Seconds createTime() const { return createTime_; }
   Zeb::Seconds updateTime() const { return updateTime_; }

   void hoFlowStateIs(HoFlowState state) { hoFlowState_ = state; }
   void createTimeIs(Zeb::Seconds time) { createTime_ = time; }
   void updateTimeIs(Zeb::Seconds time) { updateTime_ = time; }

   bool operator==(BasicHoFlowStatus const& other) const {
      return key_ == other.key_ && hoFlowState_ == other.hoFlowState_ && createTime_ == other.createTime_ &&
             updateTime_ == other.updateTime_;
   }
   /// False for a record that equals a default one.
   explicit operator bool() const { return !(*this == BasicHoFlowStatus()); }

   /// For traces.
   Zeb::String mirakString() const {
      std::ostringstream out;
      out << '[' << key_.mirakString() << "] "
          << " state: " << hoFlowState_ << ',' << " created: " << createTime() << ','
          << " updated: " << updateTime();
      return out.str();
   }

   static constexpr bool layoutHolds() {
      using R = BasicHoFlowStatus;
      constexpr unsigned k = sizeof(K);
      static_assert(offsetof(R, key_) == 0, "tables find the key at the front of the row");
      static_assert(offsetof(R, hoFlowState_) == k, "the state is one byte behind the key");
      static_assert(offsetof(R, createTime_) == k + 4, "times are packed to multiples of 4");
      static_assert(offsetof(R, updateTime_) == k + 12, "times are packed to multiples of 4");
      static_assert(sizeof(R) == k + 20 && alignof(R) == 4, "slots reserve this much for the row");
      static_assert(std::is_trivially_copyable_v<R>, "rows are copied as bytes");
      return true;
   }

private:
   K key_;
   HoFlowState hoFlowState_ = HoFlowState{};
   [[maybe_unused]] unsigned char unused_[3];
   Zeb::Seconds createTime_ = 0;
   Zeb::Seconds updateTime_ = 0;
};
#pragma pack(pop)

using HoIpFlowStatus = BasicHoFlowStatus<HoIpFlowKey>;
using HoIp6FlowStatus = BasicHoFlowStatus<HoIp6FlowKey>;

HOFLOW_EXPORT Zeb::String valueToStrep(HoIpFlowStatus const& value);
HOFLOW_EXPORT Zeb::String valueToStrep(HoIp6FlowStatus const& value);
inline std::ostream& operator<<(std::ostream& out, HoIpFlowStatus const& value) {
   return out << valueToStrep(value);
}
inline std::ostream& operator<<(std::ostream& out, HoIp6FlowStatus const& value) {
   return out << valueToStrep(value);
}

static_assert(HoIpFlowStatus::layoutHolds() && HoIp6FlowStatus::layoutHolds(), "part of the table format");
static_assert(sizeof(HoIpFlowStatus) == 56 && sizeof(HoIp6FlowStatus) == 80, "part of the table format");

} // namespace FlowTracking
