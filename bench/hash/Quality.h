// SPDX-License-Identifier: Apache-2.0
// How evenly a hash spreads keys, in numbers that can be held against a random function.
//
// A table finds a key's bucket in the low bits of its hash and its place in the chain by the reversed bits,
// that is, again by the low bits first; with as many buckets as keys, chain lengths should be those of a
// Poisson distribution with mean 1.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

namespace Quality {

struct Spread {
   double deviation;  // of the sum of squared chain lengths from a random function's, in standard deviations
   unsigned longest;  // longest chain
   double hitSteps;   // mean slots looked at by a successful lookup; 1.5 for a random function at load 1
   double collisions; // pairs of keys with the same 32-bit hash, as a multiple of what is to be expected
};

/// Spreads hashes over as many buckets as there are hashes, rounded down to a power of two, by their low bits
/// (`shift` 0) or by the bits from `shift` on.
inline Spread spread(std::vector<std::uint32_t> hashes, unsigned shift = 0) {
   auto const n = static_cast<double>(hashes.size());
   std::uint32_t const buckets = std::bit_floor(static_cast<std::uint32_t>(hashes.size()));
   std::vector<std::uint32_t> chains(buckets);
   for (auto hash : hashes) ++chains[hash >> shift & (buckets - 1)];
   double squares = 0;
   for (double length : chains) squares += length * length;
   double const m = buckets;
   // Sum of squares for n balls in m urns: mean n + n(n-1)/m, variance 2 n(n-1)(m-1)/m^2.
   double const mean = n + n * (n - 1) / m, variance = 2 * n * (n - 1) * (m - 1) / (m * m);
   Spread result{};
   result.deviation = (squares - mean) / std::sqrt(variance);
   result.longest = *std::max_element(chains.begin(), chains.end());
   result.hitSteps = (squares + n) / (2 * n);
   std::sort(hashes.begin(), hashes.end());
   double pairs = 0;
   for (std::size_t i = 0, run = 0; i < hashes.size(); ++i) {
      run = i && hashes[i] == hashes[i - 1] ? run + 1 : 0;
      pairs += static_cast<double>(run);
   }
   result.collisions = pairs / (n * (n - 1) / 2 / 4294967296.0);
   return result;
}

/// Flips every bit of the bytes listed in `meaningful`, one at a time, in `samples` keys made by `make(i)`,
/// and returns the largest distance from 1/2 of the share in which an output bit changed.
template <class Key, class Make, class HashOf>
double worstAvalanche(std::vector<unsigned> const& meaningful, unsigned samples, Make make, HashOf hashOf) {
   double worst = 0;
   for (unsigned byte : meaningful)
      for (unsigned bit = 0; bit < 8; ++bit) {
         unsigned changed[32] = {};
         for (unsigned i = 0; i < samples; ++i) {
            Key key = make(i);
            std::uint32_t const before = hashOf(key);
            unsigned char bytes[sizeof(Key)];
            std::memcpy(bytes, static_cast<void const*>(&key), sizeof(Key));
            bytes[byte] ^= static_cast<unsigned char>(1u << bit);
            std::memcpy(static_cast<void*>(&key), bytes, sizeof(Key));
            std::uint32_t const difference = before ^ hashOf(key);
            for (unsigned out = 0; out < 32; ++out) changed[out] += difference >> out & 1;
         }
         for (unsigned out = 0; out < 32; ++out)
            worst = std::max(worst, std::abs(double(changed[out]) / samples - 0.5));
      }
   return worst;
}

/// The byte offsets of a flow key that carry meaning. Of the protocol only the low byte: others stay 0 in
/// traffic.
template <class Key> std::vector<unsigned> meaningfulBytes() {
   constexpr unsigned width = sizeof(typename Key::Address);
   std::vector<unsigned> offsets;
   for (unsigned i = 0; i < 6 + 2 * width; ++i) offsets.push_back(i);
   offsets.push_back(8 + 2 * width);
   for (unsigned i = 12 + 2 * width; i <= 16 + 2 * width; ++i) offsets.push_back(i);
   return offsets;
}

} // namespace Quality
