// SPDX-License-Identifier: Apache-2.0
// The walk over a whole table: first, and next by hint (fast) or by key (slow). Included by ReaderHashMap.h,
// which says what is guaranteed; the walk of one chain is in ReaderHashMapLookup.h.
//
// Why a walk ends, whatever the files hold. A row is returned by next only if its stored place in the order
// is the one that its key has, and above the last row's, and the chain goes on to none but the successor of
// its bucket, never back to bucket 0. So rows ascend within a chain, and chains advance.
//
// Speed: LookAhead.h.
#pragma once

#include "MirakCore/ReaderHashMap.h"

namespace MirakCore {

/// The bucket that the end link of `bucket`'s chain names, checked.
template <class Owner> inline u32 ReaderHashMap<Owner>::successor(u32 bucket, u32 endLink) const {
   u32 const next = Mirak::nextBucketOf(endLink);
   // Bucket 0 begins the walk and follows nobody, at any size. The last chain ends in noSlot.
   if (next == 0) [[unlikely]]
      ReaderErrors::badNextBucket(bucket, next, buckets_.numBuckets());
   verifyNextBucket(bucket, next);
   return next;
}

template <class Owner>
[[gnu::flatten]] bool ReaderHashMap<Owner>::first(u32 bucket, Value& value, IterHint& hint) const {
   u32 const numBuckets = buckets_.numBuckets();
   if (numBuckets == 0) [[unlikely]] {
      LOMI_TRACE(debugHandler_, 5, "ReaderHashMap", "bucket table detached");
      return false;
   }
   SlotTable const& table = reader_->slots_;
   LookAhead<Slot> const ahead(table.slots().base, table.slots().count);
   u32 bucketCount = 0;
   for (;;) { // a restart goes on from the bucket that was reached
      Place head(buckets_[bucket]);
      ahead.from(buckets_.entries(), buckets_.bits(), bucket);
      // (1) Step over empty buckets.
      while (head.ends()) {
         if (head.link.next == Mirak::noSlot) {
            verifyNextBucket(bucket, 0);
            LOMI_TRACE(debugHandler_, 8, "ReaderHashMap", "none found!");
            return false;
         }
         if (++bucketCount >= numBuckets) [[unlikely]]
            ReaderErrors::bucketCycle(bucketCount, numBuckets);
         bucket = successor(bucket, head.link.next);
         head = Place(buckets_[bucket]);
         ahead.from(buckets_.entries(), buckets_.bits(), bucket);
      }
      // (2) Read the row, then ask whether the head still stands.
      u32 const index = head.link.next;
      auto const read = table.getValue(index, value);
      if (!head.stands()) [[unlikely]] {
         ++reader_->counters_.retries;
         continue;
      }
      // (3) It does: then the slot must be occupied by a row of this bucket.
      Key const& found = Ops::key(value);
      if (!read.occupied()) [[unlikely]]
         ReaderErrors::notOccupied(Walk::first, index, bytesOf(found), 0);
      checkKey(Walk::first, found, bucket);
      hint = {read.word, index, bucket};
      LOMI_TRACE(debugHandler_, 9, "ReaderHashMap", "{} found at bucket {}, saving {}", Mirak::keyText(found),
                 bucket, hint);
      ahead.prefetchBehind(table.slots().base[index].link);
      return true;
   }
}

template <class Owner> bool ReaderHashMap<Owner>::next(Key const& key, Value& value, IterHint& hint) const {
   if (hint.slot < reader_->slots_.capacity() && hint.bucket < buckets_.numBuckets()) [[likely]] {
      u32 endLink;
      switch (nextFast(key, value, hint, endLink)) {
      case Fast::found:
         return true;
      case Fast::chainEnd:
         return goOnAfter(Walk::nextFast, key, hint.bucket, endLink, value, hint);
      case Fast::unfit:
         break;
      }
   }
   if (buckets_.numBuckets() == 0) return false; // detached
   return nextSlow(key, value, hint);
}

/// Whether the bucket count has changed since the caller got the hint of this row. Not only this step may
/// have followed the change: any operation of the same reader in between has.
template <class Owner> inline bool ReaderHashMap<Owner>::outdated(u32 rhash, IterHint const& hint) const {
   return bucketOf(Lomi::Util::reverse(rhash)) != hint.bucket;
}

/// Follows the link of the hint's slot. `unfit`: the row there is no longer the one that the caller saw, or
/// the row behind it is not the one that comes next.
template <class Owner>
[[gnu::always_inline]] inline auto ReaderHashMap<Owner>::nextFast(Key const& key, Value& value,
                                                                  IterHint& hint, u32& endLink) const
    -> Fast {
   SlotTable const& table = reader_->slots_;
   Slot const& last = table.slots()[hint.slot];
   // (1) The link first, then the word: if the word is the hint's, the link was that of the hint's row.
   Place const place(last.link);
   // (2) Rewritten, removed or moved since?
   auto const hinted = SlotTable::loadWordAndHash(last);
   if (hinted.word != hint.version) return Fast::unfit;
   // A slot that was cut off and came back counts from the beginning again: the word alone doesn't prove that
   // this is the caller's row.
   if (!(Mirak::loadKey<Key>(last.value) == key)) return Fast::unfit;
   // (3) The last of its chain.
   if (place.ends()) {
      if (!place.stands() || outdated(hinted.rhash, hint)) [[unlikely]]
         return Fast::unfit;
      endLink = place.link.next;
      return Fast::chainEnd;
   }
   // (4) Read the row, then ask whether the link still stands.
   u32 const index = place.link.next;
   auto const read = table.getValue(index, value);
   // (5)
   if (!place.stands()) [[unlikely]]
      return Fast::unfit;
   // (6) A compaction moves the hinted row first: its link moves, its word falls, and only then goes the row
   // behind it. Who loaded the link after the one and the word before the other sees it by the word alone.
   auto const moved = [&] { return SlotTable::loadWordAndHash(last).word != hint.version; };
   Key const& found = Ops::key(value);
   if (!read.occupied()) [[unlikely]] {
      if (moved()) return Fast::unfit;
      ReaderErrors::notOccupied(Walk::nextFast, index, bytesOf(found), 0);
   }
   // (7)
   u32 const hash = reader_->ops_.hash(found);
   if (bucketOf(hash) != hint.bucket) [[unlikely]] {
      if (outdated(hinted.rhash, hint) || moved()) return Fast::unfit;
      checkKey(Walk::nextFast, found, hint.bucket);
   }
   // (8) Rows ascend. One that doesn't means a loop or a damaged place: the slow path, which counts, decides.
   bool const above = read.rhash > hinted.rhash || (read.rhash == hinted.rhash && key < found);
   if (!above || Lomi::Util::reverse(hash) != read.rhash) [[unlikely]]
      return Fast::unfit;
   LOMI_TRACE(debugHandler_, 9, "ReaderHashMap", "{} success {} using {}, saving new slot hint {}",
              Mirak::keyText(key), Mirak::keyText(found), hint, IterHint{read.word, index, hint.bucket});
   hint.version = read.word;
   hint.slot = index;
   LookAhead<Slot>(table.slots().base, table.slots().count).prefetchBehind(table.slots().base[index].link);
   return Fast::found;
}

/// Searches the place of `key` in its chain and takes the first row above it, whether or not `key` is there.
template <class Owner>
[[gnu::noinline]] bool ReaderHashMap<Owner>::nextSlow(Key const& key, Value& value, IterHint& hint) const {
   ++reader_->counters_.nextSlowPath;
   u32 const hash = reader_->ops_.hash(key);
   u32 const bucket = bucketOf(hash);
   u32 const target = Lomi::Util::reverse(hash);
   Chain const chain = walkChain<Walk::nextSlow>(
       bucket, reinterpret_cast<unsigned char*>(&value), [&key, target](u32 rhash, Key const& slotKey) {
          return rhash > target || (rhash == target && key < slotKey) ? Step::take : Step::pass;
       });
   if (chain.outcome == Outcome::found) {
      Key const& found = Ops::key(value);
      u32 const foundHash = checkKey(Walk::nextSlow, found, bucket);
      // A row whose stored place isn't its key's would be met again and again.
      if (Lomi::Util::reverse(foundHash) != chain.rhash) [[unlikely]]
         ReaderErrors::corruptOrder(chain.slot, chain.rhash, Lomi::Util::reverse(foundHash));
      hint = {chain.word, chain.slot, bucket};
      LOMI_TRACE(debugHandler_, 9, "ReaderHashMap", "{} success {}, saving {}", Mirak::keyText(key),
                 Mirak::keyText(found), hint);
      return true;
   }
   return goOnAfter(Walk::nextSlow, key, bucket, chain.endLink, value, hint);
}

/// Goes on behind the chain of `bucket`, which ended in `endLink`. `key` is the last row's, for traces.
template <class Owner>
inline bool ReaderHashMap<Owner>::goOnAfter(Walk walk, Key const& key, u32 bucket, u32 endLink, Value& value,
                                            IterHint& hint) const {
   if (endLink == Mirak::noSlot) {
      verifyNextBucket(bucket, 0);
      LOMI_TRACE(debugHandler_, 9, "ReaderHashMap", "{} failed", Mirak::keyText(key));
      return false;
   }
   u32 const next = successor(bucket, endLink);
   if (walk == Walk::nextFast)
      LOMI_TRACE(debugHandler_, 9, "ReaderHashMap", "{} next bucket {} using {}", Mirak::keyText(key), next,
                 hint);
   else
      LOMI_TRACE(debugHandler_, 9, "ReaderHashMap", "{} next bucket {}", Mirak::keyText(key), next);
   return first(next, value, hint);
}

} // namespace MirakCore
