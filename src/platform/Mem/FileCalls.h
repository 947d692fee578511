// SPDX-License-Identifier: Apache-2.0
// The only place that changes files and directories. Each function is one system call (a long range is
// several), retried after a signal; the test build passes each one to Mem::Seam first. Ranges are allocated
// in pieces, so that a process that gets signals all the time still makes progress. Nothing here maps, locks
// or decides.
#pragma once

#include "Mem/Seam.h"
#include "Mem/SharedWords.h"

#include <string>

namespace Mem::FileCalls {

/// The errno of a call, 0 if it went well.
class [[nodiscard]] Outcome {
public:
   Outcome(int error = 0)
      : error_(error) {}
   explicit operator bool() const { return error_ == 0; }
   int error() const { return error_; }
   std::string text() const; // of the errno

private:
   int error_;
};

/// Opens a regular file for reading and writing, O_NOFOLLOW and O_CLOEXEC, and makes it with mode 0644 if it
/// is absent. The descriptor, or -1 with `outcome` set. `path` is for the observer only.
int openCreate(int directory, char const* name, std::string const& path, Outcome& outcome);
/// The same, but only a new file will do.
int createExclusive(int directory, char const* name, std::string const& path, Outcome& outcome);
Outcome makeDirectory(int parent, char const* name, std::string const& path);

/// Reserves the blocks of [offset, offset + length); the file grows if it is shorter. On failure earlier
/// pieces stay reserved.
Outcome allocate(int fd, std::string const& path, u64 offset, u64 length);
Outcome truncate(int fd, std::string const& path, u64 length);
/// Gives back the blocks of a range; the length stays.
Outcome punch(int fd, std::string const& path, u64 offset, u64 length);
Outcome write(int fd, std::string const& path, u64 offset, void const* bytes, u64 length);
Outcome rename(int directory, std::string const& directoryPath, char const* from, char const* to);
/// An absent file is no failure.
Outcome unlink(int directory, char const* name, std::string const& path);

} // namespace Mem::FileCalls
