// SPDX-License-Identifier: Apache-2.0
#include "Mem/FileCalls.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Mem::FileCalls {
namespace {

// Some kernels give a whole range up when a signal comes in between. After each such answer the piece is
// halved, so that even a process with a fast interval timer gets through.
constexpr u64 largestPiece = u64{64} << 20;
constexpr u64 smallestPiece = u64{64} << 10;

#ifdef HOFLOW_TEST_SEAM
void announce(Seam::FileCall const& call) {
   if (Seam::observer) Seam::observer->beforeFileCall(call);
}
#define ANNOUNCE(...) announce(Seam::FileCall{__VA_ARGS__})
#else
#define ANNOUNCE(...) static_cast<void>(0)
#endif

template <class Call> Outcome retried(Call call) {
   while (true) {
      if (call() >= 0) return {};
      if (errno != EINTR) return {errno};
   }
}

Outcome inPieces(int fd, int mode, u64 offset, u64 length) {
   u64 piece = largestPiece;
   while (length) {
      u64 const now = std::min(length, piece);
      if (::fallocate(fd, mode, static_cast<off_t>(offset), static_cast<off_t>(now)) == 0) {
         offset += now;
         length -= now;
      } else if (errno == EINTR) {
         piece = std::max(piece / 2, smallestPiece);
      } else {
         return {errno};
      }
   }
   return {};
}

// A file of our name that isn't a regular file was put there by somebody else.
Outcome checkRegular(int fd) {
   struct stat status {};
   if (::fstat(fd, &status) != 0) return {errno};
   return S_ISREG(status.st_mode) ? Outcome{} : Outcome{EINVAL};
}

// Beyond the process's limit on file sizes the kernel would send a signal that ends the process.
Outcome withinLimit(u64 end) {
   struct rlimit limit {};
   if (::getrlimit(RLIMIT_FSIZE, &limit) != 0 || end <= limit.rlim_cur) return {};
   return {EFBIG};
}

// O_NONBLOCK: opening a pipe must not wait. It means nothing for regular files.
constexpr int writerFlags = O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

} // namespace

std::string Outcome::text() const { return std::strerror(error_); }

int openCreate(int directory, char const* name, std::string const& path, Outcome& outcome) {
   while (true) {
      int fd = ::openat(directory, name, writerFlags);
      if (fd < 0 && errno == ENOENT) {
         fd = createExclusive(directory, name, path, outcome);
         if (fd < 0 && outcome.error() == EEXIST) continue; // another process was quicker
         return fd;
      }
      if (fd < 0 && errno == EINTR) continue;
      outcome = fd < 0 ? Outcome{errno} : checkRegular(fd);
      if (fd >= 0 && !outcome) {
         ::close(fd);
         fd = -1;
      }
      return fd;
   }
}

int createExclusive(int directory, char const* name, [[maybe_unused]] std::string const& path,
                    Outcome& outcome) {
   ANNOUNCE(.kind = Seam::FileCall::Kind::create, .path = path);
   int fd = -1;
   outcome = retried([&] { return fd = ::openat(directory, name, writerFlags | O_CREAT | O_EXCL, 0644); });
   return fd;
}

Outcome makeDirectory(int parent, char const* name, [[maybe_unused]] std::string const& path) {
   ANNOUNCE(.kind = Seam::FileCall::Kind::create, .path = path);
   return retried([&] { return ::mkdirat(parent, name, 0755); });
}

Outcome allocate(int fd, [[maybe_unused]] std::string const& path, u64 offset, u64 length) {
   if (Outcome const allowed = withinLimit(offset + length); !allowed) return allowed;
   ANNOUNCE(.kind = Seam::FileCall::Kind::allocate, .path = path, .offset = offset, .length = length);
   return inPieces(fd, 0, offset, length);
}

Outcome truncate(int fd, [[maybe_unused]] std::string const& path, u64 length) {
   ANNOUNCE(.kind = Seam::FileCall::Kind::truncate, .path = path, .length = length);
   return retried([&] { return ::ftruncate(fd, static_cast<off_t>(length)); });
}

Outcome punch(int fd, [[maybe_unused]] std::string const& path, u64 offset, u64 length) {
   ANNOUNCE(.kind = Seam::FileCall::Kind::punch, .path = path, .offset = offset, .length = length);
   return inPieces(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, offset, length);
}

Outcome write(int fd, [[maybe_unused]] std::string const& path, u64 offset, void const* bytes, u64 length) {
   if (Outcome const allowed = withinLimit(offset + length); !allowed) return allowed;
   ANNOUNCE(.kind = Seam::FileCall::Kind::write, .path = path, .offset = offset, .length = length,
            .bytes = bytes);
   auto const* from = static_cast<char const*>(bytes);
   while (length) {
      ssize_t const written = ::pwrite(fd, from, length, static_cast<off_t>(offset));
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return {written < 0 ? errno : EIO};
      from += written;
      offset += static_cast<u64>(written);
      length -= static_cast<u64>(written);
   }
   return {};
}

Outcome rename(int directory, [[maybe_unused]] std::string const& directoryPath, char const* from,
               char const* to) {
   ANNOUNCE(.kind = Seam::FileCall::Kind::rename, .path = directoryPath + "/" + from,
            .target = directoryPath + "/" + to);
   return retried([&] { return ::renameat(directory, from, directory, to); });
}

Outcome unlink(int directory, char const* name, [[maybe_unused]] std::string const& path) {
   ANNOUNCE(.kind = Seam::FileCall::Kind::unlink, .path = path);
   Outcome const done = retried([&] { return ::unlinkat(directory, name, 0); });
   return done.error() == ENOENT ? Outcome{} : done;
}

} // namespace Mem::FileCalls
