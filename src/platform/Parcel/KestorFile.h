// SPDX-License-Identifier: Apache-2.0
// The file that publishes a table's generation. It is written last at a writer's start and removed before
// anything is formatted anew, so that a reader which finds it may look at the other files. It changes
// atomically: a temporary file is renamed over it, and a crash leaves the old id or the new one.
//
// Content, 16 bytes, little-endian: "HOKESTOR", the id, a checksum of the first 12 bytes (Lomi::Impl::HashMix
// from 0x811c9dc5).
#pragma once

#include "Lomi/Export.h"
#include "Lomi/Trace.h"
#include "Mem/Paths.h"
#include "Parcel/KestorId.h"

namespace Parcel {

/// A local table has no such file: reads give "none", writes and removals do nothing.
class HOFLOW_EXPORT KestorFile {
public:
   static constexpr char const* KESTOR_NAME = "kestor";
   static constexpr Mem::u32 fileSize = 16; ///< bytes

   KestorFile(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath, bool local);

   /// The stored id, value 0 if the file is absent, unreadable or malformed.
   KestorId read() const;
   /// The same. @param error the errno of a file that the system doesn't let be read, else 0
   KestorId read(int& error) const;
   /// The same for a writer, who formats a table that has no id: value 0 only if the file is absent or
   /// malformed. Throws Lomi::RuntimeException naming the file if the system doesn't let it be read (no
   /// right, no descriptor left).
   KestorId readOrThrow() const;
   /// Makes the directory if need be. Throws Lomi::MemoryResourceException if there is no room, otherwise
   /// Lomi::RuntimeException, naming the file; the old id stays then.
   void write(KestorId id);
   /// True if the stored id is `id`, else throws Lomi::CorruptionDetectedException naming the file and both.
   bool validate(KestorId id) const;
   /// When the id was written, seconds since 1970; 0 if there is none.
   double mtime() const;
   /// An absent file is no failure. Throws Lomi::RuntimeException if it can't be removed.
   void remove();
   std::string getFilename() const;

private:
   Lomi::Platform::DebugHandler const& handler_;
   Mem::NaoRootPath rootPath_;
   bool local_;
};

} // namespace Parcel
