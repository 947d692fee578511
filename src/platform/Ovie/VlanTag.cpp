// SPDX-License-Identifier: Apache-2.0
// Reads a tag from its text form. The inverse of VlanTag::str(), which says in words only what differs from a
// plain tag.
#include "Ovie/VlanTag.h"

#include "Zeb/Strep.h"

namespace Ovie {
namespace {

/// Takes `word` from the front of `text`, and the number behind it. @return the number, or what is usual
template <class N> N numberBehind(std::string_view word, std::string_view& text, N usual, int base = 10) {
   if (!text.starts_with(word)) return usual;
   N number = usual;
   auto const* const begin = text.data() + word.size();
   auto const read = std::from_chars(begin, text.data() + text.size(), number, base);
   text = text.substr(static_cast<std::size_t>(read.ptr - text.data()));
   return number;
}

/// Reads as far as it understands; whether that was all shows when it is printed.
VlanTag read(std::string_view& text) {
   if (text.starts_with("none")) return text.remove_prefix(4), VlanTag();
   auto const id = numberBehind<std::uint16_t>("", text, 0);
   auto const priority = numberBehind<std::uint16_t>(" priority ", text, 0);
   bool const dropEligible = text.starts_with(" drop-eligible");
   if (dropEligible) text.remove_prefix(std::string_view(" drop-eligible").size());
   auto const protocol = numberBehind<std::uint16_t>(" protocol 0x", text, 0x8100, 16);
   auto const depth = numberBehind<std::uint8_t>(" depth ", text, 0);
   return VlanTag(static_cast<std::uint16_t>((id & 0xfff) | (priority & 7) << 13 | dropEligible << 12),
                  protocol, depth);
}

} // namespace

VlanTag::VlanTag(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end) {
   std::string_view const whole = it.upTo(end);
   std::string_view rest = whole;
   *this = read(rest);
   std::string_view const taken = whole.substr(0, whole.size() - rest.size());
   if (taken.empty() || valueToStrep(*this).view() != taken)
      throw Zeb::RangeException(Zeb::expectedAt("a VLAN tag, like 42 priority 3, or none", it, end));
   it += taken.size();
}

} // namespace Ovie
