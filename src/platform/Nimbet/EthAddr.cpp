// SPDX-License-Identifier: Apache-2.0
// Reads an Ethernet address from its text form. The inverse of EthAddr::str().
#include "Nimbet/EthAddr.h"

#include "Zeb/Strep.h"

namespace Nimbet {

EthAddr sequenceToValue(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end, EthAddr*) {
   auto const belongs = [](char c) { return Zeb::Impl::isDigit(c) || Zeb::Impl::isLower(c) || c == ':'; };
   return Zeb::printedValue<EthAddr>(
       it, end, "an Ethernet address, like 00:1c:73:00:00:99,", belongs,
       [](std::string_view text) -> std::optional<EthAddr> {
          std::array<std::uint8_t, 6> bytes{};
          for (std::size_t i = 0; i < bytes.size() && 3 * i < text.size(); ++i) {
             auto const pair = text.substr(3 * i, 2);
             std::from_chars(pair.data(), pair.data() + pair.size(), bytes[i], 16);
          }
          return EthAddr(bytes);
       });
}

} // namespace Nimbet
