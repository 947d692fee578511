// SPDX-License-Identifier: Apache-2.0
// Text forms of addresses, by the C library.
#include "Ip/IpAddr.h"

#include <arpa/inet.h>

namespace Ip {

template <unsigned N> constexpr int family = N == 4 ? AF_INET : AF_INET6;

template <unsigned N> std::optional<Address<N>> Address<N>::fromText(std::string_view text) {
   char buffer[INET6_ADDRSTRLEN];
   if (text.size() >= sizeof(buffer)) return std::nullopt;
   std::memcpy(buffer, text.data(), text.size());
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

template class Address<4>;
template class Address<16>;

} // namespace Ip
