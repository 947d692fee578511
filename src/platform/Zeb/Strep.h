// SPDX-License-Identifier: Apache-2.0
// Streps: text forms that parse back into an equal value. A field's type brings two functions, found beside
// it:
//
//    Zeb::String valueToStrep(F const&);
//    F sequenceToValue(Zeb::String::IteratorConst& it, Zeb::String::IteratorConst const& end, F*);
//
// or a constructor of (it, end) in the place of the second; its pointer only selects the overload, and may be
// null. Composite.h puts the fields of a key or record together.
//
// A parser moves `it` behind what it has read, and accepts nothing but what valueToStrep prints: no blank, no
// sign, no leading zero, no other spelling. printedValue() below gives it that for nothing: it takes the
// longest run of characters that could belong to the field, and compares what it parsed, printed again, with
// what it took. So a field ends where its characters end, and no text of a field may hold what can follow
// one: ", '" and "})".
//
// Places in messages count characters from 1.
#pragma once

#include "Zeb/Exception.h"
#include "Zeb/Seconds.h"
#include "Zeb/String.h"

#include <charconv>
#include <concepts>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace Zeb {

// --- printing of numbers, times and texts ---

template <std::unsigned_integral N> String valueToStrep(N number) { return std::to_string(number); }
/// The fewest digits that read back as the same time, with an exponent only for what is very large or very
/// small; "inf", "-inf", and "nan" for each that is no number.
HOFLOW_EXPORT String valueToStrep(Seconds seconds);
/// 'text', with \ before quotes and backslashes, and \x and two hexadecimal digits for what is no printable
/// ASCII.
HOFLOW_EXPORT String valueToStrep(String const& text);

// --- parsing ---

/// "a number from 0 to 65535 at character 17, found \"70000, 'dstPort\"": how a parser says what is wrong.
HOFLOW_EXPORT std::string expectedAt(std::string_view expected, String::IteratorConst const& it,
                                     String::IteratorConst const& end);

/// Moves `it` behind `literal`. @throws SyntaxException if something else stands there
HOFLOW_EXPORT void needString(String::IteratorConst& it, String::IteratorConst const& end,
                              char const* literal);

/// @throws SyntaxException unless `it` is at the end of `text`
HOFLOW_EXPORT void strepToValueEnd(String const& text, String::IteratorConst const& it);

/// Throws `exception` again as one of the field `attrName`, within which it arose.
[[noreturn]] HOFLOW_EXPORT void rethrowFromDeserializeAttr(RangeException const& exception,
                                                           char const* attrName);

/// The value whose printed form is the longest run of characters for which `belongs` holds.
/// @param expected what the message says was expected
/// @param parse makes std::optional<F> of a run of characters; it may take other spellings, too
/// @throws RangeException; `it` hasn't moved then
template <class F, class Belongs, class Parse>
F printedValue(String::IteratorConst& it, String::IteratorConst const& end, std::string_view expected,
               Belongs&& belongs, Parse&& parse) {
   std::string_view text = it.upTo(end);
   std::size_t length = 0;
   while (length < text.size() && belongs(text[length])) ++length;
   text = text.substr(0, length);
   std::optional<F> const value = parse(text);
   if (!value || valueToStrep(*value).view() != text) throw RangeException(expectedAt(expected, it, end));
   it += length;
   return *value;
}

namespace Impl {
constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool isLower(char c) { return c >= 'a' && c <= 'z'; }
constexpr bool isLetter(char c) { return isLower(c) || (c >= 'A' && c <= 'Z'); }

/// A number that is all of `text`. Knows no locale.
template <class N> std::optional<N> wholeNumber(std::string_view text) {
   N number{};
   auto const read = std::from_chars(text.data(), text.data() + text.size(), number);
   if (text.empty() || read.ec != std::errc() || read.ptr != text.data() + text.size()) return std::nullopt;
   return number;
}
} // namespace Impl

template <std::unsigned_integral N>
N sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, N*) {
   return printedValue<N>(it, end, "a number from 0 to " + std::to_string(std::numeric_limits<N>::max()),
                          Impl::isDigit, Impl::wholeNumber<N>);
}

HOFLOW_EXPORT Seconds sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, Seconds*);

HOFLOW_EXPORT String sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, String*);

// --- fields and whole values ---

/// Parses one field. @throws RangeException that names it
template <class F>
F deserializeAttr(String::IteratorConst& it, String::IteratorConst const& end, char const* attrName) {
   try {
      if constexpr (std::constructible_from<F, String::IteratorConst&, String::IteratorConst const&>)
         return F(it, end);
      else
         return sequenceToValue(it, end, static_cast<F*>(nullptr));
   } catch (RangeException const& exception) {
      rethrowFromDeserializeAttr(exception, attrName);
   }
}

/// The value whose text form `text` is, all of it. The second argument only selects the type.
/// @throws SyntaxException, RangeException
template <class T> T strepToValue(String const& text, T*) {
   auto it = text.begin();
   auto const end = text.end();
   auto const parsed = [&] {
      if constexpr (std::constructible_from<T, String::IteratorConst&, String::IteratorConst const&>)
         return T(it, end);
      else
         return sequenceToValue(it, end, static_cast<T*>(nullptr));
   };
   T value = parsed();
   strepToValueEnd(text, it);
   return value;
}

} // namespace Zeb
