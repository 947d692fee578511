// SPDX-License-Identifier: Apache-2.0
// The writer's view of the index: finds a key's place, walks the table, doubles and halves the bucket table
// while readers go on reading. BucketTable.h explains the order; slots come from SlotWriterTable, entries
// from BucketWriter. One thread.
//
// Invariants, between operations:
//   I1  the rows form one list, strictly ascending by (rhash, key); bucket b's chain is the stretch of it
//       whose hashes end in b's bits, and ends in a link that names the next bucket of the walk
//   I2  every row of a chain is OCCUPIED and hashes to that chain's bucket
// Any breach that a step meets is thrown as Lomi::CorruptionDetectedException; nothing is repaired here, and
// no loop trusts the links for its end: each counts against the capacity.
//
// Growing and shrinking: WriterHashMapResize.h.
#pragma once

#include "Lomi/Exception.h"
#include "Lomi/Util.h"
#include "Mem/VersionAnchor.h"
#include "Mirak/Counters.h"
#include "Mirak/IterHint.h"
#include "Mirak/KeyText.h"
#include "Mirak/SlotWriter.h"
#include "MirakCore/BucketWriter.h"
#include "MirakCore/LookAhead.h"

#include <memory>
#include <tuple>

namespace Mirak {
template <class Ops> class MirakWriter;
template <class Ops, class Writer> class Validator;
} // namespace Mirak

