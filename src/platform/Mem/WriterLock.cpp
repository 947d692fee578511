// SPDX-License-Identifier: Apache-2.0
#include "Mem/WriterLock.h"

#include "Lomi/Exception.h"
#include "Mem/LockedFile.h"
#include "Parcel/OwnerFile.h"

#include <algorithm>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Mem {
namespace {

// The writer locks of this process, so that a cleanup can join its own writer's lock.
struct HeldLocks {
   std::mutex mutex;
   std::vector<std::weak_ptr<LockedFile>> files;

   std::shared_ptr<LockedFile> find(dev_t device, ino_t inode) {
      std::erase_if(files, [](auto const& file) { return file.expired(); });
      for (auto const& file : files)
         if (auto strong = file.lock(); strong && strong->fd() >= 0 && strong->isFile(device, inode))
            return strong;
      return nullptr;
   }
};

HeldLocks& heldLocks() {
   static HeldLocks& only = *new HeldLocks;
   return only;
}

std::shared_ptr<LockedFile> heldHere(NaoRootPath const& rootPath) {
   struct stat status {};
   if (::lstat((rootPath.str() + "/" + Parcel::OwnerFile::FILENAME).c_str(), &status) != 0) return nullptr;
   std::lock_guard const hold(heldLocks().mutex);
   return heldLocks().find(status.st_dev, status.st_ino);
}

} // namespace

WriterLock WriterLock::acquireWriterLock(Lomi::Platform::DebugHandler const& handler,
                                         NaoRootPath const& rootPath, Parcel::OwnerFile& ownerFile,
                                         bool force) {
   WriterLock lock;
   if (force) lock.file_ = heldHere(rootPath);
   if (lock.file_) {
      LOMI_TRACE(handler, 5, "WriterLock", "{} is this process's own", rootPath.str());
      return lock;
   }
   std::string error;
   lock.file_ = LockedFile::open(rootPath, Parcel::OwnerFile::FILENAME, Parcel::OwnerFile::writerByte,
                                 LockedFile::Wait::no, error);
   if (!lock.file_ && error.empty()) {
      u32 const pid = ownerFile.pid();
      throw Lomi::InvalidInitializeException(
          fmt::format("table {} already has a writer: {}", rootPath.str(),
                      pid ? fmt::format("process {}", pid) : std::string("a process that is just starting")));
   }
   if (!lock.file_)
      throw Lomi::InvalidInitializeException(
          fmt::format("cannot lock table {} for writing: {}", rootPath.str(), error));
   {
      std::lock_guard const hold(heldLocks().mutex);
      heldLocks().files.push_back(lock.file_);
   }
   ownerFile.refreshOwner();
   LOMI_TRACE(handler, 5, "WriterLock", "acquired {}", rootPath.str());
   return lock;
}

bool WriterLock::ownerIsMe(Lomi::Platform::DebugHandler const& handler, NaoRootPath const& rootPath) {
   bool const mine = heldHere(rootPath) != nullptr;
   LOMI_TRACE(handler, 5, "WriterLock", "{} {}", rootPath.str(), mine);
   return mine;
}

bool WriterLock::ownerIsAlive(Lomi::Platform::DebugHandler const& handler, NaoRootPath const& rootPath,
                              u32* pid) {
   if (pid) *pid = Parcel::OwnerFile(handler, rootPath, false).pid();
   Descriptor const directory = rootPath.openDirectory();
   if (!directory) return false;
   Descriptor const file(::openat(directory.get(), Parcel::OwnerFile::FILENAME,
                                  O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
   if (!file) return false;
   struct flock probe {};
   probe.l_type = F_WRLCK;
   probe.l_whence = SEEK_SET;
   probe.l_start = Parcel::OwnerFile::writerByte;
   probe.l_len = 1;
   bool const alive = ::fcntl(file.get(), F_OFD_GETLK, &probe) == 0 && probe.l_type != F_UNLCK;
   LOMI_TRACE(handler, 5, "WriterLock", "{} {}", rootPath.str(), alive);
   return alive;
}

std::string WriterLock::processName(u32 pid) {
   Descriptor const file(::open(fmt::format("/proc/{}/comm", pid).c_str(), O_RDONLY | O_CLOEXEC));
   char text[64];
   ssize_t const got = file ? ::read(file.get(), text, sizeof text) : 0;
   std::string name(text, got > 0 ? static_cast<std::size_t>(got) : 0);
   return name.substr(0, name.find('\n'));
}

bool WriterLock::held() const { return file_ && file_->fd() >= 0; }

} // namespace Mem
