// SPDX-License-Identifier: Apache-2.0
#include "Tessel/QueueFormat.h"

#include "Lomi/HashMix.h"

#include <fmt/format.h>

namespace Tessel {

u32 QueueHeader::checksum() const {
   Lomi::Impl::HashMix<unsigned> mix(0x811c9dc5);
   mix.mix(&magic, sizeof magic);
   mix.mix(&version, sizeof version);
   mix.mix(&platform, sizeof platform);
   mix.mix(&entryKind, sizeof entryKind);
   return mix.value();
}

std::string QueueHeader::toString() const {
   QueueHeader own;
   Mem::loadShared(&own, this, sizeof own);
   return fmt::format(
       "magic:{:#x} version:{} kestor:{} platform:{} entryKind:{} hash:{:#x} next:{} generation:{} "
       "slotsLength:{} base:{},{} corralStart:{} corralEnd:{} floor:{}",
       own.magic, own.version, Parcel::KestorId(own.kestor).text(), own.platform, own.entryKind, own.hash,
       own.next, own.generation, own.slotsLength, own.base[0], own.base[1], own.corralStart, own.corralEnd,
       own.floor);
}

bool QueueHeader::validate(Parcel::KestorId wantedKestor, std::string& error) const {
   QueueHeader own;
   Mem::loadShared(&own, this, sizeof own);
   if (own.magic != magicValue)
      error = fmt::format("bad queue magic: {:x}", own.magic);
   else if (own.version != formatVersion)
      error = fmt::format("bad queue version: {}", own.version);
   else if (wantedKestor.value() != 0 && own.kestor != wantedKestor.value())
      error = fmt::format("bad queue kestor:{} wanted:{}", Parcel::KestorId(own.kestor).text(),
                          wantedKestor.text());
   else if (own.platform != platformX86)
      error = fmt::format("bad queue platform: {}", own.platform);
   else if (own.entryKind != slotEntries)
      error = fmt::format("bad queue entry kind: {}", own.entryKind);
   else if (own.hash != own.checksum())
      error = fmt::format("bad queue hash:{:#x} wanted:{:#x}", own.hash, own.checksum());
   else
      return true;
   return false;
}

} // namespace Tessel
