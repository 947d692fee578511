// SPDX-License-Identifier: Apache-2.0
// The slot file: header, one spare "lookaside" slot, an array of slots. Its bytes are fixed; docs/format.md
// draws them. The bucket file beside it is MirakCore/BucketTable.h.
//
// Who relies on what (SYNC labels name the pairs of stores and loads throughout the table code):
//   SYNC(slot-word)   versionFlags: the sequence lock of a slot's value. Bit 0 OCCUPIED, bit 1 LOOKASIDE,
//                     the rest counts. The value and rhash may change only while LOOKASIDE is up (readers
//                     take both from `lookaside` then) or while the slot is unreachable.
//   SYNC(chain-link)  a link publishes what it points at: the slot behind it is complete.
//   SYNC(num-slots)   numSlots: every slot below the count exists and is formatted; any change moves the
//                     version.
//   SYNC(kestor)      the first store of a re-format; whoever read anything newer sees it afterwards.
// Only the writer stores, and all stores and loads go through Mem/SharedWords.h.
#pragma once

#include "Lomi/Trace.h"
#include "Mirak/SlotLink.h"
#include "Parcel/KestorId.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

namespace Mirak {

namespace SlotFlags {
inline constexpr u32 occupied = 1;  ///< the slot holds a live entry
inline constexpr u32 lookaside = 2; ///< the value is being overwritten: read it from the lookaside slot
} // namespace SlotFlags

namespace Compatibility {
enum class Platform : u32 { x86 = 1 };
HOFLOW_EXPORT std::string platformType(u32 platform);
} // namespace Compatibility

/// The part of the slot file's header that is the same for all types: bytes 0 to 583, before `lookaside`.
/// In a mapped file every field is read and stored through Mem/SharedWords.h; a private copy is plain data.
struct HOFLOW_EXPORT SlotTableHeader {
   static constexpr u64 magicValue = 0x544c534b4152494d; ///< "MIRAKSLT"
   static constexpr u32 formatVersion = 24;              ///< raise whenever any byte's meaning changes
   static constexpr u32 valueTypeBytes = 512;
   static constexpr u16 hasChangeQueue = 2;    ///< constFlags: the writer feeds a change queue
   static constexpr u16 inCriticalSection = 1; ///< runtimeFlags: set while an operation is half done

   u64 magic;
   u32 version;
   u32 kestor; ///< SYNC(kestor): generation of the writer that formatted the file
   u32 platform;
   char valueType[valueTypeBytes]; ///< NUL-terminated; bytes behind the NUL are as found and count in `hash`
   u32 valueSize;
   u32 slotSize;
   u32 maxSlots;
   u16 constFlags;
   u16 runtimeFlags;
   u32 hash;
   u32 occupiedSlots;
   u32 freeSlots; ///< head of the free list, noSlot when empty
   u32 mostSlots; ///< the largest capacity ever
   u32 hashSeed;
   Mem::VersionedRef<u32> numSlots; ///< SYNC(num-slots)
   u64 scratchpad;                  ///< the user's own

   /// The type name up to its NUL, at most 512 characters even when no NUL stands there.
   std::string valueTypeName() const;
   /// Checksum of the fields that never change: valueType, valueSize, slotSize, maxSlots, constFlags,
   /// hashSeed.
   u32 checksum() const;
   /// The header in one line, for traces and the tool. Safe on damaged bytes.
   std::string toString() const;

