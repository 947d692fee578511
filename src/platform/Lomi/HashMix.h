// SPDX-License-Identifier: Apache-2.0
// The checksum of file headers. Part of the file format: for each byte, value = (value xor byte) * 0x01000193
// modulo 2^32. Each step is a bijection of the running value, so that a change of any single byte always
// shows. Not for hash tables: its low bits are weak. Keys are hashed by Zeb::Hash.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Lomi::Impl {

template <class Word> class HashMix;

template <> class HashMix<unsigned int> {
public:
   constexpr explicit HashMix(unsigned int start)
      : value_(start) {}

   void mix(void const* bytes, std::size_t length) {
      auto const* at = static_cast<unsigned char const*>(bytes);
      for (std::size_t i = 0; i < length; ++i) value_ = (value_ ^ at[i]) * 0x01000193u;
   }
   template <std::size_t length> void mixFixedLen(void const* bytes) { mix(bytes, length); }
   constexpr unsigned int value() const { return value_; }

private:
   unsigned int value_;
};

} // namespace Lomi::Impl
