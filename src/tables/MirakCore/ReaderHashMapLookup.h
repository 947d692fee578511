// SPDX-License-Identifier: Apache-2.0
// The chain walk of ReaderHashMap, the lookup on top of it, and the checks that all walks share. Included by
// ReaderHashMap.h, which says what is guaranteed; walks over the whole table are in ReaderHashMapWalk.h.
//
// One pass over a chain. The walk stands on a link (a bucket's head, or the last slot's link) and reads the
// slot behind it. Whatever it then wants to believe of that slot, it first asks whether the link still
// stands:
//
//   (1) count the slot; no chain is longer than the table
//   (2) read the row's front under its sequence word, and the rest if the row is the one that is wanted
//   (3) the link moved: start over
//   (4) the link stands, and the slot is not occupied: damage, or a resize
//   (5) the row ends the walk: ask the link once more; then found, or passed and absent
//   (6) load the slot's own link
//   (7) ask the old link once more: only then was (6) loaded while the slot was in this chain
//   (8) the row that is passed must belong to this bucket
//   (9) stand on the slot's link
#pragma once

#include "MirakCore/ReaderHashMap.h"

namespace MirakCore {

template <class Owner>
template <ReaderErrors::Walk walk, class Judge>
auto ReaderHashMap<Owner>::walkChain(u32 bucket, unsigned char* value, Judge const& judge) const -> Chain {
   bool excess = false;
   for (;;) {
      Chain const chain = passChain<walk>(bucket, value, judge, excess);
      if (chain.outcome != Outcome::restart) [[likely]]
         return chain;
      ++reader_->counters_.retries;
   }
}

/// One pass from the head of `bucket`. `judge(rhash, key)` says what to do with a row; it may be asked about
/// bytes that turn out to be torn, so it must only compare.
template <class Owner>
template <ReaderErrors::Walk walk, class Judge>
[[gnu::always_inline]] inline auto ReaderHashMap<Owner>::passChain(u32 bucket, unsigned char* value,
                                                                   Judge const& judge, bool& excess) const
    -> Chain {
   SlotTable const& table = reader_->slots_;
   typename SlotTable::Slots const slots = table.slots();
   alignas(8) unsigned char front[SlotTable::frontBytes];
   Key const& slotKey = *reinterpret_cast<Key const*>(front);

   Place place(buckets_.entries()[bucket]);
   u32 slotCount = 0;
   while (!place.ends()) {
      // (1) A loop; or a writer that removes behind a slow reader and inserts ahead of it, in one long chain:
      // a second pass tells them apart.
      if (++slotCount > slots.count) [[unlikely]] {
         if (excess || slots.count == 0) ReaderErrors::slotCycle(slotCount, slots.count);
         excess = true;
         return {Outcome::restart};
      }
      // (2)
      u32 const index = place.link.next;
      Slot const& slot = slots[index];
      LookAhead<Slot>::prefetchRest(slot);
      Step step = Step::pass;
      auto const read = table.readSlot(slot, front, value + SlotTable::frontBytes, [&](u32 rhash) {
         step = judge(rhash, slotKey);
         return step == Step::take;
      });
      // (3)
      if (!place.stands()) [[unlikely]]
         return {Outcome::restart};
      // (4)
      if (!read.occupied()) [[unlikely]]
         ReaderErrors::notOccupied(walk, index, bytesOf(slotKey), slotCount);
      // (5)
      if (step != Step::pass) {
         if (!place.stands()) [[unlikely]]
            return {Outcome::restart};
         if (step == Step::take) {
            std::memcpy(value, front, SlotTable::frontBytes);
            return {Outcome::found, index, read.word, read.rhash};
         }
         checkKey(walk, slotKey, bucket);
         return {Outcome::absent};
      }
      // (6)
      Place const next(slot.link);
      // (7)
      if (!place.stands()) [[unlikely]]
         return {Outcome::restart};
      // (8)
      checkKey(walk, slotKey, bucket);
      // (9)
      place = next;
   }
   return {Outcome::chainEnd, 0, 0, 0, place.link.next};
}

template <class Owner>
[[gnu::flatten]] auto ReaderHashMap<Owner>::lookup(Key const& key, bool& found, void* buffer) const
    -> Value const* {
   found = false;
   u32 const numBuckets = buckets_.numBuckets();
   if (numBuckets == 0) [[unlikely]] {
      LOMI_TRACE(debugHandler_, 5, "ReaderHashMap", "bucket table detached");
      return &Ops::typeDefault();
   }
   // Computed once: after a resize it is the wrapper that begins a new lookup.
   u32 const hash = reader_->ops_.hash(key);
   u32 const bucket = hash & (numBuckets - 1);
   u32 const target = Lomi::Util::reverse(hash);
   auto* const value = static_cast<unsigned char*>(buffer ? buffer : &reader_->buffer_);
   Chain const chain = walkChain<Walk::lookup>(bucket, value, [&key, target](u32 rhash, Key const& slotKey) {
      if (rhash < target) return Step::pass;
      if (rhash > target) return Step::absent;
      if (slotKey == key) return Step::take;
      return key < slotKey ? Step::absent : Step::pass;
   });
   if (chain.outcome == Outcome::found) {
      found = true;
      return reinterpret_cast<Value const*>(value);
   }
   // A chain that ends must name a bucket that exists.
   if (chain.outcome == Outcome::chainEnd && chain.endLink != Mirak::noSlot)
      (void)buckets_[Mirak::nextBucketOf(chain.endLink)];
   buckets_.checkResize();
   return &Ops::typeDefault();
}

/// Whether a key of that hash may stand in the chain of `bucket`. The walk may overlap a halving or doubling
/// of the bucket table, so the two neighbouring sizes are right, too.
template <class Owner>
[[gnu::always_inline]] inline bool ReaderHashMap<Owner>::belongs(u32 hash, u32 bucket) const {
   u32 const mask = buckets_.numBuckets() - 1;
   if ((hash & mask) == bucket) [[likely]]
      return true;
   return (mask != 0 && (hash & mask >> 1) == bucket) || (hash & (mask << 1 | 1)) == bucket;
}

/// @return the key's hash; @throws Lomi::CorruptionDetectedException when the key is in the wrong chain
template <class Owner>
[[gnu::always_inline]] inline u32 ReaderHashMap<Owner>::checkKey(Walk walk, Key const& key,
                                                                 u32 bucket) const {
   u32 const hash = reader_->ops_.hash(key);
   if (!belongs(hash, bucket)) [[unlikely]]
      ReaderErrors::corruptKey(walk, bytesOf(key), bucket);
   return hash;
}

template <class Owner> inline void ReaderHashMap<Owner>::verifyNextBucket(u32 bucket, u32 next) const {
   u32 const bits = buckets_.bits();
   u32 const mask = buckets_.numBuckets() - 1;
   if (next == (bitReversePermute(bucket, bits) & mask)) [[likely]]
      return;
   // A grow or shrink under way: the successor at half or at twice the size.
   if (mask != 0 && next == (bitReversePermute(bucket, bits - 1) & mask >> 1)) return;
   if (next == (bitReversePermute(bucket, bits + 1) & (mask << 1 | 1))) return;
   ReaderErrors::badNextBucket(bucket, next, buckets_.numBuckets());
}

} // namespace MirakCore
