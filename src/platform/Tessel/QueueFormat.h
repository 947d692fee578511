// SPDX-License-Identifier: Apache-2.0
// The bytes of the change queue. docs/format.md draws them; TesselWriter.h says who stores what in which
// order.
//
//   tessel        one page, the header below
//   tessel.0, .1  two tables of entries, one of them current: the generation's parity says which
//   tessel.slots  for each slot the position of its current entry; the writer's own
//
// The files are never renamed, replaced or made shorter: a follower keeps the inode that it opened.
#pragma once

#include "Lomi/Export.h"
#include "Mem/Page.h"
#include "Parcel/KestorId.h"
#include "Rusk/Sequence.h"

#include <bit>
#include <cstddef>
#include <string>

namespace Tessel {

using Mem::u32;
using Mem::u64;

/// A slot's index, as an entry names it.
using BasicSlot = u32;

inline constexpr u32 tombstoneSlot = 0xffffffff; ///< the slot field of an entry that says nothing any more
inline constexpr u32 noPosition = 0xffffffff;    ///< a slot without an entry

/// In a mapped file each field is read and stored through Mem/SharedWords.h; a private copy is plain data.
struct HOFLOW_EXPORT QueueHeader {
   static constexpr u64 magicValue = 0x55514c4553534554; ///< "TESSELQU"
   static constexpr u32 formatVersion = 1;
   static constexpr u32 platformX86 = 1;
   static constexpr u32 slotEntries = 1; ///< entryKind: an entry is (u32 relative sequence, u32 slot)

   u64 magic;
   u32 version;
   u32 kestor; ///< SYNC(queue-kestor): generation of the table's content; 0 while the queue is formatted
   u32 platform;
   u32 entryKind;
   u32 hash;        ///< of the constants above, kestor left out
   u32 stamp;       ///< another one at each format: a queue that was removed and made again may have the same
                    ///< kestor
   u64 next;        ///< SYNC(queue-next): sequence of the next change
   u32 generation;  ///< SYNC(queue-generation): moves by one when the other table becomes current
   u32 slotsLength; ///< entries of tessel.slots
   u64 base[2];     ///< of each table: sequence = base + an entry's relative sequence
   u64 corralStart; ///< SYNC(queue-corral): first sequence of the last compaction, 0 when there is none to
                    ///< heed
   u64 corralEnd;   ///< its last sequence; 0 while it runs
   u64 floor;       ///< changes up to this one may be missing
   // For people alone, as the writer knows it at the moment; as it was at its end if it isn't there any more.
   u32 followers; ///< that are connected
   u32 resyncs;   ///< how often these had to look at all slots again, together

   u32 checksum() const;
   std::string toString() const;
   /// Checks the constants and, unless `wantedKestor` is 0, the generation. False with the reason in `error`.
   bool validate(Parcel::KestorId wantedKestor, std::string& error) const;
};
static_assert(sizeof(QueueHeader) == 96 && offsetof(QueueHeader, kestor) == 12 &&
                  offsetof(QueueHeader, next) == 32 && offsetof(QueueHeader, generation) == 40 &&
                  offsetof(QueueHeader, base) == 48 && offsetof(QueueHeader, corralStart) == 64 &&
                  offsetof(QueueHeader, floor) == 80 && offsetof(QueueHeader, followers) == 88,
              "offsets are part of the file format");
inline constexpr u64 headerFileSize = Mem::pageSize_;

/// Entries begin at 12: they are not 8-aligned, so each field is an access of its own, and never one of both.
struct QueueEntry {
   u32 relative;
   u32 slot;
};

struct QueueTable {
   u32 generation; ///< the header's, when this table became current
   u32 capacity;
   u32 count; ///< SYNC(queue-count): entries below are complete

   QueueEntry* entries() { return reinterpret_cast<QueueEntry*>(this + 1); }
   QueueEntry const* entries() const { return reinterpret_cast<QueueEntry const*>(this + 1); }
};
static_assert(sizeof(QueueTable) == 12 && alignof(QueueTable) == 4 && sizeof(QueueEntry) == 8 &&
                  alignof(QueueEntry) == 4,
              "offsets are part of the file format");

constexpr u64 tableFileSize(u32 entries) { return sizeof(QueueTable) + u64{sizeof(QueueEntry)} * entries; }

/// Two entries for each row that one compaction of a table of `slots` moves, at most: it moves fewer rows
/// than half the largest power of two below the capacity.
constexpr u32 corralBound(u32 slots) { return slots > 1 ? std::bit_floor(slots - 1) : 0; }

/// Entries that a turn may have to carry: one for each slot, and a compaction.
constexpr u64 keptBound(u32 slots) { return u64{slots} + corralBound(slots); }

/// Entries of a table that is never more than half full after a turn.
constexpr u64 entriesFor(u32 slots) { return 2 * keptBound(slots) + 2; }

} // namespace Tessel
