// SPDX-License-Identifier: Apache-2.0
// The writer's mapping of the bucket file: formats or adopts it, gives the entries, makes the file longer and
// shorter. What the entries say is WriterHashMap's business. One writer process, one thread.
//
// Crash: a file formatted half way carries a generation that the kestor file doesn't name (the kestor file is
// gone before the first destructive store), so it is formatted again. In a grow the new half lies behind the
// published count until it is complete; in a shrink the count falls before the file is cut.
#pragma once

#include "Mem/ParcelWrapper.h"
#include "MirakCore/BucketTable.h"

#include <algorithm>
#include <functional>
#include <string>

namespace MirakCore {

/// What `attach` of each of a table's files found and did; the three are OR-ed.
enum AttachResult : int { attachedNew = 1, attachedExisting = 2, attachedReformatted = 4 };

template <class Link> class BucketWriter {
   static_assert(sizeof(Link) == 8);

public:
   /// 256 heads and the header fit in one page, so fewer would save nothing.
   static constexpr u32 initialBuckets = 256;
   static constexpr char const* fileName = "buckets";

   /// @param beforeFormat called before the file, found or new, is formatted
   BucketWriter(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath, bool local,
                std::function<void()> beforeFormat);

   /// Maps the file, creating it if need be; keeps it if it is sound and of this generation, else formats it.
   /// @throws Lomi::InvalidInitializeException, Lomi::MemoryResourceException
   AttachResult attach(Parcel::KestorId kestor);
   void detach();
   bool attached() const { return header_ != nullptr; }

   /// Follows the count to `newNumBuckets`, in memory and on disk; the published count is the caller's to
   /// store. After a shrink the blocks behind the end go back to the system a moment later.
   /// @throws Lomi::MemoryResourceException with nothing changed
   void resize(u32 newNumBuckets);
   /// Makes sure that a resize to `newNumBuckets` will not run out of space. @throws
   /// Lomi::MemoryResourceException
   void reserve(u32 newNumBuckets);
   /// Does a part of reserve(coming) beforehand: at least up to `entries`. @return false if there is no
   /// space, or no use
   bool reserveAhead(u32 entries, u32 coming) {
      constexpr u32 atOnce = 8192; // entries: 64 KiB, a few microseconds
      if (coming > maxBuckets) return false;
      u32 const to = std::min(coming, (entries + atOnce - 1) / atOnce * atOnce);
      return wrapper_.reserve(bucketFileSize(to), bucketFileSize(coming));
   }
   bool validate(Parcel::KestorId kestor, std::string& error) const;
   void validateFile() const;
   /// Removes the file. @throws Lomi::RuntimeException if it can't be removed
   void cleanup();

   /// @throws Lomi::CorruptionDetectedException on an index outside the table
   Link& operator[](u32 index) {
      if (index >= numBuckets_) [[unlikely]]
         outOfRange(index);
      return entries()[index];
   }
   Link const& operator[](u32 index) const { return const_cast<BucketWriter&>(*this)[index]; }
   /// The entries without a range check, for loops whose bound is numBuckets().
   Link* entries() { return reinterpret_cast<Link*>(header_ + 1); }
   Link const* entries() const { return reinterpret_cast<Link const*>(header_ + 1); }
   u32 numBuckets() const { return numBuckets_; }
   u32 bucketFactor() const { return bucketFactor_; } ///< log2 of numBuckets()
   BucketTableHeader& header() { return *header_; }
   std::string headerToString() const { return header_ ? header_->toString() : "detached"; }

   Mem::ParcelWrapper& wrapper() { return wrapper_; }
   Mem::ParcelWrapper const& wrapper() const { return wrapper_; }
   u64 remaps() const { return remaps_; }

private:
   bool adopt(Parcel::KestorId kestor, u64 existing);
   void format(Parcel::KestorId kestor);
   void follow(char* base, u32 numBuckets);
   [[noreturn, gnu::cold]] void outOfRange(u32 index) const;
   [[noreturn, gnu::cold]] void refuseResize(u32 newNumBuckets, u64 size) const;

   Lomi::Platform::DebugHandler const& debugHandler_;
   Mem::ParcelWrapper wrapper_;
   std::function<void()> beforeFormat_;
   BucketTableHeader* header_ = nullptr;
   u32 bucketFactor_ = 0; ///< log2 of numBuckets_
   u32 numBuckets_ = 0;   ///< the count that the writer works with; ahead of the header's during a grow
   u64 remaps_ = 0;
};

extern template class BucketWriter<Mirak::SlotLink>;

} // namespace MirakCore
