// SPDX-License-Identifier: Apache-2.0
// What a writer can do to a table, on tables as small as they come: the one list on which the campaigns on
// crashes and on schedules work. Each scenario names its keys by the bucket and the order that their hashes
// give them; a table has few buckets (it was halved down), so chains are long and resizes are near.
#pragma once

#include "Bench.h"

namespace Test {

using Small = Row<3>; // 20 bytes: a 4-byte tail and padding behind it
using Wide = Row<61>; // 252 bytes: 8 slots in the first page
// With a change queue.
using QueuedSmall = Row<3, true>;
using QueuedWide = Row<61, true>;

inline Key key(u32 hashBits, u32 number = 0) { return {hashBits, number}; }
/// Number `i` of a chain of equal hashes.
inline Key twin(u32 i) { return {0x40000002u, i}; }

inline Mirak::MapDescriptor fixedOf(u32 rows) {
   Mirak::MapDescriptor descriptor(rows);
   descriptor.fixedSize = true;
   return descriptor;
}

/// A started table of `buckets` buckets that holds `keys`.
template <class R> typename Scenario<R>::Act holding(u32 buckets, std::vector<Key> keys) {
   return [=](Bench<R>& b) {
      b.start();
      b.shrinkTo(buckets);
      for (Key k : keys) b.put(k);
   };
}

template <class R> typename Scenario<R>::Act puts(Key k, bool overwrite = true) {
   return [=](Bench<R>& b) { b.put(k, overwrite); };
}
template <class R> typename Scenario<R>::Act removes(Key k) {
   return [=](Bench<R>& b) { b.remove(k); };
}
template <class R> typename Scenario<R>::Act starts() {
   return [](Bench<R>& b) { b.start(); };
}

/// Chains of 1 to 4 rows, by different and by equal hashes, and what happens in them.
template <class S = Small> std::vector<Scenario<S>> chainScenarios() {
   std::vector<Scenario<S>> all;
   // Of 4 buckets; the chain of bucket 0 is 0, (8,) 4(, 12).
   std::vector<Key> const mixed = {key(0), key(4), key(2)};
   auto const add = [&](std::string name, std::vector<Key> keys,
                        std::vector<typename Scenario<S>::Act> acts) {
      u32 const buckets = keys.size() > 2 ? 4 : 2; // no growth by the way
      all.push_back({std::move(name), fixedOf(6), holding<S>(buckets, std::move(keys)), std::move(acts)});
   };
   add("insert into an empty chain", {key(1)}, {puts<S>(key(0))});
   add("insert before", mixed, {puts<S>(key(8))});
   add("insert behind", mixed, {puts<S>(key(12))});
   add("insert a twin", {twin(1), twin(3), twin(4)}, {puts<S>(twin(2))});
   add("overwrite", mixed, {puts<S>(key(4))});
   add("leave what is there", mixed, {puts<S>(key(4), false)});
   add("remove first", {twin(1), twin(2), twin(3)}, {removes<S>(twin(1))});
   add("remove middle", {twin(1), twin(2), twin(3)}, {removes<S>(twin(2))});
   add("remove last", {twin(1), twin(2), twin(3)}, {removes<S>(twin(3))});
   add("remove the only one", {key(0), key(1)}, {removes<S>(key(0))});
   add("direct write, new", mixed, {[](Bench<S>& b) { b.directPut(key(8)); }});
   add("direct write, existing", mixed, {[](Bench<S>& b) { b.directPut(key(4)); }});
   add("direct update", mixed, {[](Bench<S>& b) { b.directUpdate(key(4)); }});
   add("scratchpad", mixed, {[](Bench<S>& b) { b.writer().scratchpadIs(7); }});
   return all;
}

/// Tables that change their size.
template <class S = Small> std::vector<Scenario<S>> bucketScenarios() {
   auto const shrinkable = [](Bench<S>& b) { // 8 buckets, 2 rows
      holding<S>(2, {key(0), key(1), key(2), key(3), key(5)})(b);
      for (u32 k : {0, 2, 5}) b.remove(key(k));
   };
   return {
       {"grow buckets", fixedOf(6), holding<S>(2, {key(0), key(1)}), {puts<S>(key(2))}},
       {"grow buckets from 4 to 8",
        fixedOf(6),
        holding<S>(2, {key(1), key(6), key(2), twin(1)}),
        {puts<S>(twin(2))}},
       {"shrink buckets from 8 to 4", fixedOf(6), shrinkable, {removes<S>(key(1))}},
   };
}

template <class W = Wide> std::vector<Scenario<W>> slotScenarios() {
   auto const full = [](u32 buckets) {
      return [=](Bench<W>& b) {
         b.start();
         b.shrinkTo(buckets);
         for (u32 i = 0; i < 8; ++i) b.put(key(i % 4, i));
      };
   };
   return {
       {"grow slots", Mirak::MapDescriptor(4), full(16), {puts<W>(key(5, 8))}},
       {"grow slots twofold", Mirak::MapDescriptor(100), full(16), {puts<W>(key(5, 8))}},
       {"grow slots and buckets", Mirak::MapDescriptor(4), full(8), {puts<W>(key(5, 8))}},
   };
}

/// A table of 16 slots with rows in those that are named, ready to be cut to 8. Each row's number is its
/// slot.
template <class W> typename Scenario<W>::Act sparse(std::vector<u32> slots, Key (*keyOf)(u32)) {
   return [=](Bench<W>& b) {
      Mirak::MapDescriptor keeps(100);
      keeps.shrinkSlots = false;
      b.descriptorIs(keeps);
      b.start();
      b.shrinkTo(16);
      for (u32 i = 0; i < 12; ++i) b.put(keyOf(i));
      for (u32 i = 0; i < 12; ++i)
         if (std::find(slots.begin(), slots.end(), i) == slots.end()) b.remove(keyOf(i));
      b.descriptorIs(Mirak::MapDescriptor(100));
      b.start();
   };
}
/// Numbers against the order of the chain.
inline Key mirrored(u32 i) { return twin(20 - i); }
inline Key apart(u32 i) { return key(i, i); }

/// Tables that give slots back. Each moves rows that follow one another in a chain: downwards with the chain,
/// against it, and behind a row that stays.
template <class W = Wide> std::vector<Scenario<W>> compactionScenarios() {
   Mirak::MapDescriptor const descriptor(100);
   auto const shrinks = [](Bench<W>& b) { b.writer().shrink(); };
   return {
       {"compact a chain", descriptor, sparse<W>({1, 9, 10}, twin), {shrinks}},
       {"compact a chain backwards", descriptor, sparse<W>({8, 9, 10}, mirrored), {shrinks}},
       {"compact buckets apart", descriptor, sparse<W>({2, 8, 11}, apart), {shrinks}},
       {"remove, compact, halve the buckets",
        descriptor,
        sparse<W>({2, 8, 9, 10}, twin),
        {removes<W>(twin(10))}},
   };
}
/// A slot that was cut off comes back, with the word that it had and another row.
template <class W = Wide> Scenario<W> compactAndGrowAgain() {
   std::vector<typename Scenario<W>::Act> acts = {[](Bench<W>& b) { b.writer().shrink(); }};
   for (u32 i : {31u, 32u, 33u, 34u, 35u, 36u}) acts.push_back(puts<W>(twin(i)));
   return {"compact and grow again", Mirak::MapDescriptor(100), sparse<W>({1, 8, 9}, twin), std::move(acts)};
}

/// Two acts in turn, between which nothing may be mixed up.
template <class S = Small> std::vector<Scenario<S>> pairScenarios() {
   std::vector<Key> const three = {twin(1), twin(2), twin(3)};
   std::vector<Key> const apart = {key(0), key(4), key(2)};
   std::vector<Scenario<S>> all = {
       {"overwrite twice", fixedOf(4), holding<S>(4, apart), {puts<S>(key(4)), puts<S>(key(4))}},
       {"remove and insert another into the slot",
        fixedOf(4),
        holding<S>(4, apart),
        {removes<S>(key(4)), puts<S>(key(1))}},
       {"remove and insert the same again",
        fixedOf(4),
        holding<S>(4, apart),
        {removes<S>(key(4)), puts<S>(key(4))}},
       {"remove behind, insert ahead",
        fixedOf(3),
        holding<S>(4, three),
        {removes<S>(twin(1)), puts<S>(twin(4))}},
       {"remove ahead, insert behind",
        fixedOf(4),
        holding<S>(4, {twin(2), twin(3), twin(4)}),
        {removes<S>(twin(4)), puts<S>(twin(1))}},
       {"remove both neighbours",
        fixedOf(4),
        holding<S>(4, three),
        {removes<S>(twin(1)), removes<S>(twin(2))}},
   };
   auto const shrinkable = [](Bench<S>& b) { // 8 buckets, 2 rows, about to be 4
      holding<S>(2, {key(0), key(1), key(2), key(3), key(5)})(b);
      for (u32 k : {0, 2, 5}) b.remove(key(k));
   };
   all.push_back({"shrink and grow again",
                  fixedOf(6),
                  shrinkable,
                  {removes<S>(key(1)), puts<S>(key(7)), puts<S>(key(5)), puts<S>(key(1)), puts<S>(key(0))}});
   all.push_back({"grow twice",
                  fixedOf(6),
                  holding<S>(2, {key(0), key(1)}),
                  {puts<S>(key(2)), puts<S>(key(3)), puts<S>(key(4))}});
   return all;
}

/// A dead writer's table of four rows, spoiled by `damage`, and a start on it.
template <class S = Small>
Scenario<S> startOn(std::string name, std::function<void(Bench<S>&)> damage, bool visible = false) {
   return {std::move(name),
           fixedOf(4),
           [=](Bench<S>& b) {
              holding<S>(4, {key(0), key(1), key(2), twin(1)})(b);
              b.die();
              damage(b);
           },
           {starts<S>()},
           true,
           visible};
}

template <class S = Small> std::vector<Scenario<S>> lifeScenarios() {
   auto const four = holding<S>(4, {key(0), key(1), key(2), twin(1)});
   constexpr std::size_t flags = offsetof(Mirak::SlotTableHeader, runtimeFlags);
   return {
       {"first start", fixedOf(4), [](Bench<S>&) {}, {starts<S>()}, true},
       {"detach", fixedOf(4), four, {[](Bench<S>& b) { b.writer().detach(false); }}},
       {"restart, adopt",
        fixedOf(4),
        [=](Bench<S>& b) {
           four(b);
           b.die();
        },
        {starts<S>()},
        true},
       {"cleanup",
        fixedOf(4),
        four,
        {[](Bench<S>& b) {
           b.writer().cleanup();
           b.content.clear();
        }},
        true},
       startOn<S>("re-format: died inside an operation", [](Bench<S>& b) { b.poke("slots", flags, "\1"); }),
       startOn<S>(
           "re-format: foreign slot file", [](Bench<S>& b) { b.poke("slots", 12, "\7\7\7\7"); }, true),
       startOn<S>(
           "re-format: foreign bucket file", [](Bench<S>& b) { b.poke("buckets", 12, "\7\7\7\7"); }, true),
       startOn<S>(
           "re-format: damaged header", [](Bench<S>& b) { b.poke("slots", 0, "X"); }, true),
       startOn<S>("re-format: damaged owner file", [](Bench<S>& b) { b.poke("owner", 20, "XXXX"); }),
       startOn<S>("re-format: no kestor file", [](Bench<S>& b) { b.unlink("kestor"); }),
       startOn<S>("re-format: no bucket file", [](Bench<S>& b) { b.unlink("buckets"); }),
       startOn<S>("re-format: no slot file", [](Bench<S>& b) { b.unlink("slots"); }),
       startOn<S>("re-format: no owner file", [](Bench<S>& b) { b.unlink("owner"); }),
   };
}

/// A follower that is connected and never says how far it is: the queue keeps what it might need.
struct SilentFollower final : Tessel::Followers {
   void wake() noexcept override {}
   bool anyConnected() const override { return true; }
   Rusk::Sequence reportedByAll() const override { return 0; }
   u64 clientQuiesced(std::string const&, Rusk::Sequence) override { return 0; }
};

/// What only the queue of a table does: its turns, and compactions whose entries stay for a follower.
template <class S = QueuedSmall> std::vector<Scenario<S>> turnScenarios() {
   std::vector<typename Scenario<S>::Act> changes;
   for (u32 i = 0; i < 24; ++i) changes.push_back(i % 8 == 7 ? removes<S>(key(i % 4)) : puts<S>(key(i % 4)));
   return {{"queue turns", fixedOf(6), holding<S>(4, {key(0), key(3), key(2)}), std::move(changes)}};
}
template <class W = QueuedWide> Scenario<W> compactBesideAFollower() {
   static SilentFollower follower;
   return {"compact beside a follower",
           Mirak::MapDescriptor(100),
           sparse<W>({1, 8, 9, 10}, twin),
           {[](Bench<W>& b) {
               b.writer().queue().tesselWriter.followersIs(&follower);
               b.remove(twin(9));
            },
            puts<W>(twin(10)), removes<W>(twin(1)), puts<W>(twin(9))}};
}

} // namespace Test
