// SPDX-License-Identifier: Apache-2.0
// An open-file-description lock on one byte of a file that may be unlinked while someone waits for it. The
// kernel drops the lock when the holder ends, however it ends. After it has the lock, open() makes sure that
// the path still leads to the locked file, and otherwise starts again: two holders never stand on two files
// of one name.
//
// Such a lock belongs to the open description, which a forked child shares: without care a child that
// outlives a killed holder would keep its lock. A handler closes every such descriptor in a forked child.
#pragma once

#include "Mem/Paths.h"

#include <sys/types.h>

#include <memory>
#include <string>

namespace Mem {

class LockedFile {
public:
   enum class Wait { no, yes };

   /// Makes the file if it is absent. Null with errno text in `error` on failure, null with `error` empty if
   /// the lock is held elsewhere and `wait` is no. Locks of one process conflict with each other, too.
   static std::unique_ptr<LockedFile> open(NaoRootPath const& rootPath, char const* name, off_t lockByte,
                                           Wait wait, std::string& error);
   ~LockedFile();
   LockedFile(LockedFile const&) = delete;
   LockedFile& operator=(LockedFile const&) = delete;

   int fd() const { return fd_; } // -1 in a forked child
   /// Whether the locked file is the one with this device and inode.
   bool isFile(dev_t device, ino_t inode) const { return device == device_ && inode == inode_; }

private:
   LockedFile(int fd, dev_t device, ino_t inode);
   friend struct LockRegistry;
   int fd_;
   dev_t device_;
   ino_t inode_;
};

} // namespace Mem
