// SPDX-License-Identifier: Apache-2.0
// A reader's bucket file: checking the header, following the count. See BucketReader.h.
#include "MirakCore/BucketReader.h"

#include "Mirak/Exception.h"

#include <fmt/format.h>

namespace MirakCore {

template <class Link>
BucketReader<Link>::BucketReader(Lomi::Platform::DebugHandler const& handler,
                                 Mem::NaoRootPath const& rootPath, Mirak::Reader::BucketCounters& counters)
   : debugHandler_(handler)
   , mapping_(handler, rootPath, fileName, false)
   , counters_(counters) {}

template <class Link> bool BucketReader<Link>::attach(std::string& error) {
   detach();
   u64 const size = mapping_.memSize();
   if (size < sizeof(BucketTableHeader)) {
      // Nothing behind the end of a file may be touched.
      error = size == 0 ? "no shared memory region"
                        : fmt::format("bad bucket file size:{} wanted:{} for the header", size,
                                      sizeof(BucketTableHeader));
      LOMI_TRACE(debugHandler_, 0, "BucketReader", "{}", error);
      return false;
   }
   char const* base = mapping_.attach(sizeof(BucketTableHeader), Mem::Mode::reader);
   if (!base) {
      error =
          fmt::format("cannot attach to shmem size:{}: {}", sizeof(BucketTableHeader), mapping_.lastError());
      LOMI_TRACE(debugHandler_, 0, "BucketReader", "{}", error);
      return false;
   }
   header_ = reinterpret_cast<BucketTableHeader const*>(base);
   return true;
}

template <class Link> void BucketReader<Link>::detach() {
   header_ = nullptr;
   bits_ = 0;
   numBuckets_ = {0, 0};
   mapping_.detach();
}

/// A copy that straddles no grow or shrink, and the file's size of that time.
template <class Link> u64 BucketReader<Link>::copyHeader(BucketTableHeader& copy) const {
   for (;;) {
      // SYNC(num-buckets) load: an unchanged version on both sides of the copy proves it whole. A repeat
      // needs another grow or shrink by the writer in between.
      u32 const before = Mem::loadShared(header_->numBuckets.version);
      Mem::loadShared(&copy, header_, sizeof copy);
      u64 const size = mapping_.memSize();
      if (Mem::loadShared(header_->numBuckets.version) == before) return size;
   }
}

template <class Link> bool BucketReader<Link>::validate(Parcel::KestorId kestor, std::string& error) {
   BucketTableHeader copy;
   u64 const size = copyHeader(copy);
   if (!copy.validate(debugHandler_, size, kestor, error)) return false;
   follow(copy);
   kestor_ = kestor;
   return true;
}

template <class Link> void BucketReader<Link>::doResize() {
   BucketTableHeader copy;
   u64 const size = copyHeader(copy);
   // SYNC(kestor): a re-format stores its generation before it moves the count.
   if (copy.kestor != kestor_.value())
      throw Mirak::TableReformattedException(
          fmt::format("bad kestor:{} wanted:{}", Parcel::KestorId(copy.kestor), kestor_));
   // A count of 0, one that is no power of two, or one beyond the file's end must not reach the private copy:
   // 0 would mean "detached" and all others reach behind the mapping.
   std::string error;
   if (!copy.validate(debugHandler_, size, kestor_, error)) throw Lomi::CorruptionDetectedException(error);
   u32 const old = numBuckets_.value;
   follow(copy);
   ++counters_.resizes;
   LOMI_TRACE(debugHandler_, 2, "BucketReader", "{} from {} to {} buckets", mapping_.getFilename(), old,
              numBuckets_.value);
}

/// Maps what a checked header says. @throws Lomi::MemoryResourceException with everything left as it was
template <class Link> void BucketReader<Link>::follow(BucketTableHeader const& copy) {
   u32 const wanted = copy.numBuckets.value;
   char const* base = mapping_.resize(bucketFileSize(wanted));
   if (!base)
      throw Lomi::MemoryResourceException(fmt::format(
          "failed to resize {} from {} to {} buckets, needed {} bytes. Reason: {}", mapping_.getFilename(),
          numBuckets_.value, wanted, bucketFileSize(wanted), mapping_.lastError()));
   auto const* header = reinterpret_cast<BucketTableHeader const*>(base);
   if (header != header_ && numBuckets_.value != 0) ++counters_.remaps;
   header_ = header;
   numBuckets_ = copy.numBuckets;
   bits_ = static_cast<u32>(std::countr_zero(numBuckets_.value));
}

template <class Link> void BucketReader<Link>::mismatch() const {
   auto const now = Mem::loadPair(header_->numBuckets);
   std::string const text =
       fmt::format("found mismatch, local numBuckets:{:#x}:{} header numBuckets:{:#x}:{}",
                   numBuckets_.version, numBuckets_.value, now.version, now.value);
   LOMI_TRACE(debugHandler_, 0, "BucketReader", "{}", text);
   throw Lomi::CorruptionDetectedException(text);
}

template class BucketReader<Mirak::SlotLink>;

} // namespace MirakCore
