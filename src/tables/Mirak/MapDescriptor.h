// SPDX-License-Identifier: Apache-2.0
// The settings that a table is opened with. Configuration comes only through this record.
#pragma once

#include "Lomi/Export.h"
#include "Mem/CollectionDescriptor.h"
#include "Mirak/SlotLink.h"

#include <fmt/format.h>
#include <string>

namespace Mirak {

enum class MirakType { writer = 0, shadow = 1, reader = 2, keyshadow = 3 };

/// "writer", "shadow", "reader", "keyshadow", or the number of anything else.
HOFLOW_EXPORT std::string formatMirakType(MirakType type);

struct HOFLOW_EXPORT MapDescriptor : Mem::CollectionDescriptor {
   explicit MapDescriptor(u32 rows)
      : size(rows) {}

   u32 size; ///< rows the table is meant for (its `maxSlots`); beyond it the table grows by tenths
   MirakType type = MirakType::writer; ///< which side this mount wants
   bool local = false;                 ///< the table lives in this process's private memory
   bool fixedSize = false;     ///< the capacity is `size` for ever; one row more throws TableFullException
   bool shrinkSlots = true;    ///< the slot file may shrink when rows are removed
   bool shrinkBuckets_ = true; ///< the bucket table may halve when rows are removed
   bool pruneQueue = true;     ///< the change queue drops what is out of date
   bool synchronous = false;   ///< a shadow tells of rows while its first copy is made, too
   bool shadowOption = false;  ///< means nothing here; reaches a new shadow as option bit 4
   bool heap = false;          ///< a local table's memory comes from the heap
   bool trackMemory = false;   ///< the slot file is shown to the memory tracker
   bool cleanupOnInit = false; ///< clean the existing back end up before anything else
   bool reattach = false;      ///< every attach of a shadow counts as a re-attach
   bool assertOnOrphanAccess = false; ///< nobody may touch the collection once its entity is gone
   bool criticalTaskCheck = false;    ///< critical tasks run within a long grow or shrink
   bool prevValue = false;            ///< refused: no table keeps previous values

   bool operator==(MapDescriptor const& other) const;
};

} // namespace Mirak

template <> struct HOFLOW_EXPORT fmt::formatter<Mirak::MapDescriptor> : fmt::formatter<std::string> {
   fmt::format_context::iterator format(Mirak::MapDescriptor const& descriptor,
                                        fmt::format_context& context) const;
};
