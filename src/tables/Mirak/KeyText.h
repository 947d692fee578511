// SPDX-License-Identifier: Apache-2.0
// A key in words, for traces: its own text if it has one, else its bytes. Never inlined: building a text
// takes counted strings and streams, which have no place among the instructions of a hot path.
#pragma once

#include "Lomi/Util.h"

#include <string>

namespace Mirak {

template <class Key> [[gnu::cold, gnu::noinline]] std::string keyText(Key const& key) {
   if constexpr (requires { std::string(key.mirakString()); })
      return std::string(key.mirakString());
   else if constexpr (requires { std::string(key.str()); })
      return std::string(key.str());
   else
      return Lomi::dumpHex(&key, sizeof key);
}

} // namespace Mirak
