// SPDX-License-Identifier: Apache-2.0
// Statistics of one writer or reader object: plain records of this process, returned by value. No decision
// reads them and no other process sees them.
#pragma once

#include "Mirak/SlotLink.h"

namespace Mirak {

namespace Writer {
struct Counters {
   u64 lookups = 0;
   u64 slotsAllocated = 0;
   u64 slotsFreed = 0;
   u64 slotsMoved = 0;
   u64 slotGrows = 0;
   u64 slotShrinks = 0;
   u64 bucketGrows = 0;
   u64 bucketShrinks = 0;
   u64 remaps = 0;       ///< resizes that moved a mapping's base
   u64 nextSlowPath = 0; ///< steps of a walk that could not use their hint
   u64 directWrites = 0;
   u64 directUpdates = 0;
   u64 directCommits = 0;
   double lastBucketGrow = 0;      ///< seconds
   double longestBucketGrow = 0;   ///< seconds
   double lastBucketShrink = 0;    ///< seconds
   double longestBucketShrink = 0; ///< seconds
   u64 slotBytesMapped = 0;        ///< filled in by writerCounters()
   u64 bucketBytesMapped = 0;      ///< filled in by writerCounters()
   // Of tables with a change queue; filled in by writerCounters().
   u64 ruskCount = 0;          ///< wake-ups sent
   u64 sequencesProcessed = 0; ///< messages in which a follower said how far it is
   u32 readers = 0;            ///< followers that are connected
   u32 sleepingReaders = 0;
   u64 droppedPeers = 0; ///< connections that were closed for what they did
   u64 queueTurns = 0;   ///< times that the queue changed its table
   u64 queueBytesMapped = 0;
};
} // namespace Writer

namespace Reader {
struct BucketCounters {
   u64 resizes = 0;
   u64 remaps = 0;
   u64 bytesMapped = 0; ///< filled in by readerCounters()
};

struct Counters {
   u64 lookups = 0;
   u64 lookasideReads = 0; ///< passes through a slot that found its value in `lookaside`
   u64 retries = 0;        ///< restarts of a chain walk
   u64 nextSlowPath = 0;   ///< steps of a walk that could not use their hint
   u64 wrapperRetries = 0; ///< operations repeated because the table was resized meanwhile
   u64 slotResizes = 0;
   u64 remaps = 0;
   BucketCounters buckets;
   u64 slotBytesMapped = 0; ///< filled in by readerCounters()
   // Of shadows.
   u64 sequence = 0;     ///< of the last change that the copy has taken in
   u64 syncSequence = 0; ///< at the start of the last sweep that was completed
   u32 members = 0;      ///< rows in the copy
   u32 resyncs = 0;      ///< sweeps after the first one: changes had been lost to the queue's bound
   u32 shadowBucketGrows = 0;
   u32 shadowBucketShrinks = 0;
   u32 shadowSlotGrows = 0;
   u32 shadowSlotShrinks = 0;
   u32 shadowPatches = 0;       ///< moves of the local slots in memory
   u32 shadowKeyMismatches = 0; ///< a shared slot no longer held the key of the local one
   u32 shadowWrites = 0;        ///< rows taken in
   u32 shadowKeyMoves = 0;      ///< of these, found in another slot than before
   u32 pendingLookupHits = 0;   ///< lookups answered from the change in progress
   u32 pendingLookupMisses = 0; ///< lookups of other keys meanwhile
   u32 failedNotifications = 0; ///< queue entries that no longer counted when they were met
   u64 sequencesSent = 0;       ///< messages to the writer of how far the copy is
   u64 shadowMappedSize = 0;    ///< bytes of private memory; filled in by readerCounters()
   u64 kestorMappedSize = 0;    ///< filled in by readerCounters()
   u64 queueBytesMapped = 0;    ///< filled in by readerCounters()
};
} // namespace Reader

} // namespace Mirak
