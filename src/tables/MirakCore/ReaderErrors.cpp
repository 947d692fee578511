// SPDX-License-Identifier: Apache-2.0
// See ReaderErrors.h.
#include "MirakCore/ReaderErrors.h"

#include "Lomi/Exception.h"
#include "Lomi/Util.h"

#include <fmt/format.h>

namespace MirakCore::ReaderErrors {

using Lomi::CorruptionDetectedException;

namespace {
std::string hex(KeyBytes key) { return Lomi::dumpHex(key.bytes, key.length); }
} // namespace

void slotOutOfRange(u32 index, u32 numSlots) {
   throw CorruptionDetectedException(fmt::format("out-of-range index:{} numSlots:{}", index, numSlots));
}

void bucketOutOfRange(u32 index, u32 numBuckets) {
   throw CorruptionDetectedException(fmt::format("out-of-range, index:{} max:{}", index, numBuckets - 1));
}

void slotCycle(u32 slotCount, u32 capacity) {
   throw CorruptionDetectedException(
       fmt::format("hash chain cycle detected, slotCount:{} capacity:{}", slotCount, capacity));
}

void bucketCycle(u32 bucketCount, u32 numBuckets) {
   throw CorruptionDetectedException(
       fmt::format("has bucket cycle detected, bucketCount: {} numBuckets: {}", bucketCount, numBuckets));
}

void notOccupied(Walk walk, u32 slot, KeyBytes key, u32 slotCount) {
   if (walk == Walk::nextSlow)
      throw CorruptionDetectedException(fmt::format(
          "slow-path slot:{} not marked as occupied key:{} slotCount:{}", slot, hex(key), slotCount));
   throw CorruptionDetectedException(fmt::format("slot:{} not marked as occupied key:{}", slot, hex(key)));
}

void corruptKey(Walk walk, KeyBytes key, u32 bucket) {
   switch (walk) {
   case Walk::lookup:
      throw CorruptionDetectedException(
          fmt::format("corrupt key detected. key:{} bucketIndex:{}", hex(key), bucket));
   case Walk::first:
      throw CorruptionDetectedException(
          fmt::format("corrupt key detected, key:{} bucket:{}", hex(key), bucket));
   case Walk::nextFast:
   case Walk::nextSlow:
      break;
   }
   throw CorruptionDetectedException(
       fmt::format("corrupt key detected. key:{} bucketIndex {}", hex(key), bucket));
}

void corruptOrder(u32 slot, u32 stored, u32 computed) {
   throw CorruptionDetectedException(fmt::format(
       "corrupt rhash detected, slotId: {} slot.rhash:{:08x} rhash:{:08x}", slot, stored, computed));
}

void badNextBucket(u32 bucket, u32 next, u32 numBuckets) {
   throw CorruptionDetectedException(
       fmt::format("has bucket: {} with next bucket: {} and numBuckets: {}", bucket, next, numBuckets));
}

} // namespace MirakCore::ReaderErrors