   /// Checks a header (live or a copy) against the file's size and what its user wants.
   /// @param fileSize bytes of the file; @param wantedKestor 0 takes any
   /// @param headerSize, slotSize the asking table's own sizes, not the stored ones
   /// @return false with the first failed rule's text in `error`, traced at level 0
   bool validate(Lomi::Platform::DebugHandler const& handler, u64 fileSize, Parcel::KestorId wantedKestor,
                 u32 headerSize, u32 slotSize, std::string& error) const;
};

static_assert(sizeof(SlotTableHeader) == 584, "the lookaside slot begins at 584");
static_assert(offsetof(SlotTableHeader, kestor) == 12 && offsetof(SlotTableHeader, valueType) == 20 &&
                  offsetof(SlotTableHeader, valueSize) == 532 &&
                  offsetof(SlotTableHeader, runtimeFlags) == 546 && offsetof(SlotTableHeader, hash) == 548 &&
                  offsetof(SlotTableHeader, occupiedSlots) == 552 &&
                  offsetof(SlotTableHeader, hashSeed) == 564 && offsetof(SlotTableHeader, numSlots) == 568 &&
                  offsetof(SlotTableHeader, scratchpad) == 576,
              "offsets are part of the file format");

/// What never changes while a table is open: the part of the header that a format writes at once.
struct SlotTableFormat {
   u32 numSlots;
   u32 maxSlots;
   u16 constFlags;
   Parcel::KestorId kestor;
   std::string_view valueType;
   u32 valueSize;
   u32 slotSize;
   u32 hashSeed;
};

/// The largest power of two of slots that fits beside the header in one page; 1 if none does.
u32 slotsInOnePage(u32 headerSize, u32 slotSize);

/// Writes the header's words in field order (not the slots, not the free list) and computes the checksum.
/// @throws Lomi::InvalidInitializeException when the type name has 512 characters or more
void formatHeader(SlotTableHeader& header, SlotTableFormat const& format);

/// Takes a copy of a live header that straddles no grow or shrink; its counters may be of different moments.
/// @param memSize called after the copy, gives the file's size; @return that size
template <class MemSize>
u64 safeHeaderCopy(SlotTableHeader const& live, SlotTableHeader& copy, MemSize&& memSize) {
   for (;;) {
      // SYNC(num-slots) load: an unchanged version on both sides of the copy proves the copy whole. A repeat
      // needs another grow or shrink by the writer in between.
      u32 const before = Mem::loadPair(live.numSlots).version;
      Mem::loadShared(&copy, &live, sizeof copy);
      u64 const size = memSize();
      if (Mem::loadPair(live.numSlots).version == before) return size;
   }
}

/// One slot as it lies in the file. The value area is the value rounded up to 8; padding is never written.
template <class Value> struct SlotOf {
   SlotLink link;
   u32 versionFlags;
   u32 rhash; ///< the key's hash, bits reversed: the order of the table
   alignas(8) unsigned char value[(sizeof(Value) + 7) / 8 * 8];
};

/// Copies the key, the front of a shared value, into private memory. One of the reader's copies may be torn;
/// its slot's word tells.
template <class Key> [[gnu::always_inline]] inline Key loadKey(unsigned char const* value) {
   static_assert(std::is_trivially_copyable_v<Key>);
   // A key that is no whole number of words is read with the word that it lies in.
   u32 words[(sizeof(Key) + 3) / 4];
   Mem::loadSharedRow<sizeof words>(words, value);
   Key key;
   std::memcpy(static_cast<void*>(&key), words, sizeof key);
   return key;
}

/// Sizes and places that follow from a table's types, the same for its writer and its readers.
template <class Ops> struct SlotTable {
   using Value = typename Ops::Value;
   using Header = SlotTableHeader;
   using Slot = SlotOf<Value>;

   static constexpr u32 valueSize = sizeof(Value);
   static constexpr u32 slotSize = sizeof(Slot);
   static constexpr u32 headerSize = sizeof(Header) + slotSize;
   static constexpr u16 constFlags = Ops::hasChangeQueue ? Header::hasChangeQueue : 0;
   static_assert(slotSize == (16 + valueSize + 7) / 8 * 8 && headerSize % 8 == 0 &&
                 offsetof(Slot, value) == 16);

   /// Where the slots end: bytes from the file's start.
   static constexpr u64 endOf(u32 numSlots) { return headerSize + u64{numSlots} * slotSize; }
   static Slot& lookaside(Header& header) { return *reinterpret_cast<Slot*>(&header + 1); }
   static Slot const& lookaside(Header const& header) { return *reinterpret_cast<Slot const*>(&header + 1); }

   /// Empty when the header is of this table's type; else what differs. Not part of Header::validate, which
   /// knows no type.
   static std::string typeMismatch(Header const& copy);
};

/// The non-generic part of SlotTable::typeMismatch.
HOFLOW_EXPORT std::string typeMismatch(SlotTableHeader const& copy, std::string_view valueType, u32 valueSize,
                                       u32 slotSize, u16 constFlags);

template <class Ops> std::string SlotTable<Ops>::typeMismatch(Header const& copy) {
   return Mirak::typeMismatch(copy, Value::typeName, valueSize, slotSize, constFlags);
}

} // namespace Mirak
