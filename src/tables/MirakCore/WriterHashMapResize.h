// SPDX-License-Identifier: Apache-2.0
// Growth and shrink of WriterHashMap's buckets. Included by WriterHashMap.h only.
//
// Growing from n to 2n, and what a crash leaves (numBuckets is the commit point):
//   pass 1   entry b + n := the link that leads to the first row of chain b which hashes to b + n.
//            Invisible: the table is simply the old one.
//   publish  numBuckets := 2n. Uncut chains still end in their old successor, which no chain of 2n may: the
//            walk of the next start fails on it.
//   pass 2   the link before that row := end of chain, next bucket b + n. Readers of either count find
//            every row throughout: by the old entry until the cut, and after it they see an end that the
//            new count explains.
// Shrinking mirrors it: chains are joined first, then the count falls, then the file.
//
// Which link that is takes a walk of the chain, most of the time that a growth needs. It is found out in
// advance, some buckets at each insert of the last eighth before the growth, and remembered privately. The
// growing insert itself then touches each chain at one place.
#pragma once

#include "Mirak/Deadline.h"
#include "MirakCore/WriterHashMap.h"

#include <new>

namespace MirakCore {

template <class Ops> void WriterHashMap<Ops>::checkVisited(u32 visited) const {
   if (visited > slots_.capacity()) [[unlikely]]
      corrupt("hash chain cycle detected, slotCount:{} capacity:{}", visited, slots_.capacity());
}

/// Finds the cuts of the buckets up to `end`: before each chain's first row with growBit(), or at its end.
template <class Ops> void WriterHashMap<Ops>::findCuts(u32 end, u32& visited) {
   auto const rows = lookAhead();
   SlotLink const* const entries = buckets_.entries();
   Cut* const cuts = cuts_.get();
   u32 const n = buckets_.numBuckets();
   u32 const bit = growBit();
   for (u32 b = cutsTo_; b < end; ++b) {
      // Heads are in sequence, the rows behind them anywhere.
      if (b + bucketsAhead < n) Mem::prefetchShared(&rows.behind(entries[b + bucketsAhead]));
      Cut cut{noSlot, Mem::loadPair(entries[b]).next};
      while (!endsChain(cut.next)) {
         checkVisited(++visited);
         Slot const& slot = slots_.slot(cut.next);
         if (Mem::loadShared(slot.rhash) & bit) break;
         cut = {cut.next, Mem::loadPair(slot.link).next};
      }
      cuts[b] = cut;
   }
   cutsTo_ = end;
}

template <class Ops> bool WriterHashMap<Ops>::makeRoomForCuts() {
   u32 const n = buckets_.numBuckets();
   if (cutsFor_ >= n) return true;
   cutsTo_ = 0;
   cuts_.reset(new (std::nothrow) Cut[n]);
   cutsFor_ = cuts_ ? n : 0;
   return cutsFor_ != 0;
}

template <class Ops> void WriterHashMap<Ops>::prepareGrow(u32 rows) {
   u32 const n = buckets_.numBuckets();
   if (rows > growThreshold_) {
      buckets_.reserve(2 * n);
      if (!makeRoomForCuts())
         throw Lomi::MemoryResourceException(fmt::format("no memory to grow {} from {} to {} buckets",
                                                         buckets_.wrapper().getFilename(), n, 2 * n));
      return;
   }
   // As many pieces of inserts in the last eighth as there are pieces of buckets. Running out of memory or
   // space is no error before it must be had.
   u32 const end = std::min(n, cutsTo_ + cutsAtOnce);
   bool const useful = cutsTo_ < n && makeRoomForCuts() && buckets_.reserveAhead(n + end, 2 * n);
   prepareAt_ = useful ? std::min(growThreshold_, rows + cutsAtOnce / 8 - 1) : growThreshold_;
   u32 visited = 0;
   if (useful) findCuts(end, visited);
}

template <class Ops> void WriterHashMap<Ops>::growBuckets(bool criticalTaskCheck) {
   u32 const n = buckets_.numBuckets();
   LOMI_TRACE(debugHandler_, 2, "WriterHashMap", "growing from: {} to: {}", n, n * 2);
   Mirak::Deadline deadline(criticalTaskCheck);
   prepareGrow(n + 1);
   u32 visited = 0;
   while (cutsTo_ < n) { // as a rule all are known by now
      findCuts(cutsTo_ + 1, visited);
      deadline.check();
   }
   buckets_.resize(2 * n);
   SlotLink* const entries = buckets_.entries();
   Cut const* const cuts = cuts_.get();
   for (u32 b = 0; b < n;) {
      // A bucket is a store or two from here on: asking the clock each time would take longer.
      for (u32 const end = std::min(n, b + stride); b < end; ++b)
         Mirak::publishLink(entries[b + n], cuts[b].next);
      deadline.check();
   }
   // SYNC(num-buckets) store: the entries up to 2n are complete.
   auto& count = buckets_.header().numBuckets;
   Mem::publishPair(count, Mem::VersionedRef<u32>{Mem::loadPair(count).version + 1, 2 * n});
   auto const linkOf = [cuts, entries, slots = &slots_.slot(0)](u32 b) {
      // Without a branch, since nobody could predict it.
      auto const head = reinterpret_cast<std::uintptr_t>(entries + b);
      auto const slot =
          reinterpret_cast<std::uintptr_t>(slots) + std::uintptr_t{cuts[b].behind} * sizeof(Slot);
      return reinterpret_cast<SlotLink*>(cuts[b].behind == noSlot ? head : slot); // NOLINT(*-no-int-to-ptr)
   };
   for (u32 b = 0; b < n;) {
      for (u32 const end = std::min(n, b + stride); b < end; ++b) {
         if (b + 2 * bucketsAhead < n) Mem::prefetchSharedForStore(linkOf(b + 2 * bucketsAhead));
         SlotLink& cut = *linkOf(b);
#ifndef NDEBUG
         LOMI_ASSERT(Mem::loadPair(cut).next == cuts[b].next, debugHandler_, "the cut of bucket:{} moved", b);
#endif
         // SYNC(chain-link) store: cuts the chain in two; both parts keep their slots and their order.
         Mirak::publishLink(cut, chainEnd(b + n));
      }
      deadline.check();
   }
   counters_.lastBucketGrow = deadline.elapsed();
   counters_.longestBucketGrow = std::max(counters_.longestBucketGrow, counters_.lastBucketGrow);
   ++counters_.bucketGrows;
   updateThresholds();
}

template <class Ops> SlotLink* WriterHashMap<Ops>::lastLink(u32 bucket, u32& visited) {
   SlotLink* link = &buckets_.entries()[bucket];
   for (u32 index = Mem::loadPair(*link).next; !endsChain(index); index = Mem::loadPair(*link).next) {
      checkVisited(++visited);
      link = &slots_.slot(index).link;
   }
   return link;
}

template <class Ops> void WriterHashMap<Ops>::shrinkBuckets(bool criticalTaskCheck) {
   u32 const n = buckets_.numBuckets();
   u32 const half = n / 2;
   Mirak::Deadline deadline(criticalTaskCheck);
   u32 visited = 0;
   for (u32 b = 0; b < half; ++b) {
      if (b + bucketsAhead < half)
         Mem::prefetchShared(&lookAhead().behind(buckets_.entries()[b + bucketsAhead]));
      SlotLink* const last = lastLink(b, visited);
      // SYNC(chain-link) store: the upper chain is joined behind the lower one, and its end names the bucket
      // that follows in the smaller table, too.
      Mirak::publishLink(*last, Mem::loadPair(buckets_.entries()[b + half]).next);
      deadline.check();
   }
   // SYNC(num-buckets) store: readers stop using the upper half before it goes.
   auto& count = buckets_.header().numBuckets;
   Mem::publishPair(count, Mem::VersionedRef<u32>{Mem::loadPair(count).version + 1, half});
   buckets_.resize(half);
   counters_.lastBucketShrink = deadline.elapsed();
   counters_.longestBucketShrink = std::max(counters_.longestBucketShrink, counters_.lastBucketShrink);
   ++counters_.bucketShrinks;
   LOMI_TRACE(debugHandler_, 2, "WriterHashMap", "shrunk from:{} to:{} shrinkBuckets_:{} time:{}", n, half,
              true, counters_.lastBucketShrink);
   updateThresholds();
}

} // namespace MirakCore
