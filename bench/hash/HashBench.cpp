// SPDX-License-Identifier: Apache-2.0
// Speed and quality of the flow keys' hash beside others, on keys as a network makes them.
//
//    hash_bench          prints a table of speed and a table of quality for both families
//
// Speed. "ns/key": independent keys out of the first-level cache, so the processor overlaps them; "latency":
// each key is chosen by the hash before it, which is what a lookup feels. The peers are given their input
// with the meaningless bytes already cleared, which costs the product nothing as it doesn't read them; so the
// comparison favours the peers. The figures mean little on a busy machine: the least of 60 short runs is
// printed.
//
// Quality: see Quality.h. "deviation" is in standard deviations of a random function: values of up to 5 are
// chance. The worst of all key sets is printed, with the set's name, with seed 0 and a drawn one.
#include "FlowTracking/HoFlowKeys.h"
#include "KeySets.h"
#include "PeerHashes.h"
#include "Quality.h"

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>

namespace {

using FlowTracking::BasicHoFlowKey;
using Peers::u32;

template <class Body> double leastNanoseconds(unsigned keys, Body body) {
   double least = 1e9;
   for (unsigned run = 0; run < 60; ++run) {
      auto const start = std::chrono::steady_clock::now();
      constexpr unsigned rounds = 200;
      for (unsigned round = 0; round < rounds; ++round) body();
      std::chrono::duration<double, std::nano> const spent = std::chrono::steady_clock::now() - start;
      least = std::min(least, spent.count() / (double(rounds) * keys));
   }
   return least;
}

/// `hash` is a stateless callable, so that it is inlined as in a table.
template <class Input, class HashOf>
void speed(std::vector<Input> const& inputs, HashOf hash, double out[2]) {
   u32 sum = 0;
   auto const n = static_cast<unsigned>(inputs.size());
   out[0] = leastNanoseconds(n, [&] {
      for (Input const& input : inputs) {
         u32 value = hash(input, 1234567);
         asm volatile("" : "+r"(value)); // one at a time: no vector code, and not away either
         sum += value;
      }
   });
   u32 zero = 0;
   asm volatile("" : "+r"(zero));
   out[1] = leastNanoseconds(n, [&] {
      u32 last = 0;
      for (unsigned i = 0; i < n; ++i) last = hash(inputs[i + (last & zero)], 1234567);
      sum += last;
   });
   asm volatile("" ::"r"(sum));
}

template <class Key> struct Row {
   std::string name;
   double speeds[2];
   std::function<u32(Key const&, u32)> hash;
};

template <class Key, class HashOf> Row<Key> own(char const* name, std::vector<Key> const& keys, HashOf hash) {
   Row<Key> row{name, {}, hash};
   speed(keys, hash, row.speeds);
   return row;
}

template <class Key, class HashOf>
Row<Key> peer(char const* name, std::vector<Key> const& keys, HashOf hash) {
   std::vector<Peers::Clean<Key>> inputs(keys.begin(), keys.end());
   Row<Key> row{name, {}, [hash](Key const& key, u32 seed) {
                   return hash(Peers::Clean<Key>(key).bytes, sizeof(Key), seed);
                }};
   speed(
       inputs, [hash](Peers::Clean<Key> const& key, u32 seed) { return hash(key.bytes, sizeof(Key), seed); },
       row.speeds);
   return row;
}

template <class Key> void family(char const* title) {
   constexpr unsigned count = 1u << 20;
   auto const sets = KeySets::all<Key>(count);
   std::vector<Key> few;
   for (auto const& set : sets) few.insert(few.end(), set.keys.begin(), set.keys.begin() + 28);
   Nimbet::IntfId const intf(7);

   Row<Key> const rows[] = {
       own("flow key", few, [](Key const& key, u32 seed) { return key.hash(seed); }),
       own("flow key + interface", few,
           [intf](Key const& key, u32 seed) { return BasicHoFlowKey<Key>(key, intf).hash(seed); }),
       peer("CRC32C (instruction)", few,
            [](Peers::u8 const* b, unsigned n, u32 s) { return Peers::crc32c(b, n, s); }),
       peer("lookup3", few, [](Peers::u8 const* b, unsigned n, u32 s) { return Peers::lookup3(b, n, s); }),
       peer("xxHash64, short", few,
            [](Peers::u8 const* b, unsigned n, u32 s) { return Peers::xx64(b, n, s); }),
       peer("FNV-1a", few, [](Peers::u8 const* b, unsigned n, u32 s) { return Peers::fnv1a(b, n, s); }),
       peer("xor of words", few,
            [](Peers::u8 const* b, unsigned n, u32 s) { return Peers::xorWords(b, n, s); }),
   };

   std::printf("%s, %u keys a set\n\n", title, count);
   std::printf("| hash | ns/key | latency, ns | worst deviation | in | longest chain | steps a hit | 32-bit "
               "collisions | worst avalanche |\n|---|---|---|---|---|---|---|---|---|\n");
   for (auto const& row : rows) {
      Quality::Spread worst{};
      std::string where = "-";
      double collisions = 0;
      for (auto const& set : sets)
         for (u32 seed : {0u, 0x7c0ffee5u}) {
            std::vector<u32> hashes;
            hashes.reserve(set.keys.size());
            for (auto const& key : set.keys) hashes.push_back(row.hash(key, seed));
            auto const spread = Quality::spread(std::move(hashes));
            if (spread.deviation > worst.deviation) worst = spread, where = set.name;
            collisions = std::max(collisions, spread.collisions);
         }
      auto const& random = sets.back().keys;
      double const avalanche = Quality::worstAvalanche<Key>(
          Quality::meaningfulBytes<Key>(), 8192, [&](unsigned i) { return random[i]; },
          [&](Key const& key) { return row.hash(key, 1); });
      std::printf("| %s | %.2f | %.2f | %.1f | %s | %u | %.2f | %.1f x | %.3f |\n", row.name.c_str(),
                  row.speeds[0], row.speeds[1], worst.deviation, where.c_str(), worst.longest, worst.hitSteps,
                  collisions, avalanche);
      std::fflush(stdout);
   }
   std::printf("\n");
}

} // namespace

int main() {
#ifndef __OPTIMIZE__
   std::fprintf(stderr, "hash_bench: built without optimisation, the speeds mean nothing\n");
#endif
   family<FlowTracking::IpFlowKey>("IPv4");
   family<FlowTracking::Ip6FlowKey>("IPv6");
}
