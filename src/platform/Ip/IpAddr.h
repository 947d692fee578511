// SPDX-License-Identifier: Apache-2.0
// Ip::IpAddr and Ip::Ip6Addr: addresses of 4 and 16 bytes in the order of the wire, with no alignment of
// their own, since keys place them at offsets that are no multiples of 4. Order is that of the bytes, which
// is numeric order.
#pragma once

#include "Lomi/Export.h"
#include "Zeb/String.h"

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <optional>
#include <ostream>
#include <string_view>
#include <type_traits>

namespace Ip {

template <unsigned N> class HOFLOW_EXPORT Address {
public:
   static_assert(N == 4 || N == 16);
   using Bytes = std::array<std::uint8_t, N>;

   constexpr Address()
      : bytes_{} {}
   explicit constexpr Address(Bytes const& bytes)
      : bytes_(bytes) {}
   /// Takes the N bytes at `wire`.
   static Address fromWire(void const* wire) {
      Address address;
      std::memcpy(address.bytes_.data(), wire, N);
      return address;
   }
   /// Nothing unless `text` is an address of this family and nothing else.
   HOFLOW_EXPORT static std::optional<Address> fromText(std::string_view text);

   constexpr Bytes bytes() const { return bytes_; }

   friend bool operator==(Address const&, Address const&) = default;
   friend auto operator<=>(Address const&, Address const&) = default;

   /// As people write it: "10.0.0.1", "2001:db8::1".
   HOFLOW_EXPORT Zeb::String str() const;
   friend std::ostream& operator<<(std::ostream& out, Address const& address) { return out << address.str(); }

private:
   Bytes bytes_;
};

using IpAddr = Address<4>;
using Ip6Addr = Address<16>;

template <unsigned N> Zeb::String valueToStrep(Address<N> const& address) { return address.str(); }
/// @throws Zeb::RangeException
HOFLOW_EXPORT IpAddr sequenceToValue(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end,
                                     IpAddr*);
HOFLOW_EXPORT Ip6Addr sequenceToValue(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end,
                                      Ip6Addr*);

static_assert(sizeof(IpAddr) == 4 && alignof(IpAddr) == 1, "IPv4 keys place it at offsets 6 and 10");
static_assert(sizeof(Ip6Addr) == 16 && alignof(Ip6Addr) == 1, "IPv6 keys place it at offsets 6 and 22");
static_assert(std::is_trivially_copyable_v<Ip6Addr>, "rows are copied as bytes");

extern template class Address<4>;
extern template class Address<16>;

} // namespace Ip
