// SPDX-License-Identifier: Apache-2.0
// Literals, ends, messages, and the text forms of times and strings. See Strep.h.
#include "Zeb/Strep.h"

#include <cmath>
#include <fmt/format.h>

namespace Zeb {
namespace {

/// The beginning of what stands at a place, fit for a line of a message.
std::string excerpt(std::string_view text) {
   constexpr std::size_t most = 24;
   if (text.empty()) return "the end";
   std::string shown(text.substr(0, most));
   for (char& c : shown)
      if (c < ' ' || c > '~') c = '?';
   return "\"" + shown + (text.size() > most ? "..." : "") + "\"";
}

} // namespace

std::string expectedAt(std::string_view expected, String::IteratorConst const& it,
                       String::IteratorConst const& end) {
   return fmt::format("expected {} at character {}, found {}", expected, it.offset() + 1,
                      excerpt(it.upTo(end)));
}

void needString(String::IteratorConst& it, String::IteratorConst const& end, char const* literal) {
   std::string_view const wanted(literal);
   if (!it.upTo(end).starts_with(wanted))
      throw SyntaxException(expectedAt(fmt::format("\"{}\"", wanted), it, end));
   it += wanted.size();
}

void strepToValueEnd(String const& text, String::IteratorConst const& it) {
   if (it != text.end()) throw SyntaxException(expectedAt("the end", it, text.end()));
}

void rethrowFromDeserializeAttr(RangeException const& exception, char const* attrName) {
   std::string field(attrName);
   if (!exception.field().empty()) field += "." + exception.field();
   throw RangeException(exception.detail(), field);
}

String valueToStrep(Seconds seconds) {
   if (std::isnan(seconds)) return "nan"; // whatever its sign and its other bits
   double const size = std::abs(seconds);
   bool const withoutExponent = size == 0 || (size >= 1e-6 && size < 1e18);
   char text[40];
   auto const end = std::to_chars(text, text + sizeof text, seconds,
                                  withoutExponent ? std::chars_format::fixed : std::chars_format::scientific);
   return std::string_view(text, end.ptr);
}

Seconds sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, Seconds*) {
   auto const belongs = [](char c) {
      return Impl::isDigit(c) || Impl::isLower(c) || c == '.' || c == '+' || c == '-';
   };
   return printedValue<Seconds>(it, end, "a time in seconds, as it is printed,", belongs,
                                Impl::wholeNumber<Seconds>);
}

String valueToStrep(String const& text) {
   std::string quoted = "'";
   for (char const c : text.view()) {
      if (c < ' ' || c > '~')
         quoted += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
      else if (c == '\'' || c == '\\')
         (quoted += '\\') += c;
      else
         quoted += c;
   }
   return quoted + "'";
}

String sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, String*) {
   std::string_view const rest = it.upTo(end);
   std::string text;
   std::size_t at = 1;
   bool closed = false;
   while (at < rest.size() && !closed) {
      char c = rest[at++];
      if (c == '\'') {
         closed = true;
         continue;
      }
      if (c == '\\' && at < rest.size() && (c = rest[at++]) == 'x') {
         unsigned char byte = 0;
         auto const digits = rest.substr(at, 2);
         std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
         c = static_cast<char>(byte);
         at += digits.size();
      }
      text += c;
   }
   String value(std::move(text));
   if (!closed || valueToStrep(value).view() != rest.substr(0, at))
      throw RangeException(expectedAt("a text in single quotes, as it is printed,", it, end));
   it += at;
   return value;
}

} // namespace Zeb
