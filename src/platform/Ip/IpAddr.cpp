// SPDX-License-Identifier: Apache-2.0
// Text forms of addresses, by the C library.
#include "Ip/IpAddr.h"

#include "Zeb/Strep.h"

#include <arpa/inet.h>

namespace Ip {

template <unsigned N> constexpr int family = N == 4 ? AF_INET : AF_INET6;

template <unsigned N> std::optional<Address<N>> Address<N>::fromText(std::string_view text) {
   char buffer[INET6_ADDRSTRLEN];
   if (text.size() >= sizeof(buffer)) return std::nullopt;
   text.copy(buffer, text.size());
   buffer[text.size()] = 0;
   Bytes bytes;
   if (std::strlen(buffer) != text.size() || inet_pton(family<N>, buffer, bytes.data()) != 1)
      return std::nullopt;
   return Address(bytes);
}

template <unsigned N> Zeb::String Address<N>::str() const {
   char buffer[INET6_ADDRSTRLEN];
   return inet_ntop(family<N>, bytes_.data(), buffer, sizeof(buffer));
}

IpAddr sequenceToValue(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end, IpAddr*) {
   auto const belongs = [](char c) { return Zeb::Impl::isDigit(c) || c == '.'; };
   return Zeb::printedValue<IpAddr>(it, end, "an IPv4 address, like 10.0.0.1,", belongs, IpAddr::fromText);
}

Ip6Addr sequenceToValue(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end, Ip6Addr*) {
   auto const belongs = [](char c) {
      return Zeb::Impl::isDigit(c) || Zeb::Impl::isLower(c) || c == ':' || c == '.';
   };
   return Zeb::printedValue<Ip6Addr>(it, end, "an IPv6 address, like 2001:db8::1,", belongs,
                                     Ip6Addr::fromText);
}

template class Address<4>;
template class Address<16>;

} // namespace Ip
