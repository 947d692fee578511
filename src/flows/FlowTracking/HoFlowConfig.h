// SPDX-License-Identifier: Apache-2.0
// FlowTracking::HoIpFlowConfig and HoIp6FlowConfig: a flow chosen for offload, with what the hardware needs
// of it.
//
// Layout (part of the table format). K is the size of the key, 36 for IPv4 and 60 for IPv6:
//
//    offset  width  field
//         0      K  key
//         K      8  createTime             at a multiple of 4 only: read and written by value
//     K +  8     8  updateTime
//     K + 16     6  srcEthAddr
//     K + 22     6  dstEthAddr
//     K + 28     6  dot1qVlanTag           0x81000fff, 0, 0 unless set
//     K + 34     6  dot1qCustomerVlanTag   the same
//     K + 40     8  cachedIntfId
//
// A plain value: rows are copies of these bytes. Nothing here is atomic; a table hands out copies.
#pragma once

#include "FlowTracking/HoFlowKeys.h"
#include "Nimbet/EthAddr.h"
#include "Nimbet/IntfId.h"
#include "Ovie/VlanTag.h"
#include "Zeb/Seconds.h"

namespace FlowTracking {

#pragma pack(push, 4)
template <class K> class HOFLOW_EXPORT BasicHoFlowConfig {
public:
   using Key = K;
   static constexpr bool isIp6 = K::isIp6;
   static constexpr char const* typeName =
       isIp6 ? "FlowTracking::HoIp6FlowConfig" : "FlowTracking::HoIpFlowConfig";

   BasicHoFlowConfig() {}
   explicit BasicHoFlowConfig(K const& key)
      : key_(key) {}
   /// Parses the text form and moves `it` behind it. @throws Zeb::SyntaxException, Zeb::RangeException
   BasicHoFlowConfig(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end);

   K const& key() const { return key_; }
   Zeb::Seconds createTime() const { return createTime_; }
   Zeb::Seconds updateTime() const { return updateTime_; }
   Nimbet::EthAddr srcEthAddr() const { return srcEthAddr_; }
   Nimbet::EthAddr dstEthAddr() const { return dstEthAddr_; }
   Ovie::VlanTag dot1qVlanTag() const { return dot1qVlanTag_; }
   Ovie::VlanTag dot1qCustomerVlanTag() const { return dot1qCustomerVlanTag_; }
   Nimbet::IntfId cachedIntfId() const { return cachedIntfId_; }

   void createTimeIs(Zeb::Seconds time) { createTime_ = time; }
   void updateTimeIs(Zeb::Seconds time) { updateTime_ = time; }
   void srcEthAddrIs(Nimbet::EthAddr address) { srcEthAddr_ = address; }
   void dstEthAddrIs(Nimbet::EthAddr address) { dstEthAddr_ = address; }
   void dot1qVlanTagIs(Ovie::VlanTag const& tag) { dot1qVlanTag_.valueIs(tag); }
   void dot1qCustomerVlanTagIs(Ovie::VlanTag const& tag) { dot1qCustomerVlanTag_.valueIs(tag); }
   void cachedIntfIdIs(Nimbet::IntfId intfId) { cachedIntfId_ = intfId; }

   bool operator==(BasicHoFlowConfig const& other) const {
      return key_ == other.key_ && createTime_ == other.createTime_ && updateTime_ == other.updateTime_ &&
             srcEthAddr_ == other.srcEthAddr_ && dstEthAddr_ == other.dstEthAddr_ &&
             dot1qVlanTag_ == other.dot1qVlanTag_ && dot1qCustomerVlanTag_ == other.dot1qCustomerVlanTag_ &&
             cachedIntfId_ == other.cachedIntfId_;
   }
   /// False for a record that equals a default one.
   explicit operator bool() const { return !(*this == BasicHoFlowConfig()); }

   /// For traces. Leaves out the VLAN tags and the cached interface.
   Zeb::String mirakString() const {
      std::ostringstream out;
      out << '[' << key_.mirakString() << "] "
          << " srcEth: " << srcEthAddr_ << ',' << " dstEth: " << dstEthAddr_ << ','
          << " created: " << createTime() << ',' << " updateTime: " << updateTime();
      return out.str();
   }

   static constexpr bool layoutHolds() {
      using R = BasicHoFlowConfig;
      constexpr unsigned k = sizeof(K);
      static_assert(offsetof(R, key_) == 0, "tables find the key at the front of the row");
      static_assert(offsetof(R, createTime_) == k, "times are packed to multiples of 4");
      static_assert(offsetof(R, updateTime_) == k + 8, "times are packed to multiples of 4");
      static_assert(offsetof(R, srcEthAddr_) == k + 16, "addresses follow the times without a gap");
      static_assert(offsetof(R, dstEthAddr_) == k + 22, "addresses have no alignment");
      static_assert(offsetof(R, dot1qVlanTag_) == k + 28, "tags have no alignment");
      static_assert(offsetof(R, dot1qCustomerVlanTag_) == k + 34, "tags have no alignment");
      static_assert(offsetof(R, cachedIntfId_) == k + 40, "the interface is the last field");
      static_assert(sizeof(R) == k + 48 && alignof(R) == 4, "slots reserve this much for the row");
      static_assert(std::is_trivially_copyable_v<R>, "rows are copied as bytes");
      return true;
   }

private:
   K key_;
   Zeb::Seconds createTime_ = 0;
   Zeb::Seconds updateTime_ = 0;
   Nimbet::EthAddr srcEthAddr_;
   Nimbet::EthAddr dstEthAddr_;
   Ovie::VlanTag dot1qVlanTag_;
   Ovie::VlanTag dot1qCustomerVlanTag_;
   Nimbet::IntfId cachedIntfId_;
};
#pragma pack(pop)

using HoIpFlowConfig = BasicHoFlowConfig<HoIpFlowKey>;
using HoIp6FlowConfig = BasicHoFlowConfig<HoIp6FlowKey>;

HOFLOW_EXPORT Zeb::String valueToStrep(HoIpFlowConfig const& value);
HOFLOW_EXPORT Zeb::String valueToStrep(HoIp6FlowConfig const& value);
inline std::ostream& operator<<(std::ostream& out, HoIpFlowConfig const& value) {
   return out << valueToStrep(value);
}
inline std::ostream& operator<<(std::ostream& out, HoIp6FlowConfig const& value) {
   return out << valueToStrep(value);
}

static_assert(HoIpFlowConfig::layoutHolds() && HoIp6FlowConfig::layoutHolds(), "part of the table format");
static_assert(sizeof(HoIpFlowConfig) == 84 && sizeof(HoIp6FlowConfig) == 108, "part of the table format");

} // namespace FlowTracking
