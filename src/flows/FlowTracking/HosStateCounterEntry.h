// SPDX-License-Identifier: Apache-2.0
// FlowTracking::HosStateCounterEntry: how many flows stand in a state.
//
// Layout (part of the table format), 8 bytes: the key, one byte, at 0; three bytes without meaning, which are
// left alone by constructors, not compared, and copied with the row; `hoFlows`, u32, at 4.
//
// The arithmetic is modular and not atomic; callers keep the count, the tables never change it.
#pragma once

#include "FlowTracking/HoFlowKeys.h"

namespace FlowTracking {

class HOFLOW_EXPORT HosStateCounterEntry {
public:
   using Key = HosStateCounterKey;
   static constexpr char const* typeName = "FlowTracking::HosStateCounterEntry";

   HosStateCounterEntry() {}
   explicit HosStateCounterEntry(HosStateCounterKey const& key)
      : key_(key) {}
   /// Parses the text form and moves `it` behind it. @throws Zeb::SyntaxException, Zeb::RangeException
   HosStateCounterEntry(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end);

   HosStateCounterKey const& key() const { return key_; }
   unsigned int hoFlows() const { return hoFlows_; }
   void hoFlowsIs(unsigned int flows) { hoFlows_ = flows; }

   /// Each returns the new value.
   unsigned int hoFlowsInc(unsigned int n) { return hoFlows_ += n; }
   unsigned int hoFlowsDec(unsigned int n) { return hoFlows_ -= n; }

   bool operator==(HosStateCounterEntry other) const {
      return key_ == other.key_ && hoFlows_ == other.hoFlows_;
   }
   /// False for a record that equals a default one.
   explicit operator bool() const { return !(*this == HosStateCounterEntry()); }

   /// For traces.
   Zeb::String mirakString() const {
      std::ostringstream out;
      out << '[' << key_ << ']' << " hoFlows: " << hoFlows_;
      return out.str();
   }

   static constexpr bool layoutHolds() {
      using R = HosStateCounterEntry;
      static_assert(offsetof(R, key_) == 0, "tables find the key at the front of the row");
      static_assert(offsetof(R, hoFlows_) == 4, "three bytes without meaning align the count");
      static_assert(sizeof(R) == 8 && alignof(R) == 4, "slots reserve this much for the row");
      static_assert(std::is_trivially_copyable_v<R>, "rows are copied as bytes");
      return true;
   }

private:
   HosStateCounterKey key_;
   [[maybe_unused]] unsigned char unused_[3];
   unsigned int hoFlows_ = 0;
};

HOFLOW_EXPORT Zeb::String valueToStrep(HosStateCounterEntry const& value);
inline std::ostream& operator<<(std::ostream& out, HosStateCounterEntry const& value) {
   return out << valueToStrep(value);
}

static_assert(HosStateCounterEntry::layoutHolds(), "part of the table format");

} // namespace FlowTracking
