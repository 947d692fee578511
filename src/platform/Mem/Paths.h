// SPDX-License-Identifier: Apache-2.0
// Where tables lie: one root directory for the process, and below it one directory for each table, named by
// its mount path. Nothing here touches a table's files. Directories are opened one component at a time, and
// no symbolic link is followed from the root's own last component downwards.
#pragma once

#include "Lomi/Export.h"
#include "Lomi/Trace.h"

#include <string>
#include <utility>

namespace Mem {

/// A descriptor that is closed at its end.
class Descriptor {
public:
   Descriptor() = default;
   explicit Descriptor(int fd)
      : fd_(fd) {}
   Descriptor(Descriptor&& other) noexcept
      : fd_(std::exchange(other.fd_, -1)) {}
   Descriptor& operator=(Descriptor&& other) noexcept {
      std::swap(fd_, other.fd_);
      return *this;
   }
   ~Descriptor() { reset(); }
   HOFLOW_EXPORT void reset();
   int get() const { return fd_; }
   explicit operator bool() const { return fd_ >= 0; }

private:
   int fd_ = -1;
};

/// The process's root of all tables, /dev/shm/hoflow unless set. A path object takes the root of its
/// construction.
class HOFLOW_EXPORT RootPath {
public:
   static std::string get();
   /// A relative path is taken from the current directory. Throws Lomi::InvalidInitializeException if it is
   /// empty or holds a NUL.
   static void set(std::string const& path);
};

/// A table's directory. Building one touches no file.
class HOFLOW_EXPORT NaoRootPath {
public:
   /// `name` is the path below the root. Throws Lomi::InvalidInitializeException if there is a NUL in it, if
   /// a component is empty, "." or "..", or longer than 255 bytes, or if the whole is too long for a path.
   /// The name of a local table may be any text; where it is no path there is no directory.
   NaoRootPath(Lomi::Platform::DebugHandler const& handler, std::string name, bool local);

   std::string const& str() const { return path_; } // absolute
   std::string const& name() const { return name_; }
   std::string const& root() const { return root_; } // absolute
   std::string dirName() const;                      // the last component
   bool shared() const { return shared_; }
   bool exists() const;

   /// Makes every missing directory, mode 0755 less the umask. Throws Lomi::InvalidInitializeException naming
   /// the component that can't be made or isn't a directory.
   void makeDirectories() const;
   /// The directory's descriptor (O_PATH, close on exec), empty with errno set if it can't be opened.
   Descriptor openDirectory() const;
   /// The same for the root that the table lies below.
   Descriptor openRoot() const;

private:
   Descriptor walk(std::string const& name, bool make, std::string& failedAt) const;

   std::string root_;
   std::string name_;
   std::string path_;
   bool shared_;
};

} // namespace Mem
