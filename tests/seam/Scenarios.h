// SPDX-License-Identifier: Apache-2.0
// What a writer can do to a table, on tables as small as they come: the one list on which the campaigns on
// crashes and on schedules work. Each scenario names its keys by the bucket and the order that their hashes
// give them; a table has few buckets (it was halved down), so chains are long and resizes are near.
#pragma once

#include "Bench.h"

namespace Test {

using Small = Row<3>; // 20 bytes: a 4-byte tail and padding behind it
using Wide = Row<61>; // 252 bytes: 8 slots in the first page

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
inline std::vector<Scenario<Small>> chainScenarios() {
   using S = Small;
   std::vector<Scenario<S>> all;
   // Of 4 buckets; the chain of bucket 0 is 0, (8,) 4(, 12).
   std::vector<Key> const mixed = {key(0), key(4), key(2)};
   auto const add = [&](std::string name, std::vector<Key> keys, std::vector<Scenario<S>::Act> acts) {
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
inline std::vector<Scenario<Small>> bucketScenarios() {
   using S = Small;
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

inline std::vector<Scenario<Wide>> slotScenarios() {
   using W = Wide;
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
inline Scenario<Wide>::Act sparse(std::vector<u32> slots, Key (*keyOf)(u32)) {
   return [=](Bench<Wide>& b) {
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
inline std::vector<Scenario<Wide>> compactionScenarios() {
   using W = Wide;
   Mirak::MapDescriptor const descriptor(100);
   auto const shrinks = [](Bench<W>& b) { b.writer().shrink(); };
   return {
       {"compact a chain", descriptor, sparse({1, 9, 10}, twin), {shrinks}},
       {"compact a chain backwards", descriptor, sparse({8, 9, 10}, mirrored), {shrinks}},
       {"compact buckets apart", descriptor, sparse({2, 8, 11}, apart), {shrinks}},
       {"remove, compact, halve the buckets",
        descriptor,
        sparse({2, 8, 9, 10}, twin),
        {removes<W>(twin(10))}},
   };
}
/// A slot that was cut off comes back, with the word that it had and another row.
inline Scenario<Wide> compactAndGrowAgain() {
   std::vector<Scenario<Wide>::Act> acts = {[](Bench<Wide>& b) { b.writer().shrink(); }};
   for (u32 i : {31u, 32u, 33u, 34u, 35u, 36u}) acts.push_back(puts<Wide>(twin(i)));
   return {"compact and grow again", Mirak::MapDescriptor(100), sparse({1, 8, 9}, twin), std::move(acts)};
}

/// Two acts in turn, between which nothing may be mixed up.
inline std::vector<Scenario<Small>> pairScenarios() {
   using S = Small;
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
inline Scenario<Small> startOn(std::string name, std::function<void(Bench<Small>&)> damage,
                               bool visible = false) {
   return {std::move(name),
           fixedOf(4),
           [=](Bench<Small>& b) {
              holding<Small>(4, {key(0), key(1), key(2), twin(1)})(b);
              b.die();
              damage(b);
           },
           {starts<Small>()},
           true,
           visible};
}

inline std::vector<Scenario<Small>> lifeScenarios() {
   using S = Small;
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
       startOn("re-format: died inside an operation", [](Bench<S>& b) { b.poke("slots", flags, "\1"); }),
       startOn(
           "re-format: foreign slot file", [](Bench<S>& b) { b.poke("slots", 12, "\7\7\7\7"); }, true),
       startOn(
           "re-format: foreign bucket file", [](Bench<S>& b) { b.poke("buckets", 12, "\7\7\7\7"); }, true),
       startOn(
           "re-format: damaged header", [](Bench<S>& b) { b.poke("slots", 0, "X"); }, true),
       startOn("re-format: damaged owner file", [](Bench<S>& b) { b.poke("owner", 20, "XXXX"); }),
       startOn("re-format: no kestor file", [](Bench<S>& b) { b.unlink("kestor"); }),
       startOn("re-format: no bucket file", [](Bench<S>& b) { b.unlink("buckets"); }),
       startOn("re-format: no slot file", [](Bench<S>& b) { b.unlink("slots"); }),
       startOn("re-format: no owner file", [](Bench<S>& b) { b.unlink("owner"); }),
   };
}

} // namespace Test
