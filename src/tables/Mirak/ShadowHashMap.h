// SPDX-License-Identifier: Apache-2.0
// The index of a shadow's copy: buckets in private memory whose chains run through the local slots. A slot is
// its own node, so an entry costs no allocation.
//
// Order. The bucket of an entry is the top bits of its reversed hash, and a chain ascends by (hash, key): all
// chains together are one list in the order of the shared table. A doubling cuts each chain at one point, a
// halving joins neighbours, and neither changes the order; so a walk survives both.
//
// Load. At most one entry a bucket on average; a quarter of that halves the buckets, down to 2. A doubling or
// halving passes over every entry once.
//
// One thread, no readers to protect: plain pointers. The slots' memory belongs to the store, which calls
// patch() when it has moved.
#pragma once

#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mem/Local.h"
#include "Mem/SharedWords.h"
#include "Mirak/Counters.h"
#include "Mirak/KeyText.h"
#include "Mirak/ShadowSlot.h"
#include "Mirak/SlotCounters.h"

#include <cstddef>
#include <cstring>

namespace Mirak {

template <class Slot> class ShadowHashMap : public Lomi::Debuggable {
public:
   using Ops = typename Slot::OpsType;
   using Key = typename Ops::Key;

   /// @param ops hashes with the open table's seed  @param slots the base of the store's array
   ShadowHashMap(Lomi::Platform::DebugHandler const& handler, Reader::Counters& counters,
                 SlotCounters& slotCounters, Ops const& ops, Slot* const& slots)
      : Debuggable(handler)
      , counters_(counters)
      , slotCounters_(slotCounters)
      , ops_(ops)
      , slots_(slots)
      , bucketsMem_(handler) {}

   /// Begins empty, with two buckets. @return false if there is no memory
   bool initialize();

   /// Enters a slot whose row is in place. A slot that is in its chain already keeps its place: its key must
   /// be the same as before. A key that stands in another slot has moved: that slot becomes dead.
   /// @param updated whether the slot's row is another one than before
   /// @return whether the row of that key is new or has changed
   /// @throws Lomi::MemoryResourceException; nothing has changed then
   bool write(u32 slotIndex, Slot& slot, bool updated);
   /// Takes a slot out of its chain. @return false: it was dead
   bool remove(u32 slotIndex, Slot& slot);
   /// Null if the key isn't there.
   Slot* find(Key const& key) const;
   /// The first entry at or after a bucket, null if there is none.
   /// @param coming is called with slots that a walk will reach soon, to fetch what belongs to them
   template <class Coming> Slot* first(u32 bucket, Coming const& coming) const;
   /// The entry after `key`, whether or not `key` is there; null at the end.
   /// @param hint the slot that held `key` when it was met, or null
   template <class Coming> Slot* next(Key const& key, Slot const* hint, Coming const& coming) const;
   /// Asks for the head of the chain to which entries of that hash, bits reversed, belong.
   [[gnu::always_inline]] void prefetchPlace(u32 hash) const {
      Mem::prefetchShared(&buckets_[bucketOf(hash)]);
   }
   /// The array of slots has moved by `offset` bytes.
   void patch(std::ptrdiff_t offset);

   u32 numBuckets() const { return numBuckets_; }
   u64 mappedSize() const { return bucketsMem_.mappedSize(); }

private:
   static constexpr u32 fewestBuckets = 2;
   static constexpr u32 chainsAhead = 24; ///< of a walk: whose first entries to have on their way
   static constexpr u32 loadShift_ = 0;   ///< log2 of the entries a bucket takes on average

   u32 hashOf(Key const& key) const { return Lomi::Util::reverse(ops_.hash(key)); }
   u32 bucketOf(u32 hash) const { return hash >> (32 - bucketFactor_); }
   u32 indexOf(Slot const& slot) const { return static_cast<u32>(&slot - slots_); }
   static bool before(Slot const& slot, u32 hash, Key const& key) {
      return slot.hash != hash ? slot.hash < hash : slot.rowKey() < key;
   }
   /// What points, or would, to the first entry that doesn't stand before that one.
   Slot** placeOf(u32 hash, Key const& key) const {
      Slot** at = &buckets_[bucketOf(hash)];
      while (*at && before(**at, hash, key)) at = &(*at)->next;
      return at;
   }
   static bool isAt(Slot const* slot, u32 hash, Key const& key) {
      return slot && slot->hash == hash && slot->rowKey() == key;
   }
   static void link(Slot** at, Slot& slot, Slot* following) {
      slot.prev = at;
      slot.next = following;
      if (following) following->prev = &slot.next;
      *at = &slot;
   }
   template <class Coming> void lookAhead(u32 bucket, Coming const& coming) const;
   bool replace(Slot& old, u32 slotIndex, Slot& slot);
   void grow();
   void shrink();
   void resizeBuckets(u32 from, u32 to);

   Reader::Counters& counters_;
   SlotCounters& slotCounters_;
   Ops const& ops_;
   Slot* const& slots_;
   u32 bucketFactor_ = 1; ///< log2 of numBuckets_
   u32 numBuckets_ = fewestBuckets;
   Slot** buckets_ = nullptr;
   Mem::Local bucketsMem_;
};

template <class Slot> bool ShadowHashMap<Slot>::initialize() {
   bucketFactor_ = 1;
   numBuckets_ = fewestBuckets;
   LOMI_TRACE(debugHandler(), 5, "ShadowHashMap", "size:{} elements", numBuckets_);
   buckets_ = reinterpret_cast<Slot**>(bucketsMem_.attach(numBuckets_ * sizeof(Slot*)));
   counters_.members = 0;
   return buckets_ != nullptr;
}

template <class Slot> bool ShadowHashMap<Slot>::write(u32 slotIndex, Slot& slot, bool updated) {
   ++counters_.shadowWrites;
   LOMI_TRACE(debugHandler(), 8, "ShadowHashMap", "slotIndex:{} key:{}", slotIndex, keyText(slot.rowKey()));
   if (slot.prev) {
      LOMI_TRACE(debugHandler(), 8, "ShadowHashMap", "{}", "no index update needed");
      return updated;
   }
   Key const& key = slot.rowKey();
   slot.hash = hashOf(key);
   Slot** at = placeOf(slot.hash, key);
   if (isAt(*at, slot.hash, key)) return replace(**at, slotIndex, slot);
   // Grown before the entry is in: where there is no memory, a later call finds it new.
   if (counters_.members >= numBuckets_ << loadShift_) {
      grow();
      at = placeOf(slot.hash, key);
   }
   bool const atEnd = !*at;
   bool const atHead = at == &buckets_[bucketOf(slot.hash)];
   link(at, slot, *at);
   LOMI_TRACE(debugHandler(), 8, "ShadowHashMap", "{}",
              !atEnd   ? "value inserted"
              : atHead ? "value inserted in fresh bucket"
                       : "add slot to end of chain");
   slotCounters_.add(slotIndex);
   ++counters_.members;
   return true;
}

/// The row has moved between slots: `slot` takes the place of `old`. @return whether it has changed, too
template <class Slot> bool ShadowHashMap<Slot>::replace(Slot& old, u32 slotIndex, Slot& slot) {
   bool changed = true;
   if constexpr (Slot::keepsValue) changed = !old.holds(slot.value);
   ++counters_.shadowKeyMoves;
   link(old.prev, slot, old.next);
   slotCounters_.remove(indexOf(old));
   slotCounters_.add(slotIndex);
   old.next = nullptr;
   old.prev = nullptr;
   old.clear();
   LOMI_TRACE(debugHandler(), 8, "ShadowHashMap", "{}", "value updated");
   return changed;
}

template <class Slot> bool ShadowHashMap<Slot>::remove(u32 slotIndex, Slot& slot) {
   if (!slot.prev) {
      LOMI_TRACE(debugHandler(), 9, "ShadowHashMap", "dead slot {}", slotIndex);
      return false;
   }
   LOMI_TRACE(debugHandler(), 8, "ShadowHashMap", "slot:{} prev->next:{} next:{} occupied:{} key:{}",
              slotIndex, indexOf(**slot.prev), slot.next ? indexOf(*slot.next) : 0, counters_.members,
              keyText(slot.rowKey()));
   *slot.prev = slot.next;
   if (slot.next) slot.next->prev = slot.prev;
   slot.next = nullptr;
   slot.prev = nullptr;
   slotCounters_.remove(slotIndex);
   --counters_.members;
   if (counters_.members <= (numBuckets_ << loadShift_) >> 2 && bucketFactor_ >= 2) shrink();
   return true;
}

template <class Slot> Slot* ShadowHashMap<Slot>::find(Key const& key) const {
   u32 const hash = hashOf(key);
   for (Slot* slot = buckets_[bucketOf(hash)]; slot && slot->hash <= hash; slot = slot->next)
      if (slot->hash == hash && slot->rowKey() == key) return slot;
   return nullptr;
}

// --- walking ---

/// Buckets are neighbours in the order of a walk, their slots are strangers in memory: has those that the
/// walk will reach soon on their way into the cache, many at a time.
template <class Slot>
template <class Coming>
[[gnu::always_inline]] inline void ShadowHashMap<Slot>::lookAhead(u32 bucket, Coming const& coming) const {
   if (bucket + chainsAhead >= numBuckets_) return;
   auto const fetch = [&coming](Slot const* slot) __attribute__((always_inline)) {
      if (!slot) return;
      Mem::prefetchWhole(*slot);
      coming(*slot);
   };
   fetch(buckets_[bucket + chainsAhead]);
   if (Slot const* const slot = buckets_[bucket + chainsAhead / 2]) fetch(slot->next);
}

template <class Slot>
template <class Coming>
Slot* ShadowHashMap<Slot>::first(u32 bucket, Coming const& coming) const {
   for (; bucket < numBuckets_; ++bucket) {
      lookAhead(bucket, coming);
      if (buckets_[bucket]) return buckets_[bucket];
   }
   return nullptr;
}

template <class Slot>
template <class Coming>
Slot* ShadowHashMap<Slot>::next(Key const& key, Slot const* hint, Coming const& coming) const {
   if (hint && !hint->dead() && hint->rowKey() == key)
      return hint->next ? hint->next : first(bucketOf(hint->hash) + 1, coming);
   ++counters_.nextSlowPath;
   u32 const hash = hashOf(key);
   Slot* slot = *placeOf(hash, key);
   if (isAt(slot, hash, key)) slot = slot->next;
   return slot ? slot : first(bucketOf(hash) + 1, coming);
}

template <class Slot> void ShadowHashMap<Slot>::patch(std::ptrdiff_t offset) {
   LOMI_TRACE(debugHandler(), 5, "ShadowHashMap", "address offset is {}", offset);
   auto const moved = [offset](auto* at) {
      return reinterpret_cast<decltype(at)>(reinterpret_cast<char*>(at) + offset);
   };
   for (u32 bucket = 0; bucket < numBuckets_; ++bucket) {
      Slot** at = &buckets_[bucket];
      if (!*at) continue;
      LOMI_TRACE(debugHandler(), 9, "ShadowHashMap", "Patching slots in bucket {}", bucket);
      for (; *at; at = &(*at)->next) {
         *at = moved(*at);
         (*at)->prev = at;
      }
   }
   ++counters_.shadowPatches;
}

// --- the number of buckets ---

/// The contents up to the smaller size stay, what is new is null; the base may move.
template <class Slot> void ShadowHashMap<Slot>::resizeBuckets(u32 from, u32 to) {
   u64 const bytes = Mem::multiplyOverflowCheck(to, sizeof(Slot*));
   char* const old = bucketsMem_.base();
   char* const base = bucketsMem_.resize(bytes);
   if (!base)
      throw Lomi::MemoryResourceException(fmt::format("failed to resize {} from {} to {} buckets : {}",
                                                      bucketsMem_.kind(), from, to, bucketsMem_.lastError()));
   if (base != old)
      LOMI_TRACE(debugHandler(), 2, "ShadowHashMap", "base address moved from {} to {}", fmt::ptr(old),
                 fmt::ptr(base));
   buckets_ = reinterpret_cast<Slot**>(base);
}

template <class Slot> void ShadowHashMap<Slot>::grow() {
   LOMI_TRACE(debugHandler(), 2, "ShadowHashMap", "buckets growing from:{} to:{}", numBuckets_,
              2 * numBuckets_);
   resizeBuckets(numBuckets_, 2 * numBuckets_);
   ++bucketFactor_;
   // Downwards, so that each pair lies above all buckets that are still to be cut.
   for (u32 old = numBuckets_; old-- > 0;) {
      if (old >= chainsAhead) Mem::prefetchShared(buckets_[old - chainsAhead]);
      Slot* const chain = buckets_[old];
      buckets_[old] = nullptr;
      Slot** at = &buckets_[u64{2} * old];
      *at = chain;
      if (chain) chain->prev = at;
      while (*at && bucketOf((*at)->hash) == 2 * old) at = &(*at)->next;
      Slot* const rest = *at;
      if (rest)
         LOMI_TRACE(debugHandler(), 8, "ShadowHashMap", "splitting bucket {} to buckets {} and {}", old,
                    2 * old, 2 * old + 1);
      *at = nullptr;
      at = &buckets_[u64{2} * old + 1];
      *at = rest;
      if (rest) rest->prev = at;
   }
   numBuckets_ *= 2;
   ++counters_.shadowBucketGrows;
}

template <class Slot> void ShadowHashMap<Slot>::shrink() {
   u32 const half = numBuckets_ / 2;
   for (u32 bucket = 0; bucket < half; ++bucket) {
      Slot** at = &buckets_[bucket];
      Slot* const* const pair = &buckets_[u64{2} * bucket];
      Slot* const rest = pair[1];
      *at = pair[0];
      if (*at) (*at)->prev = at;
      while (*at) at = &(*at)->next;
      *at = rest;
      if (rest) rest->prev = at;
   }
   Slot** const old = buckets_;
   --bucketFactor_;
   numBuckets_ = half;
   resizeBuckets(2 * half, half);
   ++counters_.shadowBucketShrinks;
   LOMI_TRACE(debugHandler(), 2, "ShadowHashMap", "shrunk to numBuckets_:{} bucketFactor_:{}", numBuckets_,
              bucketFactor_);
   if (buckets_ == old) return;
   for (u32 bucket = 0; bucket < half; ++bucket)
      if (buckets_[bucket]) buckets_[bucket]->prev = &buckets_[bucket];
}

} // namespace Mirak
