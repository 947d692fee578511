// SPDX-License-Identifier: Apache-2.0
// Capture.h by libpcap. The file is opened here rather than by libpcap, so that "can't open" and "isn't a
// capture" stay two different things, and so that a wait for a pipe's next bytes is one in the event loop.
#include "Capture.h"

#include "Stop.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <pcap/pcap.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace Agents {
namespace {

/// What a compressed file would be read with, or null.
char const* unpackerOf(int fd) {
   char start[6] = {};
   if (pread(fd, start, sizeof start, 0) != sizeof start) return nullptr;
   auto const begins = [&](std::string_view magic) { return std::string_view(start, 6).starts_with(magic); };
   return begins("\x1f\x8b") ? "gzip"
          : begins("\xfd"
                   "7zXZ")
              ? "xz"
          : begins("\x28\xb5\x2f\xfd") ? "zstd"
          : begins("BZh")              ? "bzip2"
                                       : nullptr;
}

/// A pipe, a device or the like as a stream that waits in the event loop, and ends once the program is to
/// stop.
std::FILE* streamOf(int fd) {
   cookie_io_functions_t const functions{
       .read = [](void* cookie, char* into, std::size_t size) -> ssize_t {
          int const from = *static_cast<int*>(cookie);
          for (;;) {
             waitInLoop(from, -1);
             if (stopRequested()) return 0;
             ssize_t const got = read(from, into, size);
             if (got >= 0 || (errno != EINTR && errno != EAGAIN)) return got;
          }
       },
       .write = nullptr,
       .seek = nullptr,
       .close = [](void* cookie) { return close(*std::unique_ptr<int>(static_cast<int*>(cookie))); },
   };
   auto cookie = std::make_unique<int>(fd);
   std::FILE* const stream = fopencookie(cookie.get(), "rb", functions);
   if (stream) cookie.release(); // the stream's close takes it
   return stream;
}

} // namespace

Capture::Capture(std::string const& path) {
   auto cannot = [&](char const* why) { return CannotOpen(path + ": " + why); };
   int const fd =
       path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3) : open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) throw cannot(std::strerror(errno));
   struct stat status {};
   fstat(fd, &status);
   bool const regular = S_ISREG(status.st_mode);
   std::FILE* const file = S_ISDIR(status.st_mode) ? nullptr : regular ? fdopen(fd, "rb") : streamOf(fd);
   if (!file) {
      int const error = S_ISDIR(status.st_mode) ? EISDIR : errno;
      close(fd);
      throw cannot(std::strerror(error));
   }
   if (regular) size_ = static_cast<double>(status.st_size);
   char text[PCAP_ERRBUF_SIZE] = "";
   pcap_.reset(
       pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, text)); // owns the file
   if (!pcap_) {
      std::string why = path + ": no capture that can be read: " + text + "; expected a pcap or pcapng file";
      if (auto const* const unpacker = unpackerOf(fd))
         why += "; it is compressed, try: " + std::string(unpacker) + " -dc " + path + " | " +
                program_invocation_short_name + " -";
      std::fclose(file);
      throw NotACapture(why);
   }
}

double Capture::progress() const {
   if (size_ <= 0) return 0;
   auto const at = static_cast<double>(std::ftell(pcap_file(pcap_.get())));
   return at < 0 ? 0 : at > size_ ? 1 : at / size_;
}

} // namespace Agents
