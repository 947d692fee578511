// SPDX-License-Identifier: Apache-2.0
// Nimbet::EthAddr: an Ethernet address, 6 bytes in the order of the wire, with no alignment of its own.
#pragma once

#include "Zeb/String.h"

#include <array>
#include <compare>
#include <cstdint>
#include <ostream>
#include <type_traits>

namespace Nimbet {

class EthAddr {
public:
   EthAddr()
      : bytes_{} {}
   explicit EthAddr(std::array<std::uint8_t, 6> const& bytes)
      : bytes_(bytes) {}

   std::array<std::uint8_t, 6> bytes() const { return bytes_; }

   friend bool operator==(EthAddr, EthAddr) = default;
   friend auto operator<=>(EthAddr, EthAddr) = default;

   /// Six pairs of hexadecimal digits: "00:1c:73:00:00:99".
   Zeb::String str() const {
      return Zeb::format("%02x:%02x:%02x:%02x:%02x:%02x", bytes_[0], bytes_[1], bytes_[2], bytes_[3],
                         bytes_[4], bytes_[5]);
   }
   friend std::ostream& operator<<(std::ostream& out, EthAddr address) { return out << address.str(); }

private:
   std::array<std::uint8_t, 6> bytes_;
};

inline Zeb::String valueToStrep(EthAddr const& address) { return address.str(); }
/// @throws Zeb::RangeException
HOFLOW_EXPORT EthAddr sequenceToValue(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end,
                                      EthAddr*);

static_assert(sizeof(EthAddr) == 6 && alignof(EthAddr) == 1, "records place it at offsets 52 and 58");
static_assert(std::is_trivially_copyable_v<EthAddr>, "rows are copied as bytes");

} // namespace Nimbet
