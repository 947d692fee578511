// SPDX-License-Identifier: Apache-2.0
// Random bytes in random places of all files at once. HOFLOW_SEED sets the seed, which a failure prints;
// HOFLOW_FUZZ_SECONDS how long it goes on, instead of for so many rounds.
#include "Damage.h"

#include <random>

namespace Test {
namespace {

std::string strike(std::mt19937_64& random) {
   Bed bed;
   auto const inside = newReader();
   if (!inside->initialize("before")) return "the sound table is refused: " + inside->initializeError();
   for (auto strikes = 1 + random() % 4; strikes > 0; --strikes) {
      auto file = soundFiles().begin();
      // Mostly where the structure is: slots and heads.
      u64 const which = random() % 8;
      std::advance(file, which < 3 ? 0 : which < 6 ? 3 : which - 5);
      u64 reach = file->second.size();
      if (file->first == "buckets") reach = entryAt(8);
      if (file->first == "slots" && random() % 2) reach = slotAt(12);
      u64 const offset = random() % reach;
      std::string bytes = file->second.substr(offset, 1 + random() % 4);
      if (random() % 3 == 0)
         for (char& byte : bytes) byte = static_cast<char>(random());
      else
         bytes[0] = static_cast<char>(bytes[0] ^ (1 << random() % 8));
      bed.spoil({file->first, offset, bytes});
   }
   if (Seen const seen = read(*inside, soundContent(), bed.spoiled); seen.wrong)
      return "open reader: " + seen.text();
   auto const later = newReader();
   if (later->initialize("after"))
      if (Seen const seen = read(*later, soundContent(), bed.spoiled); seen.wrong)
         return "later reader: " + seen.text();
   Traces traces;
   std::string wrong;
   try {
      wrong = bed.restart(traces);
   } catch (std::exception const& e) {
      wrong = e.what();
   }
   return wrong.empty() ? wrong : "writer: " + wrong + "\n" + traces.text();
}

TEST(Damage, RandomBytes) {
   u64 const seed = setting("HOFLOW_SEED", std::random_device{}());
   u64 const seconds = setting("HOFLOW_FUZZ_SECONDS", 0);
   double const until = Lomi::time() + static_cast<double>(seconds);
   u64 rounds = 0;
   for (; seconds ? Lomi::time() < until : rounds < 2000 / slow; ++rounds) {
      std::mt19937_64 random(seed + rounds);
      ASSERT_EQ(strike(random), "") << "HOFLOW_SEED=" << seed + rounds << " HOFLOW_FUZZ_SECONDS=1";
   }
   EXPECT_GT(rounds, 0u);
}

} // namespace
} // namespace Test
