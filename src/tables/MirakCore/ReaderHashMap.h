// SPDX-License-Identifier: Apache-2.0
// The lock-free read side of a table's index: lookup, first and next over the bucket and slot files while the
// one writer changes them. It maps nothing and follows no resize: a table that changed its size under a walk
// shows up as an exception, and Mirak/MirakReader.h, the only caller, follows and repeats the operation.
//
// Roles. Any number of reader processes, one thread for each object. Nothing is locked, nothing is stored
// into the files, no fence is needed beyond the acquire loads of Mem/SharedWords.h, whose program order is
// part of the protocol.
//
// Guarantees, at any moment of an insert, overwrite, remove, grow or shrink (together with the wrapper):
//   G1  a row that is returned was in the table, whole, at some moment of the call
//   G2  a key that was there throughout is not reported absent
//   G3  a walk returns each row that stays throughout exactly once, in table order; rows that come or go
//       meanwhile may be seen or not
//   G4  no content of the files, however damaged, makes a walk read outside the mappings or go on for ever
// Why, by the word that is read:
//   SYNC(slot-word)    protects the copy of a row (SlotReader.h)
//   SYNC(chain-link)   the link by which a slot was reached is loaded again after the slot was read: if it
//                      stands still, the slot was in this chain when it was read. That finds a removal, a
//                      re-use and a move.
//   SYNC(num-buckets)  is asked before absence is reported, and by the wrapper after each operation
//
// Progress. A walk starts over when a link changed under it; there is no limit, since each time needs a fresh
// store by the writer into exactly the link that is being followed, so the writer has made progress. A dead
// writer stores nothing. Everything else is bounded by the number of slots and buckets.
//
// Order. A key with hash h lies in bucket h modulo numBuckets; chains ascend by rhash = h with its bits
// reversed, then by the key. See BucketTable.h for the order of the buckets.
#pragma once

#include "Lomi/Trace.h"
#include "Lomi/Util.h"
#include "Mirak/IterHint.h"
#include "Mirak/KeyText.h"
#include "Mirak/SlotReader.h"
#include "MirakCore/BucketReader.h"
#include "MirakCore/LookAhead.h"
#include "MirakCore/ReaderErrors.h"

#include <cstring>
#include <type_traits>

namespace MirakCore {

using Mirak::IterHint;

/// `Owner` is the MirakReader. To this class it lends its slot table (`slots_`), its key operations (`ops_`),
/// its counters (`counters_`) and a buffer for one row (`buffer_`).
template <class Owner> class ReaderHashMap {
public:
   using Ops = typename Owner::OpsType;
   using Key = typename Ops::Key;
   using Value = typename Ops::Value;

   ReaderHashMap(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath,
                 Mirak::Reader::BucketCounters& counters, Owner const* owner)
      : debugHandler_(handler)
      , buckets_(handler, rootPath, counters)
      , reader_(owner) {}

   /// Finds the row of `key`, which must not lie in `buffer`.
   /// @param buffer takes the row; null means the owner's. Its content is undefined if the row isn't found.
   /// @return the row's address, or the default row's
   Value const* lookup(Key const& key, bool& found, void* buffer) const;
   /// The first row at or after `bucket` in walk order. @return false: there is none; `value` is undefined
   bool first(u32 bucket, Value& value, IterHint& hint) const;
   /// The row after `key`, which must not lie in `value`. @param hint that of the last row, and the new row's
   /// @return false: the end; `value` is undefined
   bool next(Key const& key, Value& value, IterHint& hint) const;
   /// @throws Lomi::CorruptionDetectedException unless the chain of `bucket` may end by naming `next`
   void verifyNextBucket(u32 bucket, u32 next) const;

   BucketReader<SlotLink>& buckets() { return buckets_; }
   BucketReader<SlotLink> const& buckets() const { return buckets_; }

private:
   using Walk = ReaderErrors::Walk;
   using SlotTable = Mirak::SlotReaderTable<Ops>;
   using Slot = typename SlotTable::Slot;

   /// The link that led to where a walk stands, and what it said then.
   struct Place {
      SlotLink const* at;
      SlotLink link;
      explicit Place(SlotLink const& from)
         : at(&from)
         // SYNC(chain-link) load: what the link points at was complete before the link was stored.
         , link(Mem::loadPair(from)) {}
      bool ends() const { return Mirak::endsChain(link.next); }
      bool stands() const {
         // SYNC(chain-link) load: the same version means the same link, all the time since the first load.
         return Mem::loadShared(at->version) == link.version;
      }
   };

   enum class Step { pass, take, absent }; ///< what a walk does with a row
   enum class Outcome { found, absent, chainEnd, restart };
   struct Chain {
      Outcome outcome;
      u32 slot = 0;    ///< found: its index
      u32 word = 0;    ///< found: its sequence word
      u32 rhash = 0;   ///< found: its place in the order
      u32 endLink = 0; ///< chainEnd: `next` of the last link
   };
   template <Walk walk, class Judge>
   Chain walkChain(u32 bucket, unsigned char* value, Judge const& judge) const;
   template <Walk walk, class Judge>
   Chain passChain(u32 bucket, unsigned char* value, Judge const& judge, bool& excess) const;

   enum class Fast { found, chainEnd, unfit };
   Fast nextFast(Key const& key, Value& value, IterHint& hint, u32& endLink) const;
   bool nextSlow(Key const& key, Value& value, IterHint& hint) const;
   bool goOnAfter(Walk walk, Key const& key, u32 bucket, u32 endLink, Value& value, IterHint& hint) const;
   u32 successor(u32 bucket, u32 endLink) const;

   u32 bucketOf(u32 hash) const { return hash & (buckets_.numBuckets() - 1); }
   bool belongs(u32 hash, u32 bucket) const;
   bool outdated(u32 rhash, IterHint const& hint) const;
   u32 checkKey(Walk walk, Key const& key, u32 bucket) const;
   static ReaderErrors::KeyBytes bytesOf(Key const& key) { return {&key, sizeof key}; }

   Lomi::Platform::DebugHandler const& debugHandler_;
   BucketReader<SlotLink> buckets_;
   Owner const* reader_;
};

} // namespace MirakCore

#include "MirakCore/ReaderHashMapLookup.h"
#include "MirakCore/ReaderHashMapWalk.h"
