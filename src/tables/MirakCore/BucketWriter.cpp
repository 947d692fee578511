// SPDX-License-Identifier: Apache-2.0
// The writer's bucket file: adopting, formatting, following the count. See BucketWriter.h.
#include "MirakCore/BucketWriter.h"

#include "Lomi/Exception.h"
#include "Mirak/Util.h"

#include <fmt/format.h>
#include <utility>

namespace MirakCore {

using Mem::Mode;

template <class Link>
BucketWriter<Link>::BucketWriter(Lomi::Platform::DebugHandler const& handler,
                                 Mem::NaoRootPath const& rootPath, bool local,
                                 std::function<void()> beforeFormat)
   : debugHandler_(handler)
   , wrapper_(handler, rootPath, fileName, local)
   , beforeFormat_(std::move(beforeFormat)) {}

template <class Link> AttachResult BucketWriter<Link>::attach(Parcel::KestorId kestor) {
   detach();
   u64 const existing = wrapper_.memSize();
   u64 const size = bucketFileSize(initialBuckets);
   char* base = wrapper_.attach(size, Mode::writer);
   if (!base)
      throw Lomi::InvalidInitializeException(fmt::format("cannot attach to shmem {} size:{}: {}",
                                                         wrapper_.getFilename(), size, wrapper_.lastError()));
   header_ = reinterpret_cast<BucketTableHeader*>(base);
   if (existing != 0 && adopt(kestor, existing)) return attachedExisting;
   beforeFormat_();
   format(kestor);
   // What lies behind the fresh table belongs to nobody any more.
   wrapper_.releaseTailAfter(size);
   return existing != 0 ? attachedReformatted : attachedNew;
}

/// Takes the file over as it is, if it is sound and of this generation. `existing` is its length as it was
/// found.
template <class Link> bool BucketWriter<Link>::adopt(Parcel::KestorId kestor, u64 existing) {
   if (Mem::loadShared(header_->kestor) != kestor.value()) return false;
   std::string error;
   if (!header_->validate(debugHandler_, existing, kestor, error)) return false;
   u32 const count = Mem::loadPair(header_->numBuckets).value;
   char* base = wrapper_.resize(bucketFileSize(count));
   if (!base)
      throw Lomi::MemoryResourceException(fmt::format("failed to resize {} to size {} : {}",
                                                      wrapper_.getFilename(), bucketFileSize(count),
                                                      wrapper_.lastError()));
   follow(base, count);
   if (u64 const size = bucketFileSize(count); existing > size) wrapper_.releaseTailAfter(size);
   return true;
}

template <class Link> void BucketWriter<Link>::format(Parcel::KestorId kestor) {
   // SYNC(num-buckets) store: the version goes on from whatever is there, so every reader that still has the
   // old table mapped sees a resize, looks at the generation, and learns of the re-format.
   u32 const version = Mem::loadPair(header_->numBuckets).version;
   Mem::storeShared(header_->kestor, kestor.value());
   Mem::storeShared(header_->magic, BucketTableHeader::magicValue);
   Mem::storeShared(header_->version, BucketTableHeader::formatVersion);
   Mem::publishPair(header_->numBuckets, Mem::VersionedRef<u32>{version + 1, initialBuckets});
   follow(reinterpret_cast<char*>(header_), initialBuckets);
   for (u32 bucket = 0; bucket < numBuckets_; ++bucket) {
      u32 const next = bitReversePermute(bucket, bucketFactor_);
      Mirak::publishLink(entries()[bucket], next == 0 ? Mirak::noSlot : chainEnd(next));
   }
}

template <class Link> void BucketWriter<Link>::detach() {
   header_ = nullptr;
   numBuckets_ = 0;
   bucketFactor_ = 0;
   wrapper_.detach();
}

template <class Link> void BucketWriter<Link>::resize(u32 newNumBuckets) {
   u64 const size = bucketFileSize(newNumBuckets);
   char* base = wrapper_.resize(size);
   if (!base) refuseResize(newNumBuckets, size);
   bool const shrunk = newNumBuckets < numBuckets_;
   follow(base, newNumBuckets);
   // Readers may be just inside the part that was cut: it keeps its length, and its blocks for a moment.
   if (shrunk) wrapper_.releaseTailAfter(size);
}

template <class Link> void BucketWriter<Link>::reserve(u32 newNumBuckets) {
   if (u64 const size = bucketFileSize(newNumBuckets); !wrapper_.reserve(size))
      refuseResize(newNumBuckets, size);
}

template <class Link> void BucketWriter<Link>::refuseResize(u32 newNumBuckets, u64 size) const {
   throw Lomi::MemoryResourceException(
       fmt::format("failed to resize {} from {} to {} buckets, needed {} bytes. Reason: {}",
                   wrapper_.getFilename(), numBuckets_, newNumBuckets, size, wrapper_.lastError()));
}

template <class Link> void BucketWriter<Link>::follow(char* base, u32 numBuckets) {
   auto* header = reinterpret_cast<BucketTableHeader*>(base);
   if (header != header_) ++remaps_;
   header_ = header;
   numBuckets_ = numBuckets;
   bucketFactor_ = static_cast<u32>(std::countr_zero(numBuckets));
}

template <class Link> bool BucketWriter<Link>::validate(Parcel::KestorId kestor, std::string& error) const {
   return header_->validate(debugHandler_, wrapper_.fileSize(), kestor, error);
}

template <class Link> void BucketWriter<Link>::validateFile() const {
   u64 const mapped = wrapper_.mappedSize();
   Mirak::Util::validateFile(debugHandler_, wrapper_.getFilename(),
                             mapped ? mapped : sizeof(BucketTableHeader));
}

template <class Link> void BucketWriter<Link>::cleanup() {
   if (!wrapper_.remove()) throw Lomi::RuntimeException(wrapper_.lastError());
}

template <class Link> void BucketWriter<Link>::outOfRange(u32 index) const {
   throw Lomi::CorruptionDetectedException(
       fmt::format("out-of-range, index:{} max:{}", index, numBuckets_ - 1));
}

template class BucketWriter<Mirak::SlotLink>;

} // namespace MirakCore
