// SPDX-License-Identifier: Apache-2.0
// One file of a table's directory: opened O_RDONLY, its header copied with pread, so that a file which
// someone cuts short meanwhile is an error and no signal. What the header means is the caller's matter.
#pragma once

#include "Mem/Paths.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace Tool {

struct FileFacts {
   bool present = false;
   int error = 0;            ///< errno of opening it, if it is present
   std::uint64_t size = 0;   ///< its length
   std::uint64_t memory = 0; ///< what it takes

   bool notPlain() const { return error == ELOOP || error == EINVAL; }
};

/// Opens one file of the table's directory, and fills in what there is to know of it from outside.
inline Mem::Descriptor openFile(Mem::Descriptor const& directory, char const* name, FileFacts& facts) {
   struct stat status {};
   if (::fstatat(directory.get(), name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      facts = {errno != ENOENT, errno};
      return {};
   }
   facts = {true, 0, static_cast<std::uint64_t>(status.st_size),
            static_cast<std::uint64_t>(status.st_blocks) * 512};
   // Anything but a plain file isn't even opened.
   if (!S_ISREG(status.st_mode)) {
      facts.error = S_ISLNK(status.st_mode) ? ELOOP : EINVAL;
      return {};
   }
   Mem::Descriptor file(::openat(directory.get(), name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
   if (!file) facts.error = errno;
   return file;
}

template <class Header> bool readAt0(Mem::Descriptor const& file, Header& header) {
   ssize_t got = 0;
   do {
      got = ::pread(file.get(), &header, sizeof header, 0);
   } while (got < 0 && errno == EINTR);
   return got == static_cast<ssize_t>(sizeof header);
}

/// A header between two looks at its version: not the half of one size and the half of another.
template <class Header, class Version>
std::optional<Header> readHeader(Mem::Descriptor const& file, Version version) {
   Header header, again;
   for (int attempt = 0; attempt < 100; ++attempt) {
      if (!file || !readAt0(file, header) || !readAt0(file, again)) return std::nullopt;
      if (version(header) == version(again)) break;
   }
   return again;
}

} // namespace Tool
