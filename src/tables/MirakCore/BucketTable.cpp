// SPDX-License-Identifier: Apache-2.0
// Checks and text of the bucket file's header. See BucketTable.h.
#include "MirakCore/BucketTable.h"

#include <fmt/format.h>

namespace MirakCore {

std::string BucketTableHeader::toString() const {
   BucketTableHeader own;
   Mem::loadShared(&own, this, sizeof own);
   return fmt::format("magic:{:#x} version:{} kestor:{} numBuckets:{:#x}:{}", own.magic, own.version,
                      Parcel::KestorId(own.kestor).text(), own.numBuckets.version, own.numBuckets.value);
}

bool BucketTableHeader::validate(Lomi::Platform::DebugHandler const& handler, u64 fileSize,
                                 Parcel::KestorId wantedKestor, std::string& error) const {
   BucketTableHeader own;
   Mem::loadShared(&own, this, sizeof own);
   std::string failure;
   u32 const count = own.numBuckets.value;
   if (own.magic != magicValue)
      failure = fmt::format("bad bucket magic: {:x}", own.magic);
   else if (own.version != formatVersion)
      failure = fmt::format("bad bucket version: {}", own.version);
   else if (wantedKestor.value() != 0 && own.kestor != wantedKestor.value())
      failure = fmt::format("bad bucket kestor:{} wanted:{}", Parcel::KestorId(own.kestor).text(),
                            wantedKestor.text());
   else if (!isBucketCount(count))
      failure = fmt::format("bad numBuckets: {}, wanted a power of two up to {}", count, maxBuckets);
   else if (fileSize < bucketFileSize(count))
      failure = fmt::format("bad bucket file size:{} wanted:{} for {} buckets", fileSize,
                            bucketFileSize(count), count);
   if (failure.empty()) return true;
   LOMI_TRACE(handler, 0, "BucketTable", "{}", failure);
   error = std::move(failure);
   return false;
}

} // namespace MirakCore
