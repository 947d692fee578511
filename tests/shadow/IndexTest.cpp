// SPDX-License-Identifier: Apache-2.0
// The index of a copy under thousands of rows that come, go and change, while its memory moves with every
// resize: the order of walks, lookups, the sizes.
#include "Dice.h"
#include "Support.h"

#include <numeric>
#include <set>

namespace Test {
namespace {

/// The map alone, over slots of its own.
class Index {
public:
   using Slot = Mirak::ValueShadowSlot<ShadowOps>;

   explicit Index(u32 slots)
      : counters_()
      , slotCounters_(8)
      , memory_(quiet())
      , base_(reinterpret_cast<Slot*>(memory_.attach(slots * sizeof(Slot))))
      , map(quiet(), counters_, slotCounters_, ops_, base_) {
      map.initialize();
   }
   bool write(u32 slot, Key key) {
      base_[slot].value = R::make(key, 1);
      return map.write(slot, base_[slot], true);
   }
   bool remove(u32 slot) { return map.remove(slot, base_[slot]); }
   bool dead(u32 slot) const { return base_[slot].dead(); }
   Slot const* slotAt(u32 slot) const { return &base_[slot]; }
   /// Moves the slots in memory.
   void move(u32 slots) {
      Slot* const old = base_;
      base_ = reinterpret_cast<Slot*>(memory_.resize(slots * sizeof(Slot)));
      ASSERT_NE(base_, old);
      map.patch(reinterpret_cast<char*>(base_) - reinterpret_cast<char*>(old));
   }
   /// Called with what a walk will reach soon.
   static void coming(Slot const& slot) { ASSERT_FALSE(slot.dead()); }
   /// The keys in order, by hints and without them.
   std::vector<Key> walk(bool hints) {
      std::vector<Key> keys;
      for (Slot* slot = map.first(0, coming); slot;
           slot = map.next(slot->rowKey(), hints ? slot : nullptr, coming))
         keys.push_back(slot->rowKey());
      return keys;
   }
   u32 members() const { return counters_.members; }
   u32 largest() const { return slotCounters_.largestOccupied(); }

private:
   Mirak::Reader::Counters counters_;
   Mirak::SlotCounters slotCounters_;
   ShadowOps ops_;
   Mem::Local memory_;
   Slot* base_;

public:
   Mirak::ShadowHashMap<Slot> map;
};

TEST(ShadowHashMapTest, KeepsItsOrderWhateverComesAndGoes) {
   MovingMemory const moving;
   constexpr u32 slots = 3000;
   Dice dice(setting("HOFLOW_SHADOW_SEED", 7));
   Index index(slots);
   auto const less = [](Key a, Key b) { return before(a, b, 0); };
   std::map<Key, u32, decltype(less)> wanted(less);
   std::set<u32> free;
   for (u32 i = 0; i < slots; ++i) free.insert(i);
   u32 most = 0;
   for (u32 step = 0; step < 40'000; ++step) {
      bool const filling = step / 8000 % 2 == 0;
      if (dice.below(10) < (filling ? 8u : 1u) && !free.empty()) {
         // Few different hashes, so that chains are long and equal hashes are common.
         u32 const number = dice.below(4000);
         Key const key{dice.oneIn(3) ? number / 16 : number * 0x9e3779b1u, number};
         u32 const slot =
             *std::next(free.begin(), dice.below(std::min<u32>(20, static_cast<u32>(free.size()))));
         auto const [at, fresh] = wanted.try_emplace(key, slot);
         EXPECT_EQ(index.write(slot, key), fresh) << "a row that only moved hasn't changed";
         free.erase(slot);
         if (!fresh) {
            EXPECT_TRUE(index.dead(at->second));
            free.insert(std::exchange(at->second, slot));
         }
      } else if (!wanted.empty()) {
         auto const at = std::next(wanted.begin(), dice.below(static_cast<u32>(wanted.size())));
         EXPECT_TRUE(index.remove(at->second));
         EXPECT_FALSE(index.remove(at->second)) << "it is dead by now";
         free.insert(at->second);
         wanted.erase(at);
      }
      most = std::max(most, index.map.numBuckets());
      ASSERT_EQ(index.members(), wanted.size());
      ASSERT_GE(index.map.numBuckets(), 2u);
      ASSERT_LE(index.members(), index.map.numBuckets());
      ASSERT_TRUE(index.map.numBuckets() == 2 || index.members() > index.map.numBuckets() / 4);
      if (dice.oneIn(500)) index.move(slots);
      if (step % 199 != 0) continue;
      std::vector<Key> keys;
      u32 largest = 0;
      for (auto const& [key, slot] : wanted) {
         keys.push_back(key);
         largest = std::max(largest, slot);
         ASSERT_NE(index.map.find(key), nullptr);
      }
      ASSERT_EQ(index.walk(true), keys);
      ASSERT_EQ(index.walk(false), keys);
      ASSERT_TRUE(keys.empty() ? index.largest() == 0
                               : index.largest() > largest && index.largest() <= std::max(8u, 2 * largest))
          << index.largest() << " for " << largest;
      Key const absent{dice.below(4000) * 0x9e3779b1u, 1u << 20};
      auto const after = wanted.upper_bound(absent);
      auto const* const hint = index.slotAt(dice.below(slots)); // of another key, or dead
      auto* const next = index.map.next(absent, hint, Index::coming);
      ASSERT_EQ(next == nullptr, after == wanted.end());
      ASSERT_TRUE(!next || next->rowKey() == after->first);
      ASSERT_EQ(index.map.find(absent), nullptr);
   }
   EXPECT_GE(most, 1024u);
}

} // namespace
} // namespace Test
