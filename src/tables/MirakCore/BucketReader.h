// SPDX-License-Identifier: Apache-2.0
// A reader's mapping of the bucket file: maps it read-only, keeps a private copy of the bucket count, and
// follows when the writer has doubled or halved the table. It changes nothing in the file and resizes
// nothing. What the entries say is ReaderHashMap's business; the file's layout is in BucketTable.h.
//
// Guarantees. Every index below numBuckets() lies in the mapping. The private count changes only in
// validate(), doResize() and detach(), and only to a count that the file is long enough for. A call that
// throws leaves the mapping and the count as they were.
//
// One thread per object.
#pragma once

#include "Mem/ParcelWrapper.h"
#include "Mirak/Counters.h"
#include "MirakCore/BucketTable.h"
#include "MirakCore/ReaderErrors.h"

#include <string>

namespace MirakCore {

template <class Link> class BucketReader {
   static_assert(sizeof(Link) == 8);

public:
   static constexpr char const* fileName = "buckets";

   BucketReader(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath,
                Mirak::Reader::BucketCounters& counters);

   /// Maps the header alone; the count is still 0. @return false with the reason in `error`
   bool attach(std::string& error);
   /// Checks the header, takes the count from the copy that was checked, and maps the entries.
   /// @param kestor the generation that the file must be of; later resizes are held to it
   /// @return false with the reason in `error`
   /// @throws Lomi::MemoryResourceException when the kernel refuses the mapping: no damage
   bool validate(Parcel::KestorId kestor, std::string& error);
   void detach();
   bool attached() const { return header_ != nullptr; }

   /// True when the header's count has moved on since it was last followed; false when detached.
   bool moved() const {
      // SYNC(num-buckets) load: a version that stands still says that no entry was cut off meanwhile.
      return header_ && Mem::loadShared(header_->numBuckets.version) != numBuckets_.version;
   }
   /// Follows the header if it moved. @return whether it did
   /// @throws as doResize
   bool resize() {
      if (!moved()) return false;
      doResize();
      return true;
   }
   /// Takes the header's count over and maps that many entries. Afterwards the private version is the
   /// header's, or the writer has moved it once more.
   /// @throws Mirak::TableReformattedException when the file is of another generation
   /// @throws Lomi::CorruptionDetectedException on a count that can't be right
   /// @throws Lomi::MemoryResourceException when the kernel refuses the mapping
   void doResize();
   /// The last word on an absent row. @throws Lomi::CorruptionDetectedException when the header moved
   void checkResize() const {
      if (moved()) [[unlikely]]
         mismatch();
   }

   /// @throws Lomi::CorruptionDetectedException on an index outside the table
   Link const& operator[](u32 index) const {
      if (index >= numBuckets_.value) [[unlikely]]
         ReaderErrors::bucketOutOfRange(index, numBuckets_.value);
      return entries()[index];
   }
   /// The entries without a range check, for indices that are known to be below numBuckets().
   Link const* entries() const { return reinterpret_cast<Link const*>(header_ + 1); }
   BucketTableHeader const* header() const { return header_; }
   u32 numBuckets() const { return numBuckets_.value; } ///< 0 when detached
   u32 bits() const { return bits_; }                   ///< log2 of numBuckets()
   std::string headerToString() const { return header_ ? header_->toString() : "detached"; }
   Mem::ParcelWrapper const& mapping() const { return mapping_; }

private:
   u64 copyHeader(BucketTableHeader& copy) const;
   void follow(BucketTableHeader const& copy);
   [[noreturn, gnu::cold, gnu::noinline]] void mismatch() const;

   Lomi::Platform::DebugHandler const& debugHandler_;
   Mem::ParcelWrapper mapping_;
   Mirak::Reader::BucketCounters& counters_;
   BucketTableHeader const* header_ = nullptr; ///< the mapping's base
   u32 bits_ = 0;
   /// Private copy; all bucket arithmetic uses it, never the header.
   Mem::VersionedRef<u32> numBuckets_{0, 0};
   Parcel::KestorId kestor_;
};

extern template class BucketReader<Mirak::SlotLink>;

} // namespace MirakCore
