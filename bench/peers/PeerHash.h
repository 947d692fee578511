// SPDX-License-Identifier: Apache-2.0
// The hash given to the peers that ask their caller for one: CRC-32C over the 36 raw bytes by the processor's
// own instruction, the same function that rte_hash uses by default. Five instructions; nobody's own is faster
// here.
#pragma once

#include "core/Row.h"

#include <nmmintrin.h>

namespace Bench {

[[gnu::target("sse4.2")]] inline u32 peerHash(Key const& key) {
   u64 words[4];
   u32 tail;
   std::memcpy(words, &key, 32);
   std::memcpy(&tail, reinterpret_cast<char const*>(&key) + 32, 4);
   u64 crc = 0;
   for (u64 const word : words) crc = _mm_crc32_u64(crc, word);
   return _mm_crc32_u32(static_cast<u32>(crc), tail);
}

inline bool sameKey(Key const& left, Key const& right) {
   return std::memcmp(&left, &right, sizeof left) == 0;
}

} // namespace Bench
