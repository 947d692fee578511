// SPDX-License-Identifier: Apache-2.0
// Keys of the config and status tables (a flow on an interface) and of the counters by state.
//
// Layout (part of the table format): HoIpFlowKey is an IpFlowKey at 0 and an IntfId at 28, 36 bytes;
// HoIp6FlowKey is an Ip6FlowKey at 0 and an IntfId at 52, 60 bytes. HosStateCounterKey is one byte, the
// state.
#pragma once

#include "FlowTracking/HoFlowState.h"
#include "FlowTracking/IpFlowKey.h"
#include "Nimbet/IntfId.h"
#include "Zeb/Hash.h"
#include "Zeb/String.h"

#include <cstddef>
#include <sstream>
#include <type_traits>

namespace FlowTracking {

template <class FlowKey> class HOFLOW_EXPORT BasicHoFlowKey {
public:
   static constexpr bool isIp6 = FlowKey::isIp6;
   static constexpr char const* typeName = isIp6 ? "FlowTracking::HoIp6FlowKey" : "FlowTracking::HoIpFlowKey";

   BasicHoFlowKey() = default;
   BasicHoFlowKey(FlowKey const& ipFlowKey, Nimbet::IntfId intfId)
      : ipFlowKey_(ipFlowKey)
      , intfId_(intfId) {}
   /// Parses the text form and moves `it` behind it. @throws Zeb::SyntaxException, Zeb::RangeException
   BasicHoFlowKey(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end);

   FlowKey const& ipFlowKey() const { return ipFlowKey_; }
   Nimbet::IntfId intfId() const { return intfId_; }

   /// The flow key's own hash always takes seed 0: the table's seed enters once, in the accumulator around
   /// it.
   std::uint32_t hash(unsigned int seed) const noexcept {
      Zeb::Hash hash(seed, 0, 0);
      std::uint32_t const flow = ipFlowKey_.hash(0);
      hash.template hashMix<4>(&flow);
      std::uint32_t const intf = intfId_.hash();
      hash.template hashMix<4>(&intf);
      return hash.result();
   }

   bool operator==(BasicHoFlowKey const& other) const noexcept {
      return ipFlowKey_ == other.ipFlowKey_ && intfId_ == other.intfId_;
   }
   /// By flow first, by interface second.
   bool operator<(BasicHoFlowKey const& other) const noexcept {
      return ipFlowKey_ == other.ipFlowKey_ ? intfId_ < other.intfId_ : ipFlowKey_ < other.ipFlowKey_;
   }
   /// False for a key that equals a default one.
   explicit operator bool() const { return !(*this == BasicHoFlowKey()); }

   Zeb::String mirakString() const {
      std::ostringstream out;
      out << ipFlowKey_.str() << ',' << " intf: " << intfId_;
      return out.str();
   }

   static constexpr bool layoutHolds() {
      using K = BasicHoFlowKey;
      static_assert(offsetof(K, ipFlowKey_) == 0, "the flow key opens the key");
      static_assert(offsetof(K, intfId_) == sizeof(FlowKey), "the interface follows without a gap");
      static_assert(sizeof(K) == sizeof(FlowKey) + 8 && alignof(K) == 4,
                    "rows reserve this much for the key");
      static_assert(std::is_trivially_copyable_v<K>, "rows are copied as bytes");
      return true;
   }

private:
   FlowKey ipFlowKey_;
   Nimbet::IntfId intfId_;
};

using HoIpFlowKey = BasicHoFlowKey<IpFlowKey>;
using HoIp6FlowKey = BasicHoFlowKey<Ip6FlowKey>;

HOFLOW_EXPORT Zeb::String valueToStrep(HoIpFlowKey const& value);
HOFLOW_EXPORT Zeb::String valueToStrep(HoIp6FlowKey const& value);
inline std::ostream& operator<<(std::ostream& out, HoIpFlowKey const& value) {
   return out << valueToStrep(value);
}
inline std::ostream& operator<<(std::ostream& out, HoIp6FlowKey const& value) {
   return out << valueToStrep(value);
}

static_assert(HoIpFlowKey::layoutHolds() && HoIp6FlowKey::layoutHolds(),
              "the layout is part of the table format");
static_assert(sizeof(HoIpFlowKey) == 36 && sizeof(HoIp6FlowKey) == 60, "rows reserve this much for the key");

/// The key of a counter by state is the state. Hashed as one byte by the table, it has no hash of its own.
class HOFLOW_EXPORT HosStateCounterKey {
public:
   static constexpr char const* typeName = "FlowTracking::HosStateCounterKey";

   HosStateCounterKey()
      : key_(HoFlowState{}) {}
   HosStateCounterKey(HoFlowState key)
      : key_(key) {}
   /// Parses the text form, which is that of the state. @throws Zeb::RangeException
   HosStateCounterKey(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end);

   HoFlowState key() const { return key_; }

   bool operator==(HosStateCounterKey other) const { return key_ == other.key_; }
   bool operator<(HosStateCounterKey other) const { return key_ < other.key_; }

   Zeb::String mirakString() const {
      std::ostringstream out;
      out << " HosStateCounterKey: " << key_;
      return out.str();
   }

private:
   HoFlowState key_;
};

HOFLOW_EXPORT Zeb::String valueToStrep(HosStateCounterKey const& value);
inline std::ostream& operator<<(std::ostream& out, HosStateCounterKey const& value) {
   return out << valueToStrep(value);
}

static_assert(sizeof(HosStateCounterKey) == 1, "the key of a counter by state is one byte");
static_assert(std::is_trivially_copyable_v<HosStateCounterKey>, "rows are copied as bytes");

} // namespace FlowTracking
