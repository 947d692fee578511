// SPDX-License-Identifier: Apache-2.0
// Zeb::String: an immutable string that is cheap to copy. Texts of keys, records and interfaces pass through
// it.
//
// Copies share one counted buffer; the empty string has none. A String may be copied and destroyed on several
// threads at once, as its count is atomic; nothing about it is ever changed in place.
//
// This file also lets fmt print every type that offers `mirakString()` or `str()`, so that keys and rows can
// stand in traces and messages. It does not parse: Strep.h does.
#pragma once

#include "Lomi/Export.h"

#include <compare>
#include <concepts>
#include <cstddef>
#include <fmt/format.h>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

namespace Zeb {

class String {
public:
   String() = default;
   String(char const* text)
      : String(std::string_view(text)) {}
   String(std::string_view text) {
      if (!text.empty()) shared_ = std::make_shared<std::string const>(text);
   }
   String(std::string const& text)
      : String(std::string_view(text)) {}
   String(std::string&& text) {
      if (!text.empty()) shared_ = std::make_shared<std::string const>(std::move(text));
   }

   /// The characters, followed by a NUL that `size()` doesn't count. They live as long as any copy of this
   /// string.
   char const* data() const { return shared_ ? shared_->c_str() : ""; }
   std::size_t size() const { return shared_ ? shared_->size() : 0; }
   bool empty() const { return !shared_; }
   std::string_view view() const { return {data(), size()}; }
   std::string str() const { return std::string(view()); }
   operator std::string() const { return str(); }
   operator std::string_view() const { return view(); }

   friend bool operator==(String const& a, String const& b) {
      return a.shared_ == b.shared_ || a.view() == b.view();
   }
   friend std::strong_ordering operator<=>(String const& a, String const& b) { return a.view() <=> b.view(); }

   class IteratorConst;
   IteratorConst begin() const;
   IteratorConst end() const;

   friend std::ostream& operator<<(std::ostream& out, String const& text) { return out << text.view(); }

private:
   std::shared_ptr<std::string const> shared_;
};

/// A place in a string, by which parsers walk over it. It keeps the string alive.
class String::IteratorConst {
public:
   char operator*() const { return (*shared_)[at_]; }
   IteratorConst& operator++() { return *this += 1; }
   IteratorConst& operator+=(std::size_t characters) {
      at_ += characters;
      return *this;
   }
   /// Of two places in one string.
   friend bool operator==(IteratorConst const& a, IteratorConst const& b) { return a.at_ == b.at_; }

   /// Characters before this one.
   std::size_t offset() const { return at_; }
   /// What lies before `end`, a place in the same string. Good as long as an iterator or the string lives.
   std::string_view upTo(IteratorConst const& end) const {
      return shared_ ? std::string_view(*shared_).substr(at_, end.at_ - at_) : std::string_view("");
   }

private:
   friend class String;
   IteratorConst(std::shared_ptr<std::string const> shared, std::size_t at)
      : shared_(std::move(shared))
      , at_(at) {}

   std::shared_ptr<std::string const> shared_;
   std::size_t at_;
};

inline String::IteratorConst String::begin() const { return {shared_, 0}; }
inline String::IteratorConst String::end() const { return {shared_, size()}; }

/// Formats as printf does, with any length of result.
HOFLOW_EXPORT String format(char const* pattern, ...) __attribute__((format(printf, 1, 2)));

namespace Impl {
template <class T>
concept HasMirakString = requires(T const& t) {
   { t.mirakString() } -> std::same_as<String>;
};
template <class T>
concept HasStr = !HasMirakString<T> && requires(T const& t) {
   { t.str() } -> std::same_as<String>;
};
} // namespace Impl

} // namespace Zeb

template <> struct fmt::formatter<Zeb::String> : fmt::formatter<std::string_view> {
   auto format(Zeb::String const& text, fmt::format_context& context) const {
      return fmt::formatter<std::string_view>::format(text.view(), context);
   }
};

template <Zeb::Impl::HasMirakString T> struct fmt::formatter<T> : fmt::formatter<std::string_view> {
   auto format(T const& value, fmt::format_context& context) const {
      return fmt::formatter<std::string_view>::format(value.mirakString().view(), context);
   }
};

template <Zeb::Impl::HasStr T> struct fmt::formatter<T> : fmt::formatter<std::string_view> {
   auto format(T const& value, fmt::format_context& context) const {
      return fmt::formatter<std::string_view>::format(value.str().view(), context);
   }
};
