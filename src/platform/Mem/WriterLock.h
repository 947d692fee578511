// SPDX-License-Identifier: Apache-2.0
// One writer for a table's directory. The lock is the kernel's, on a byte of the owner file, and ends with
// its holder: nobody guesses from a process number whether a writer lives. A writer acquires it before it
// touches any other file and lets it go last.
//
// Not to be mixed up with Parcel::OwnerFile::lock(), which is short and serialises starts and cleanups; it
// uses another byte.
#pragma once

#include "Lomi/Export.h"
#include "Lomi/Trace.h"
#include "Mem/Paths.h"
#include "Mem/SharedWords.h"

#include <memory>
#include <string>

namespace Parcel {
class OwnerFile;
}

namespace Mem {

class LockedFile;

class HOFLOW_EXPORT WriterLock {
public:
   WriterLock() = default; // holds nothing
   WriterLock(WriterLock&&) noexcept = default;
   WriterLock& operator=(WriterLock&&) noexcept = default;
   ~WriterLock() = default;

   /// Makes this process the directory's one writer. If another process is, or if this process is and `force`
   /// is false, throws Lomi::InvalidInitializeException naming the table and the holder's process id as the
   /// owner file has it. `force` only lets a process that already holds the lock hold it twice (a cleanup
   /// under its own writer); a lock of another process can't be taken. Writes this process's id into a sound
   /// owner record.
   static WriterLock acquireWriterLock(Lomi::Platform::DebugHandler const& handler,
                                       NaoRootPath const& rootPath, Parcel::OwnerFile& ownerFile, bool force);
   /// Whether this process is the writer of the directory's present owner file.
   static bool ownerIsMe(Lomi::Platform::DebugHandler const& handler, NaoRootPath const& rootPath);
   /// Whether any process is. Needs no more than read rights. `pid`, if given, gets the recorded id, 0 if
   /// unknown.
   static bool ownerIsAlive(Lomi::Platform::DebugHandler const& handler, NaoRootPath const& rootPath,
                            u32* pid = nullptr);
   /// What the system calls the process, up to 15 characters; empty if there is none.
   static std::string processName(u32 pid);

   /// False for one that was moved from or released, and in a forked child.
   bool held() const;
   void release() { file_.reset(); }

private:
   std::shared_ptr<LockedFile> file_;
};

} // namespace Mem
