// SPDX-License-Identifier: Apache-2.0
// The keys' hash spreads keys as a network makes them no worse than a random function, in its low bits, in
// its high bits, and under several seeds. Every bound is also shown to reject a hash that deserves it, or it
// would be worth nothing. Keys and seeds are fixed, so a result never changes from run to run. About two
// seconds.
#include "FlowTracking/HoFlowKeys.h"
#include "KeySets.h"
#include "PeerHashes.h"
#include "Quality.h"

#include <gtest/gtest.h>

namespace FlowTracking {
namespace {

constexpr unsigned setSize = 1u << 16;
constexpr double chance = 6; // standard deviations: some 200 figures are looked at, 5 may occur by chance
constexpr unsigned seeds[] = {0, 1, 0x6b8b4567, 0xffffffff};

template <class Key, class HashOf>
double worstDeviation(KeySets::Set<Key> const& set, HashOf hashOf, bool highBits = false) {
   double worst = -1e9;
   for (unsigned seed : seeds) {
      std::vector<std::uint32_t> hashes;
      for (auto const& key : set.keys) hashes.push_back(hashOf(key, seed));
      unsigned const used = static_cast<unsigned>(std::bit_width(hashes.size())) - 1;
      worst = std::max(worst, Quality::spread(hashes, highBits ? 32 - used : 0).deviation);
   }
   return worst;
}

template <class Key> class HashQuality : public testing::Test {};
using Keys = testing::Types<IpFlowKey, Ip6FlowKey>;
TYPED_TEST_SUITE(HashQuality, Keys);

TYPED_TEST(HashQuality, ChainsAreThoseOfARandomFunction) {
   for (auto const& set : KeySets::all<TypeParam>(setSize)) {
      auto plain = [](TypeParam const& key, unsigned seed) { return key.hash(seed); };
      auto onInterface = [](TypeParam const& key, unsigned seed) {
         return BasicHoFlowKey<TypeParam>(key, Nimbet::IntfId(seed & 7)).hash(seed);
      };
      EXPECT_LT(worstDeviation(set, plain), chance) << set.name;
      EXPECT_LT(worstDeviation(set, plain, true), chance) << set.name << ", high bits";
      EXPECT_LT(worstDeviation(set, onInterface), chance) << set.name << ", on an interface";
      EXPECT_LT(worstDeviation(set, onInterface, true), chance) << set.name << ", on an interface, high bits";
   }
}

TYPED_TEST(HashQuality, TheBoundRejectsBadHashes) {
   double xored = 0, fnv = 0, highOnly = 0;
   for (auto const& set : KeySets::all<TypeParam>(setSize)) {
      using Peers::Clean;
      xored = std::max(xored, worstDeviation(set, [](TypeParam const& key, unsigned seed) {
                          return Peers::xorWords(Clean<TypeParam>(key).bytes, sizeof(TypeParam), seed);
                       }));
      fnv = std::max(fnv, worstDeviation(set, [](TypeParam const& key, unsigned seed) {
                        return Peers::fnv1a(Clean<TypeParam>(key).bytes, sizeof(TypeParam), seed);
                     }));
      // A good hash shifted by three: its low bits carry all there is, its high bits lack three.
      highOnly = std::max(
          highOnly, worstDeviation(
                        set, [](TypeParam const& key, unsigned seed) { return key.hash(seed) >> 3; }, true));
   }
   EXPECT_GT(xored, 100 * chance);
   EXPECT_GT(fnv, chance);
   EXPECT_GT(highOnly, 100 * chance);
}

TYPED_TEST(HashQuality, EachInputBitChangesEachOutputBitHalfOfTheTime) {
   constexpr unsigned samples = 4096;
   constexpr double bound = 0.5 * 6 / 64; // six standard deviations of a fair coin's share in 4096 throws
   auto const keys = KeySets::all<TypeParam>(samples);
   auto const meaningful = Quality::meaningfulBytes<TypeParam>();
   for (auto const& set : keys) {
      if (set.keys.size() < samples) continue;
      auto make = [&](unsigned i) { return set.keys[i]; };
      EXPECT_LT(Quality::worstAvalanche<TypeParam>(meaningful, samples, make,
                                                   [](TypeParam const& key) { return key.hash(0); }),
                bound)
          << set.name;
   }
   auto make = [&](unsigned i) { return keys.back().keys[i]; };
   EXPECT_GT(Quality::worstAvalanche<TypeParam>(meaningful, samples, make,
                                                [](TypeParam const& key) {
                                                   return Peers::fnv1a(Peers::Clean<TypeParam>(key).bytes,
                                                                       sizeof(TypeParam), 0);
                                                }),
             bound)
       << "the bound must reject a hash whose last bytes reach no low bit but their own";
}

} // namespace
} // namespace FlowTracking
