// SPDX-License-Identifier: Apache-2.0
// Zeb::Hash: the accumulator by which keys that consist of several parts are hashed. It decides in which
// bucket a row lies, so this function is part of the table format: all processes that share a table must
// agree on it.
//
// State: three 32-bit words, begun as (seed, 0, 0). The first two are one 64-bit number h, the third counts
// the bytes fed. One mix is h = (h ^ word) * odd, then h ^= h >> 32: for a given h no two words collide, and
// no later word can undo a difference in the upper half of h. The low bits of the result, which choose the
// bucket, depend on all bits fed. bench/hash measures it. It is no cryptographic hash.
#pragma once

#include <cstdint>
#include <cstring>

namespace Zeb {

class Hash {
public:
   constexpr Hash(std::uint32_t a, std::uint32_t b, std::uint32_t c)
      : a_(a)
      , b_(b)
      , c_(c) {}
   explicit constexpr Hash(std::uint32_t seed)
      : Hash(seed, 0, 0) {}

   /// Feeds the N bytes at `from`, which needs no alignment.
   template <unsigned N> void hashMix(void const* from) {
      static_assert(N == 1 || N == 4, "keys are fed by single bytes and by 32-bit words");
      std::uint32_t word = 0;
      std::memcpy(&word, from, N);
      std::uint64_t h = state() ^ word;
      h *= 0x9fb21c651e98df25u;
      h ^= h >> 32;
      a_ = static_cast<std::uint32_t>(h);
      b_ = static_cast<std::uint32_t>(h >> 32);
      c_ += N;
   }

   std::uint32_t result() const {
      std::uint64_t h = (state() ^ c_) * 0xd6e8feb86659fd93u;
      h ^= h >> 32;
      h *= 0xd6e8feb86659fd93u;
      return static_cast<std::uint32_t>(h >> 32);
   }

private:
   std::uint64_t state() const { return a_ | static_cast<std::uint64_t>(b_) << 32; }

   std::uint32_t a_, b_, c_;
};

/// The hash of a key that is one attribute of 1 or 4 bytes.
template <class T> std::uint32_t hashSingleAttr(std::uint32_t seed, T value) {
   Hash hash(seed, 0, 0);
   hash.hashMix<sizeof(T)>(&value);
   return hash.result();
}

} // namespace Zeb
