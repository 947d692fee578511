// SPDX-License-Identifier: Apache-2.0
#include "Mem/LockedFile.h"

#include "Lomi/Exception.h"
#include "Mem/FileCalls.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Mem {

// Every lock of the process. The mutex is held across a fork, so that the child finds the list whole.
struct LockRegistry {
   std::mutex mutex;
   std::vector<LockedFile*> held;

   static LockRegistry& only() {
      static LockRegistry& registry = *new LockRegistry;
      return registry;
   }
   LockRegistry() {
      pthread_atfork([] { only().mutex.lock(); }, [] { only().mutex.unlock(); },
                     [] { only().closeInChild(); });
   }
   void closeInChild() {
      for (auto* file : held) {
         ::close(file->fd_);
         file->fd_ = -1;
      }
      held.clear();
      mutex.unlock();
   }
   void add(LockedFile* file) {
      std::lock_guard const hold(mutex);
      held.push_back(file);
   }
   void drop(LockedFile* file) {
      std::lock_guard const hold(mutex);
      std::erase(held, file);
      if (file->fd_ >= 0) ::close(file->fd_);
      file->fd_ = -1;
   }
};

namespace {

int lockByte(int fd, off_t byte, bool wait) {
   struct flock lock {};
   lock.l_type = F_WRLCK;
   lock.l_whence = SEEK_SET;
   lock.l_start = byte;
   lock.l_len = 1;
   while (true) {
      if (::fcntl(fd, wait ? F_OFD_SETLKW : F_OFD_SETLK, &lock) == 0) return 0;
      if (errno != EINTR) return errno;
   }
}

} // namespace

LockedFile::LockedFile(int fd, dev_t device, ino_t inode)
   : fd_(fd)
   , device_(device)
   , inode_(inode) {
   LockRegistry::only().add(this);
}

LockedFile::~LockedFile() { LockRegistry::only().drop(this); }

std::unique_ptr<LockedFile> LockedFile::open(NaoRootPath const& rootPath, char const* name, off_t byte,
                                             Wait wait, std::string& error) {
   std::string const path = rootPath.str() + "/" + name;
   error.clear();
   LockRegistry::only(); // before the first descriptor: the handler for forks must be there
   while (true) {
      rootPath.makeDirectories();
      Descriptor const directory = rootPath.openDirectory();
      if (!directory) {
         if (errno == ENOENT) continue; // removed in between
         error = path + ": " + std::strerror(errno);
         return nullptr;
      }
      FileCalls::Outcome outcome;
      int const fd = FileCalls::openCreate(directory.get(), name, path, outcome);
      if (fd < 0) {
         if (outcome.error() == ENOENT) continue;
         error = path + ": " + outcome.text();
         return nullptr;
      }
      struct stat opened {
      }, named{};
      if (::fstat(fd, &opened) != 0) {
         error = path + ": " + std::strerror(errno);
         ::close(fd);
         return nullptr;
      }
      // Registered before it is locked: a fork during the wait must not hand the lock to a child.
      std::unique_ptr<LockedFile> file(new LockedFile(fd, opened.st_dev, opened.st_ino));
      int const failed = lockByte(fd, byte, wait == Wait::yes);
      if (failed) {
         if (wait == Wait::no && (failed == EAGAIN || failed == EACCES)) return nullptr;
         error = path + ": " + std::strerror(failed);
         return nullptr;
      }
      // Who cleans a directory up unlinks the file with the lock held. What was locked here may be that file.
      bool const seen = ::lstat(path.c_str(), &named) == 0;
      if (seen && file->isFile(named.st_dev, named.st_ino)) return file;
      if (!seen && errno != ENOENT && errno != ENOTDIR) {
         error = path + ": " + std::strerror(errno);
         return nullptr;
      }
   }
}

} // namespace Mem