namespace MirakCore {

using Mirak::endsChain;
using Mirak::IterHint;
using Mirak::nextBucketOf;
using Mirak::noSlot;
namespace SlotFlags = Mirak::SlotFlags;

template <class Ops> class WriterHashMap {
public:
   using Key = typename Ops::Key;
   using Value = typename Ops::Value;
   using SlotWriterTable = Mirak::SlotWriterTable<Ops>;
   using Slot = typename SlotWriterTable::Slot;
   using Validator = Mirak::Validator<Ops, Mirak::MirakWriter<Ops>>;

   WriterHashMap(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath, bool local,
                 Ops const& ops, SlotWriterTable& slots, Mem::VersionAnchor& anchor,
                 Mirak::Writer::Counters& counters, std::function<void()> beforeFormat)
      : debugHandler_(handler)
      , buckets_(handler, rootPath, local, std::move(beforeFormat))
      , ops_(ops)
      , slots_(slots)
      , anchor_(anchor)
      , counters_(counters) {}

   BucketWriter<SlotLink>& buckets() { return buckets_; }
   BucketWriter<SlotLink> const& buckets() const { return buckets_; }
   u32 growThreshold() const { return growThreshold_; }
   u32 shrinkThreshold() const { return shrinkThreshold_; }
   /// A full load is one row per bucket, an empty one a quarter. Called whenever the count has changed.
   void updateThresholds() {
      growThreshold_ = buckets_.numBuckets();
      shrinkThreshold_ = buckets_.numBuckets() / 4;
      forgetCuts();
   }
   /// While one exists, walks check each row fully and mark it in the validator.
   class Marking {
   public:
      Marking(WriterHashMap& map, Validator& validator)
         : map_(map) {
         map_.validator_ = &validator;
      }
      ~Marking() { map_.validator_ = nullptr; }
      Marking(Marking const&) = delete;
      Marking& operator=(Marking const&) = delete;

   private:
      WriterHashMap& map_;
   };
   u32 bucketOf(u32 hash) const { return hash & (buckets_.numBuckets() - 1); }

   /// Finds a key's place in its chain; changes nothing.
   /// @param prev the link that points at the entry, or after which the key belongs
   /// @param curr the entry's link, or that of the entry that stopped the walk, or `*prev`
   bool find(Key const& key, u32 bucket, SlotLink** prev, SlotLink** curr, u32 hash) {
      if (bucket < cutsTo_) Mem::prefetchShared(&cuts_[bucket]); // inserted() or removed() will ask for it
      return seek(key, bucket, prev, curr, hash, "corrupt key detected, slotId: {}");
   }
   /// The key's slot, or null.
   Slot const* lookup(Key const& key, u32 bucket, u32 hash) const {
      SlotLink *prev, *curr;
      auto* self = const_cast<WriterHashMap*>(this);
      return self->seek(key, bucket, &prev, &curr, hash, "corrupt key detected, slot: {}") ? slotOf(curr)
                                                                                           : nullptr;
   }

   /// The first row at or after `bucket` in walk order.
   bool first(u32 bucket, Value& value, IterHint& hint) const;
   /// The row after `key`, by the hint if it still fits, else by a search for the key.
   bool next(Key const& key, Value& value, IterHint& hint) const;
   /// @throws Lomi::CorruptionDetectedException unless the walk goes from `bucket` to `next`
   void verifyNextBucket(u32 bucket, u32 next) const;

   /// What an insert must ask for before its first store: true when `rows` rows need prepareGrow().
   bool wantsPreparation(u32 rows) const { return rows > prepareAt_; }
   /// Provides what growBuckets() will need, before anything is changed: all of it if `rows` rows make the
   /// table grow, else a piece, so that the insert that grows it doesn't have to do all of it.
   /// @throws Lomi::MemoryResourceException if all of it is needed and can't be had
   [[gnu::noinline]] void prepareGrow(u32 rows);
   /// A row was linked into the chain of `bucket` behind `prev`.
   void inserted(u32 bucket, SlotLink const* prev, u32 rhash, u32 index) {
      if (bucket >= cutsTo_ || cuts_[bucket].behind != slotBefore(bucket, prev)) return;
      (rhash & growBit() ? cuts_[bucket].next : cuts_[bucket].behind) = index;
   }
   /// A row was taken from between `prev` and `next` in the chain of `bucket`.
   void removed(u32 bucket, SlotLink const* prev, u32 index, u32 next) {
      if (bucket >= cutsTo_) return;
      if (Cut& cut = cuts_[bucket]; cut.behind == index)
         cut.behind = slotBefore(bucket, prev);
      else if (cut.next == index)
         cut.next = next;
   }
   /// Must be called before rows change their slots: cuts are remembered by slot.
   void forgetCuts() {
      cutsTo_ = 0;
      prepareAt_ = growThreshold_ - growThreshold_ / 8;
   }
   /// Doubles the bucket table. Memory and space are there: prepareGrow() came first.
   void growBuckets(bool criticalTaskCheck);
   /// Halves the bucket table, down to 2.
   void shrinkBuckets(bool criticalTaskCheck);

private:
   [[gnu::always_inline]] inline bool seek(Key const& key, u32 bucket, SlotLink** prev, SlotLink** curr,
                                           u32 hash, char const* corruptKey);

   static Slot* slotOf(SlotLink* link) { return reinterpret_cast<Slot*>(link); }
   static Key keyOf(Slot const& slot) { return Mirak::loadKey<Key>(slot.value); }
   void take(Slot const& slot, Value& value) const {
      anchor_ = slots_.anchorOf(slot);
      Mem::loadShared(&value, slot.value, sizeof(Value));
   }
   LookAhead<Slot> lookAhead() const { return {&slots_.slot(0), slots_.capacity()}; }
   void atEndOfTable(u32 bucket) const;
   bool nextSlow(Key const& key, Value& value, IterHint& hint) const;
   void checkRhash(u32 index, u32 rhash, u32 hash, bool slowPath) const;
   void mark(u32 index) const;
   /// Of the reversed hash: rows with this bit leave their bucket when it is cut in two; they stand behind
   /// the others.
   u32 growBit() const { return 0x80000000u >> buckets_.bucketFactor(); }
   /// The slot whose link that is, noSlot for the head of `bucket`.
   u32 slotBefore(u32 bucket, SlotLink const* link) const {
      return link == &buckets_.entries()[bucket] ? noSlot
                                                 : slots_.indexOf(*slotOf(const_cast<SlotLink*>(link)));
   }
   bool makeRoomForCuts();
   void findCuts(u32 end, u32& visited);
   SlotLink* lastLink(u32 bucket, u32& visited);
   void checkVisited(u32 visited) const;

   Lomi::Platform::DebugHandler const& debugHandler_;
   u32 growThreshold_ = 0;
   u32 shrinkThreshold_ = 0;
   BucketWriter<SlotLink> buckets_;
   Ops const& ops_;
   SlotWriterTable& slots_;
   Mem::VersionAnchor& anchor_;
   Mirak::Writer::Counters& counters_;
   /// Only while a validation runs: the walk then checks and marks each slot.
   Validator* validator_ = nullptr;
   /// Where a growth cuts a chain in two: behind which slot (noSlot: the bucket's head), and what follows
   /// there.
   struct Cut {
      u32 behind;
      u32 next;
   };
   // The cuts of the next growth. Known for the first cutsTo_ buckets, and kept right from then on by
   // inserted() and removed(). Private: to the files and to a crash, nothing of it has happened.
   std::unique_ptr<Cut[]> cuts_;
   u32 cutsFor_ = 0; ///< buckets that cuts_ has room for
   u32 cutsTo_ = 0;
   u32 prepareAt_ = 0;                     ///< rows up to which nothing is to be prepared
   static constexpr u32 cutsAtOnce = 256;  ///< buckets; ten microseconds or so
   static constexpr u32 stride = 64;       ///< buckets of a growth between two looks at the clock
   static constexpr u32 bucketsAhead = 12; ///< buckets that a pass over all chains looks ahead
};

template <class... Args> [[noreturn, gnu::cold]] void corrupt(char const* format, Args const&... args) {
   throw Lomi::CorruptionDetectedException(fmt::format(fmt::runtime(format), args...));
}

template <class Ops>
bool WriterHashMap<Ops>::seek(Key const& key, u32 bucket, SlotLink** prev, SlotLink** curr, u32 hash,
                              char const* corruptKey) {
   *prev = *curr = &buckets_[bucket];
   u32 const target = Lomi::Util::reverse(hash);
   u32 const mask = buckets_.numBuckets() - 1;
   u32 index = Mem::loadPair(**prev).next;
   for (u32 count = 1; !endsChain(index); ++count) {
      if (count > slots_.capacity()) [[unlikely]]
         corrupt("hash chain cycle detected, slotCount:{} capacity:{}", count, slots_.capacity());
      Slot& slot = slots_.slot(index);
      // A slot straddles lines, and whoever seeks a row means to read or store all of it.
      for (std::size_t line = 64; line < sizeof(Slot) + 63; line += 64)
         Mem::prefetchShared(reinterpret_cast<char const*>(&slot) + std::min(line, sizeof(Slot) - 1));
      *curr = &slot.link;
      if (!(Mem::loadShared(slot.versionFlags) & SlotFlags::occupied)) [[unlikely]]
         corrupt("slotId: {} not marked as occupied", index);
      Key const found = keyOf(slot);
      bool const same = found == key;
      // The sought key itself hashes to where it is sought; any other is hashed again, to guard against
      // damage.
      if (!same && (ops_.hash(found) & mask) != bucket) [[unlikely]]
         corrupt(corruptKey, index);
      u32 const rhash = Mem::loadShared(slot.rhash);
      if (target < rhash) return false;
      if (target == rhash && (same || key < found)) return same;
      *prev = &slot.link;
      index = Mem::loadPair(slot.link).next;
   }
   *curr = *prev;
   return false;
}

template <class Ops> void WriterHashMap<Ops>::verifyNextBucket(u32 bucket, u32 next) const {
   u32 const half = buckets_.numBuckets() / 2;
   u32 const wanted = bucket < half
                          ? bucket + half
                          : bitReversePermute(bucket, buckets_.bucketFactor()) & (buckets_.numBuckets() - 1);
   if (next != wanted) [[unlikely]]
      corrupt("has bucket: {} with next bucket: {} and numBuckets: {}", bucket, next, buckets_.numBuckets());
}

/// The walk met the end of the table in `bucket`. Only the last bucket may say so.
template <class Ops> void WriterHashMap<Ops>::atEndOfTable(u32 bucket) const {
   if (bucket != buckets_.numBuckets() - 1) [[unlikely]]
      corrupt(
          "thinks we've reached the end of the table, but we're in bucket {} when there are numBuckets: {}",
          bucket, buckets_.numBuckets());
}

template <class Ops>
void WriterHashMap<Ops>::checkRhash(u32 index, u32 rhash, u32 hash, bool slowPath) const {
   u32 const wanted = Lomi::Util::reverse(hash);
   if (rhash == wanted) return;
   if (slowPath)
      corrupt("corrupt rhash detected, slotId: {} slot.rhash:{:08x} rhash:{:0x}", index, rhash, wanted);
   corrupt("corrupt rhash detected, slotId: {} slot.rhash:{:08x} rhash:{:08x}", index, rhash, wanted);
}

template <class Ops> void WriterHashMap<Ops>::mark(u32 index) const {
   if (validator_) validator_->markOccupied(index);
}

template <class Ops> bool WriterHashMap<Ops>::first(u32 bucket, Value& value, IterHint& hint) const {
   auto const ahead = lookAhead();
   u32 next = Mem::loadPair(buckets_[bucket]).next;
   ahead.from(buckets_.entries(), buckets_.bucketFactor(), bucket);
   for (u32 count = 1; endsChain(next); ++count) {
      if (next == noSlot) {
         atEndOfTable(bucket);
         LOMI_TRACE(debugHandler_, 8, "WriterHashMap", "{}", "none found!");
         return false;
      }
      if (count >= buckets_.numBuckets()) [[unlikely]]
         corrupt("has bucket cycle detected, bucketCount: {} numBuckets: {}", count, buckets_.numBuckets());
      verifyNextBucket(bucket, nextBucketOf(next));
      bucket = nextBucketOf(next);
      next = Mem::loadPair(buckets_[bucket]).next;
      ahead.from(buckets_.entries(), buckets_.bucketFactor(), bucket);
   }
   Slot const& slot = slots_.slot(next);
   u32 const word = Mem::loadShared(slot.versionFlags);
   if (!(word & SlotFlags::occupied)) [[unlikely]]
      corrupt("slotId: {} from bucket: {} not marked as occupied", next, bucket);
   take(slot, value);
   u32 const hash = ops_.hash(Ops::key(value));
   if (bucketOf(hash) != bucket) [[unlikely]]
      corrupt("corrupt key detected, slotId: {}", next);
   if (validator_) checkRhash(next, Mem::loadShared(slot.rhash), hash, false);
   mark(next);
   ahead.prefetchBehind(slot.link);
   hint = {word, next, bucket};
   return true;
}

template <class Ops> bool WriterHashMap<Ops>::next(Key const& after, Value& value, IterHint& hint) const {
   Key const key = after; // the caller's key may lie inside `value`
   if (hint.slot >= slots_.capacity() || hint.bucket >= buckets_.numBuckets())
      return nextSlow(key, value, hint);
   Slot const& from = slots_.slot(hint.slot);
   // A slot that was cut off and came back counts from the beginning again: the word alone doesn't prove that
   // this is the caller's row.
   if (Mem::loadShared(from.versionFlags) != hint.version || !(keyOf(from) == key))
      return nextSlow(key, value, hint);
   u32 const index = Mem::loadPair(from.link).next;
   // Whatever the fast path finds wrong may be the hint's fault; the slow path then decides. Marking and the
   // walk of the following buckets stay outside: what they throw is final.
   bool toNextBucket = false;
   try {
      if (endsChain(index)) {
         if (index == noSlot) {
            atEndOfTable(hint.bucket);
            LOMI_TRACE(debugHandler_, 9, "WriterHashMap", "{} failed", Mirak::keyText(key));
            return false;
         }
         verifyNextBucket(hint.bucket, nextBucketOf(index));
         toNextBucket = true;
      } else {
         Slot const& slot = slots_.slot(index);
         u32 const word = Mem::loadShared(slot.versionFlags);
         if (!(word & SlotFlags::occupied)) corrupt("slotId: {} not marked as occupied", index);
         u32 const hash = ops_.hash(keyOf(slot));
         if (bucketOf(hash) != hint.bucket) corrupt("corrupt key detected, slotId: {}", index);
         u32 const rhash = Mem::loadShared(slot.rhash);
         u32 const before = Mem::loadShared(from.rhash);
         // Links that lead back would be walked for ever. The slow path counts its steps; a validator knows
         // the rows that it has seen.
         if (!validator_ && (rhash < before || (rhash == before && !(key < keyOf(slot))))) [[unlikely]]
            return nextSlow(key, value, hint);
         if (validator_) checkRhash(index, rhash, hash, false);
         take(slot, value);
         lookAhead().prefetchBehind(slot.link);
         hint.version = word;
         hint.slot = index;
      }
   } catch (Lomi::CorruptionDetectedException const& e) {
      LOMI_TRACE(debugHandler_, 5, "WriterHashMap",
                 "saw exception in fast path: {}. This might be okay, dropping to slow path to find out",
                 e.what());
      return nextSlow(key, value, hint);
   }
   if (toNextBucket) return first(nextBucketOf(index), value, hint);
   mark(index);
   return true;
}

template <class Ops> bool WriterHashMap<Ops>::nextSlow(Key const& key, Value& value, IterHint& hint) const {
   ++counters_.nextSlowPath;
   u32 const target = ops_.hash(key);
   u32 const bucket = bucketOf(target);
   u32 const rtarget = Lomi::Util::reverse(target);
   u32 index = Mem::loadPair(buckets_[bucket]).next;
   for (u32 count = 1; !endsChain(index); ++count) {
      if (count > slots_.capacity())
         corrupt("hash chain cycle detected, slotCount:{} capacity:{}", count, slots_.capacity());
      Slot const& slot = slots_.slot(index);
      u32 const word = Mem::loadShared(slot.versionFlags);
      Key const found = keyOf(slot);
      if (!(word & SlotFlags::occupied))
         corrupt("slow-path slot:{} not marked as occupied key:{} slotCount:{}", index,
                 Lomi::Util::dumpHex(&found, sizeof found), count);
      u32 const hash = ops_.hash(found);
      if (bucketOf(hash) != bucket) corrupt("corrupt key detected, slotId: {}", index);
      u32 const rhash = Mem::loadShared(slot.rhash);
      if (rhash > rtarget || (rhash == rtarget && key < found)) {
         if (validator_) checkRhash(index, rhash, hash, true);
         mark(index);
         take(slot, value);
         hint = {word, index, bucket};
         return true;
      }
      index = Mem::loadPair(slot.link).next;
   }
   if (index == noSlot) {
      atEndOfTable(bucket);
      LOMI_TRACE(debugHandler_, 9, "WriterHashMap", "{} failed", Mirak::keyText(key));
      return false;
   }
   verifyNextBucket(bucket, nextBucketOf(index));
   return first(nextBucketOf(index), value, hint);
}

} // namespace MirakCore

#include "MirakCore/WriterHashMapResize.h"
