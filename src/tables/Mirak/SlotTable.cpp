// SPDX-License-Identifier: Apache-2.0
// The slot file's header: formatting, checksum, checks and text. See SlotTable.h.
#include "Mirak/SlotTable.h"

#include "Lomi/Exception.h"
#include "Lomi/HashMix.h"
#include "Lomi/Util.h"
#include "Mem/Local.h"
#include "Mem/Page.h"

#include <bit>
#include <cstring>
#include <fmt/format.h>

namespace Mirak {

u32 slotsInOnePage(u32 headerSize, u32 slotSize) {
   u64 const page = Mem::pageSize_;
   if (page <= headerSize || page - headerSize < slotSize) return 1;
   return static_cast<u32>(std::bit_floor((page - headerSize) / slotSize));
}

std::string Compatibility::platformType(u32 platform) {
   if (platform == static_cast<u32>(Platform::x86)) return "x86";
   return fmt::format("unknown({})", platform);
}

std::string SlotTableHeader::valueTypeName() const {
   char name[valueTypeBytes];
   for (u32 i = 0; i < valueTypeBytes; ++i) name[i] = Mem::loadShared(valueType[i]);
   return std::string(name, strnlen(name, valueTypeBytes));
}

u32 SlotTableHeader::checksum() const {
   // A private copy of the live bytes: the mix may then read them as it likes.
   SlotTableHeader own;
   Mem::loadShared(&own, this, sizeof own);
   Lomi::Impl::HashMix<unsigned int> mix(0x811c9dc5);
   mix.mix(own.valueType, valueTypeBytes);
   mix.mixFixedLen<4>(&own.valueSize);
   mix.mixFixedLen<4>(&own.slotSize);
   mix.mixFixedLen<4>(&own.maxSlots);
   mix.mixFixedLen<2>(&own.constFlags);
   mix.mixFixedLen<4>(&own.hashSeed);
   return mix.value();
}

std::string SlotTableHeader::toString() const {
   SlotTableHeader own;
   Mem::loadShared(&own, this, sizeof own);
   return fmt::format(
       "magic:{:#x} version:{} kestor:{} platform:{} valueType:\"{}\" valueSize:{} slotSize:{} maxSlots:{} "
       "constFlags:{:#x} runtimeFlags:{:#x} hash:{:#x} occupiedSlots:{} freeSlots:{} mostSlots:{} "
       "hashSeed:{} "
       "numSlots:{:#x}:{} scratchpad:{}",
       own.magic, own.version, Parcel::KestorId(own.kestor).text(), own.platform, own.valueTypeName(),
       own.valueSize, own.slotSize, own.maxSlots, own.constFlags, own.runtimeFlags, own.hash,
       own.occupiedSlots, own.freeSlots, own.mostSlots, own.hashSeed, own.numSlots.version,
       own.numSlots.value, own.scratchpad);
}

namespace {

/// The first rule that the header breaks, in the fixed order of the checks; empty if it is sound.
std::string firstFailure(SlotTableHeader const& h, u64 fileSize, Parcel::KestorId wanted, u32 headerSize,
                         u32 slotSize) {
   u32 const capacity = h.numSlots.value;
   if (h.magic != SlotTableHeader::magicValue) return fmt::format("bad magic: {:x}", h.magic);
   if (h.version != SlotTableHeader::formatVersion) return fmt::format("bad version: {}", h.version);
   if (wanted.value() != 0 && h.kestor != wanted.value())
      return fmt::format("bad kestor:{} wanted:{}", Parcel::KestorId(h.kestor).text(), wanted.text());
   auto const platform = static_cast<u32>(Compatibility::Platform::x86);
   if (h.platform != platform)
      return fmt::format("bad platform specification: {} expecting: {}",
                         Compatibility::platformType(h.platform), Compatibility::platformType(platform));
   if (u32 const sum = h.checksum(); sum != h.hash)
      return fmt::format("checksum fail: {:x} != {:x}", sum, h.hash);
   if (h.occupiedSlots > capacity)
      return fmt::format("bad occupiedSlots: {} num slots: {}", h.occupiedSlots, capacity);
   if (h.freeSlots != noSlot && h.freeSlots >= capacity)
      return fmt::format("bad freeSlots: {} slots: {}", h.freeSlots, capacity);
   if (h.mostSlots < capacity) return fmt::format("bad mostSlots:{} numSlots:{}", h.mostSlots, capacity);
   if (fileSize < headerSize) return fmt::format("bad header file size: {} wanted:{}", fileSize, headerSize);
   if (fileSize >= Mem::Local::maxMappingSize()) return fmt::format("bad file size:{}", fileSize);
   u64 wantedSize = 0;
   try {
      wantedSize = Lomi::Util::fileSizeHelper(capacity, slotSize, headerSize);
   } catch (Lomi::RuntimeException const& e) {
      return fmt::format("bad numSlots: {} message: {}", capacity, e.what());
   }
   if (fileSize < wantedSize)
      return fmt::format("bad shmem size:{} wanted:{} for {} slots", fileSize, wantedSize, capacity);
   return {};
}

} // namespace

bool SlotTableHeader::validate(Lomi::Platform::DebugHandler const& handler, u64 fileSize,
                               Parcel::KestorId wantedKestor, u32 headerSize, u32 ownSlotSize,
                               std::string& error) const {
   SlotTableHeader own;
   Mem::loadShared(&own, this, sizeof own);
   std::string failure = firstFailure(own, fileSize, wantedKestor, headerSize, ownSlotSize);
   if (failure.empty()) return true;
   LOMI_TRACE(handler, 0, "SlotTable", "{}", failure);
   error = std::move(failure);
   return false;
}

void formatHeader(SlotTableHeader& header, SlotTableFormat const& format) {
   if (format.valueType.size() >= SlotTableHeader::valueTypeBytes)
      throw Lomi::InvalidInitializeException(fmt::format("value typename {} exceeds {} characters",
                                                         format.valueType, SlotTableHeader::valueTypeBytes));
   // SYNC(kestor) store: the generation comes first, so whoever reads anything of the new table sees it, too.
   Mem::storeShared(header.kestor, format.kestor.value());
   Mem::storeShared(header.magic, SlotTableHeader::magicValue);
   Mem::storeShared(header.version, SlotTableHeader::formatVersion);
   Mem::storeShared(header.platform, static_cast<u32>(Compatibility::Platform::x86));
   for (u32 i = 0; i < format.valueType.size(); ++i)
      Mem::storeShared(header.valueType[i], format.valueType[i]);
   Mem::storeShared(header.valueType[format.valueType.size()], '\0');
   Mem::storeShared(header.valueSize, format.valueSize);
   Mem::storeShared(header.slotSize, format.slotSize);
   Mem::storeShared(header.maxSlots, format.maxSlots);
   Mem::storeShared(header.constFlags, format.constFlags);
   Mem::storeShared(header.runtimeFlags, u16{0});
   Mem::storeShared(header.occupiedSlots, u32{0});
   Mem::storeShared(header.freeSlots, noSlot);
   Mem::storeShared(header.mostSlots, format.numSlots);
   Mem::storeShared(header.hashSeed, format.hashSeed);
   Mem::publishPair(header.numSlots, Mem::VersionedRef<u32>{0, format.numSlots});
   Mem::storeShared(header.scratchpad, u64{0});
   Mem::storeShared(header.hash, header.checksum());
}

std::string typeMismatch(SlotTableHeader const& copy, std::string_view valueType, u32 valueSize, u32 slotSize,
                         u16 constFlags) {
   if (std::string const found = copy.valueTypeName(); found != valueType)
      return fmt::format("holds values of type \"{}\", wanted \"{}\"", found, valueType);
   if (copy.valueSize != valueSize || copy.slotSize != slotSize)
      return fmt::format("has valueSize:{} slotSize:{}, wanted valueSize:{} slotSize:{}", copy.valueSize,
                         copy.slotSize, valueSize, slotSize);
   if (copy.constFlags != constFlags)
      return fmt::format("has constFlags:{:#x}, wanted {:#x}", copy.constFlags, constFlags);
   return {};
}

} // namespace Mirak
