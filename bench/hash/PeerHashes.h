// SPDX-License-Identifier: Apache-2.0
// Other hash functions over the same bytes, to hold the tables' hash against. Written here in their plain
// form from their published descriptions; none is used by the product.
#pragma once

#include <cstdint>
#include <cstring>
#include <nmmintrin.h>

namespace Peers {

using u8 = unsigned char;
using u32 = std::uint32_t;
using u64 = std::uint64_t;

/// The bytes of a key with those without meaning set to 0, so that functions over whole bytes can be
/// compared.
template <class Key> struct Clean {
   alignas(8) u8 bytes[(sizeof(Key) + 7) / 8 * 8] = {};
   explicit Clean(Key const& key) {
      constexpr unsigned width = sizeof(typename Key::Address);
      auto const* from = reinterpret_cast<u8 const*>(&key);
      std::memcpy(bytes, from, 6 + 2 * width);
      std::memcpy(bytes + 8 + 2 * width, from + 8 + 2 * width, 9);
   }
};

__attribute__((target("sse4.2"))) inline u32 crc32c(u8 const* bytes, unsigned size, u32 seed) {
   u64 crc = seed;
   unsigned at = 0;
   for (; at + 8 <= size; at += 8) {
      u64 word;
      std::memcpy(&word, bytes + at, 8);
      crc = _mm_crc32_u64(crc, word);
   }
   for (; at < size; ++at) crc = _mm_crc32_u8(static_cast<u32>(crc), bytes[at]);
   return static_cast<u32>(crc);
}

inline u32 fnv1a(u8 const* bytes, unsigned size, u32 seed) {
   u32 hash = 0x811c9dc5u ^ seed;
   for (unsigned i = 0; i < size; ++i) hash = (hash ^ bytes[i]) * 0x01000193u;
   return hash;
}

inline u32 rotate(u32 x, unsigned k) { return x << k | x >> (32 - k); }

/// Three 32-bit words mixed by additions, exclusive ors and rotations, 12 bytes a round.
inline u32 lookup3(u8 const* bytes, unsigned size, u32 seed) {
   u32 a = 0xdeadbeefu + size + seed, b = a, c = a;
   u32 w[3];
   unsigned left = size;
   for (; left > 12; left -= 12, bytes += 12) {
      std::memcpy(w, bytes, 12);
      a += w[0], b += w[1], c += w[2];
      a -= c, a ^= rotate(c, 4), c += b;
      b -= a, b ^= rotate(a, 6), a += c;
      c -= b, c ^= rotate(b, 8), b += a;
      a -= c, a ^= rotate(c, 16), c += b;
      b -= a, b ^= rotate(a, 19), a += c;
      c -= b, c ^= rotate(b, 4), b += a;
   }
   u32 tail[3] = {};
   std::memcpy(tail, bytes, left);
   a += tail[0], b += tail[1], c += tail[2];
   c ^= b, c -= rotate(b, 14);
   a ^= c, a -= rotate(c, 11);
   b ^= a, b -= rotate(a, 25);
   c ^= b, c -= rotate(b, 16);
   a ^= c, a -= rotate(c, 4);
   b ^= a, b -= rotate(a, 14);
   c ^= b, c -= rotate(b, 24);
   return c;
}

/// A chain of multiply-rotate steps over 8-byte words with a full final mix (the short-input path of
/// xxHash64).
inline u32 xx64(u8 const* bytes, unsigned size, u32 seed) {
   constexpr u64 p1 = 0x9e3779b185ebca87u, p2 = 0xc2b2ae3d27d4eb4fu, p3 = 0x165667b19e3779f9u,
                 p4 = 0x85ebca77c2b2ae63u, p5 = 0x27d4eb2f165667c5u;
   auto rotate64 = [](u64 x, unsigned k) { return x << k | x >> (64 - k); };
   u64 hash = seed + p5 + size;
   unsigned at = 0;
   for (; at + 8 <= size; at += 8) {
      u64 word;
      std::memcpy(&word, bytes + at, 8);
      hash ^= rotate64(word * p2, 31) * p1;
      hash = rotate64(hash, 27) * p1 + p4;
   }
   for (; at + 4 <= size; at += 4) {
      u32 word;
      std::memcpy(&word, bytes + at, 4);
      hash ^= word * p1;
      hash = rotate64(hash, 23) * p2 + p3;
   }
   hash ^= hash >> 33, hash *= p2;
   hash ^= hash >> 29, hash *= p3;
   return static_cast<u32>(hash ^ hash >> 32);
}

/// What careless code does: the words of the key exclusive-ored together.
inline u32 xorWords(u8 const* bytes, unsigned size, u32 seed) {
   u32 hash = seed;
   for (unsigned at = 0; at + 4 <= size; at += 4) {
      u32 word;
      std::memcpy(&word, bytes + at, 4);
      hash ^= word;
   }
   return hash;
}

} // namespace Peers
