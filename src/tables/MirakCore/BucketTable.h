// SPDX-License-Identifier: Apache-2.0
// The bucket file: a 24-byte header and one link per bucket, and the order in which a walk visits the
// buckets.
//
// The index is a split-ordered list. All rows form one list sorted by the bit-reversed hash of their keys
// (then by the key), and bucket b is an entry point into it: the first row whose hash ends in b's bits.
// Bucket numbers are the hash's low bits, the order its reversed bits, so doubling the table never moves a
// row: the chain of b splits at one point into the chains of b and b + n. Each chain ends in a link that
// names the next bucket of the walk.
//
//   3 bits: the walk is 0, 4, 2, 6, 1, 5, 3, 7 (count up, then reverse the bits)
#pragma once

#include "Lomi/Trace.h"
#include "Mirak/SlotLink.h"
#include "Parcel/KestorId.h"

#include <bit>
#include <cstddef>
#include <string>

namespace MirakCore {

using Mirak::chainEnd;
using Mirak::SlotLink;
using Mirak::u32;
using Mirak::u64;

/// The bucket file's header. Only BucketWriter stores into it.
struct HOFLOW_EXPORT BucketTableHeader {
   static constexpr u64 magicValue = 0x544b424b4152494d; ///< "MIRAKBKT"
   static constexpr u32 formatVersion = 1;

   u64 magic;
   u32 version;
   u32 kestor;                        ///< generation of the writer that formatted the file
   Mem::VersionedRef<u32> numBuckets; ///< SYNC(num-buckets); its version goes on across a re-format

   std::string toString() const;
   /// Checks a header against the file's size. @param wantedKestor 0 takes any
   /// @return false with the failed rule's text in `error`, traced at level 0
   bool validate(Lomi::Platform::DebugHandler const& handler, u64 fileSize, Parcel::KestorId wantedKestor,
                 std::string& error) const;
};
static_assert(sizeof(BucketTableHeader) == 24 && offsetof(BucketTableHeader, numBuckets) == 16,
              "offsets are part of the file format");

inline constexpr u32 maxBuckets = 1u << 28; ///< a file of twice as many is too long to be mapped

/// Bytes of a bucket file with `buckets` entries.
constexpr u64 bucketFileSize(u32 buckets) { return sizeof(BucketTableHeader) + u64{8} * buckets; }

/// True for a count that a bucket file may have.
constexpr bool isBucketCount(u32 count) { return std::has_single_bit(count) && count <= maxBuckets; }

/// The successor of `index` when `bits`-bit numbers are counted in bit-reversed form; 0 follows the last one.
/// 0xffffffff when `bits` is 0 or above 31.
constexpr u32 bitReversePermute(u32 index, u32 bits) {
   if (bits - 1 > 30) return 0xffffffff;
   u32 const shift = 32 - bits;
   u32 const v = index << shift;
   u32 const leadingOnes = static_cast<u32>(std::countl_one(v));
   if (leadingOnes >= bits) return 0; // all ones: the walk begins anew
   // Set the highest zero bit, clear the ones above it.
   u32 const bit = 0x80000000u >> leadingOnes;
   return ((v & (bit - 1)) | bit) >> shift;
}

static_assert(bitReversePermute(0, 3) == 4 && bitReversePermute(4, 3) == 2 && bitReversePermute(2, 3) == 6 &&
              bitReversePermute(6, 3) == 1 && bitReversePermute(5, 3) == 3 && bitReversePermute(7, 3) == 0);

} // namespace MirakCore
