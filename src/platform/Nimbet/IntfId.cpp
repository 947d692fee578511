// SPDX-License-Identifier: Apache-2.0
// Reads an interface from its text form. The inverse of IntfId::str().
#include "Nimbet/IntfId.h"

#include "Zeb/Strep.h"

#include <charconv>

namespace Nimbet {

void IntfId::parse(std::string_view name) {
   if (!name.starts_with("if")) return;
   char const* const end = name.data() + name.size();
   std::uint32_t number = 0, kind = 0;
   auto read = std::from_chars(name.data() + 2, end, number);
   if (read.ec != std::errc()) return;
   if (read.ptr != end) {
      if (*read.ptr != '.') return;
      read = std::from_chars(read.ptr + 1, end, kind);
      if (read.ec != std::errc() || read.ptr != end) return;
   }
   number_ = number;
   kind_ = kind;
}

IntfId sequenceToValue(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end, IntfId*) {
   auto const belongs = [](char c) { return Zeb::Impl::isDigit(c) || Zeb::Impl::isLower(c) || c == '.'; };
   return Zeb::printedValue<IntfId>(it, end, "an interface, like if7, or none", belongs,
                                    [](std::string_view text) -> std::optional<IntfId> {
                                       IntfId intfId;
                                       intfId.handleInitialized(Zeb::String(text));
                                       return intfId;
                                    });
}

} // namespace Nimbet
