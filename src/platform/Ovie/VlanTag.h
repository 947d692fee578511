// SPDX-License-Identifier: Apache-2.0
// Ovie::VlanTag: an 802.1Q tag as records carry it, 6 bytes with no alignment of its own.
//
// Layout (part of the table format), little-endian: u16 tag control information at 0 (priority 3 bits, drop
// eligible 1 bit, VLAN id 12 bits), u16 protocol id at 2, u8 `depth` at 4, one byte without meaning at 5. The
// first four bytes of a tag that was never set are the word 0x81000fff: protocol 802.1Q and the reserved VLAN
// id 4095. The sixth byte is not compared; it travels with copies of the tag.
#pragma once

#include "Zeb/String.h"

#include <cstdint>
#include <cstring>
#include <ostream>
#include <type_traits>

namespace Ovie {

using VlanId = std::uint16_t;

class VlanTag {
public:
   VlanTag()
      : VlanTag(0x0fff) {}
   explicit VlanTag(std::uint16_t tagControl, std::uint16_t protocolId = 0x8100, std::uint8_t depth = 0) {
      std::uint32_t const word = tagControl | static_cast<std::uint32_t>(protocolId) << 16;
      std::memcpy(bytes_, &word, 4);
      bytes_[4] = depth;
      bytes_[5] = 0;
   }

   /// Parses the text form. @throws Zeb::RangeException
   HOFLOW_EXPORT VlanTag(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end);

   /// Protocol id in the upper half, tag control information in the lower.
   std::uint32_t word() const {
      std::uint32_t word;
      std::memcpy(&word, bytes_, 4);
      return word;
   }
   VlanId vlanId() const { return word() & 0x0fff; }
   std::uint8_t priority() const { return word() >> 13 & 7; }
   bool dropEligible() const { return word() & 0x1000; }
   std::uint16_t protocolId() const { return static_cast<std::uint16_t>(word() >> 16); }
   /// Which tag of a frame this is, 0 the outermost.
   std::uint8_t depth() const { return bytes_[4]; }
   bool isSet() const { return *this != VlanTag(); }

   friend bool operator==(VlanTag const& a, VlanTag const& b) {
      return std::memcmp(a.bytes_, b.bytes_, valueBytes) == 0;
   }

   /// "none" for a tag that was never set, else "42", with what differs from a plain 802.1Q tag behind it:
   /// "42 priority 3 drop-eligible protocol 0x88a8 depth 1".
   Zeb::String str() const {
      if (!isSet()) return "none";
      std::string text = std::to_string(vlanId());
      if (priority()) text += " priority " + std::to_string(priority());
      if (dropEligible()) text += " drop-eligible";
      if (protocolId() != 0x8100) text += Zeb::format(" protocol 0x%04x", protocolId()).view();
      if (depth()) text += " depth " + std::to_string(depth());
      return text;
   }
   friend std::ostream& operator<<(std::ostream& out, VlanTag const& tag) { return out << tag.str(); }

   /// The bytes that carry the value; a writer of a record's field copies these and leaves the sixth.
   static constexpr unsigned valueBytes = 5;
   void valueIs(VlanTag const& other) { std::memcpy(bytes_, other.bytes_, valueBytes); }

private:
   std::uint8_t bytes_[6];
};

inline Zeb::String valueToStrep(VlanTag const& tag) { return tag.str(); }

static_assert(sizeof(VlanTag) == 6 && alignof(VlanTag) == 1, "records place it at offsets 64 and 70");
static_assert(std::is_trivially_copyable_v<VlanTag>, "rows are copied as bytes");

} // namespace Ovie
