// SPDX-License-Identifier: Apache-2.0
// The hash of a flow key. It decides in which bucket and where in a chain a row lies, so it is part of the
// table format: whoever changes a constant here makes every existing table unreadable.
//
// What it must be: fast on 64-bit x86 without special instructions; good in its low bits, which choose the
// bucket, and in its high bits, which choose the order in a chain; free of collisions that can be had for
// nothing. Packets choose their own keys, so a linear hash (a CRC, say) would let a sender pile its flows
// into one chain by arithmetic, whatever the seed. Here every input word passes a 64 x 64 -> 128 bit
// multiplication with another input word. Both halves of the product are kept, and each operand is kept
// beside them, so that an operand of 0 or 1 or -1 forgets nothing. The seed enters every multiplication. With
// a secret seed, colliding keys can't be computed without it; with the known seed 0 (keys with an interface)
// it takes the search that any 32-bit hash admits.
//
// Only bytes with a meaning are read. bench/hash measures speed and quality beside other functions.
#pragma once

#include <cstdint>
#include <cstring>

namespace FlowTracking::FlowHash {

using u32 = std::uint32_t;
using u64 = std::uint64_t;
__extension__ using u128 = unsigned __int128;

inline u64 load64(unsigned char const* at) {
   u64 word;
   std::memcpy(&word, at, 8);
   return word;
}

/// Two words that were multiplied into each other.
struct Lane {
   u64 a, b;
};

inline Lane multiply(u64 a, u64 b) {
   auto const product = static_cast<u128>(a) * b;
   return {a ^ static_cast<u64>(product), b ^ static_cast<u64>(product >> 64)};
}

inline u64 fold(u64 a, u64 b) {
   auto const product = static_cast<u128>(a) * b;
   return static_cast<u64>(product) ^ static_cast<u64>(product >> 64);
}

inline u32 finish(u64 a, u64 b) {
   u64 const folded = fold(a, b) + a;
   return static_cast<u32>(folded ^ folded >> 32);
}

// Random odd numbers. The first has a top byte other than 0 where `first` below has 0, so that no key makes
// that operand 0.
constexpr u64 k0 = 0xa0761d6478bd642fu, k1 = 0xe7037ed1a0b428dbu, k2 = 0x8ebc6af09c88c6e3u,
              k3 = 0x589965cc75374cc3u, k4 = 0x1d8e4e27c47d124fu, k5 = 0xeb44accab455d165u,
              k6 = 0x9c6e6877736c46e3u;

inline u64 spread(u32 seed) { return seed * 0x9e3779b97f4a7c15u; }

/// `first`: vrfId, vlanId and direction in the low 7 bytes. `addresses`: source and destination.
/// `ports`: protocol, source port, destination port. They pass one multiplication by a number that the rest
/// of the key chooses. Some such numbers spread counting ports badly, and a change in a top bit would reach
/// few others; so the ports are first multiplied by a constant and folded, beside the first multiplication
/// and at no cost in latency.
inline u32 hash4(u32 seed, u64 first, u64 addresses, u64 ports) {
   u64 const s = spread(seed);
   Lane const lane = multiply(first ^ k0 ^ s >> 8, addresses ^ k1 ^ s);
   return finish(lane.a ^ k2, lane.b ^ fold(ports ^ s, k6) ^ k3);
}

/// The same with addresses of two words each.
inline u32 hash6(u32 seed, u64 first, u64 src0, u64 src1, u64 dst0, u64 dst1, u64 ports) {
   u64 const s = spread(seed);
   Lane const head = multiply(first ^ k0 ^ s >> 8, ports ^ k1 ^ s);
   Lane const src = multiply(src0 ^ k2 ^ s, src1 ^ k3 ^ s >> 8);
   Lane const dst = multiply(dst0 ^ k4 ^ s, dst1 ^ k5 ^ s >> 8);
   return finish(head.a ^ src.a ^ dst.b ^ k6, head.b ^ src.b ^ dst.a);
}

} // namespace FlowTracking::FlowHash
