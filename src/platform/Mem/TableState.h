// SPDX-License-Identifier: Apache-2.0
// What stands at a table's place, as the sentries see it: which generation is published, by which writer's
// start, over which files, and whether somebody says that they are damaged. It looks at names and at the
// kestor file only; the table's own files are not opened.
#pragma once

#include "Mem/Paths.h"
#include "Mem/SharedWords.h"
#include "Parcel/KestorId.h"

namespace Mem {

/// The marker by which a reader says that it found a table damaged.
inline constexpr char const* corruptionFileName = "corruption-detected";

/// Which file a name leads to; all 0 for none.
struct FileIdentity {
   u64 device = 0, inode = 0;
   explicit operator bool() const { return inode != 0; }
   friend bool operator==(FileIdentity const&, FileIdentity const&) = default;
};

struct TableState {
   Parcel::KestorId kestor; ///< value 0: none is published
   FileIdentity kestorFile; ///< every start of a writer makes a new one
   u64 kestorTime = 0;      ///< when it was made, nanoseconds: numbers of files are used again
   FileIdentity slots;      ///< the slot file
   bool damageMarked = false;
   bool unseen = false; ///< no descriptor or memory was left to look with: nothing here says anything

   /// Whether a reader may find a table there.
   bool published() const { return kestor.value() != 0 && slots; }
   /// The same content: a writer that died and took its files up again changes nothing in it.
   bool sameTable(TableState const& other) const { return kestor == other.kestor && slots == other.slots; }
   /// The same content, published by the same start of a writer.
   bool samePublication(TableState const& other) const {
      return sameTable(other) && kestorFile == other.kestorFile && kestorTime == other.kestorTime;
   }
   friend bool operator==(TableState const&, TableState const&) = default;
};

/// What is there now. Never throws; what others may not see is not there.
TableState tableState(Lomi::Platform::DebugHandler const& handler, NaoRootPath const& rootPath);

} // namespace Mem
