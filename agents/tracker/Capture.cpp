// SPDX-License-Identifier: Apache-2.0
// Capture.h by libpcap. The file is opened here rather than by libpcap, so that "can't open" and "isn't a
// capture" stay two different things.
#include "Capture.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <pcap/pcap.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace Tracker {

void Capture::Close::operator()(pcap* handle) const { pcap_close(handle); }

Capture::~Capture() {
   if (nothing_ >= 0) close(nothing_);
}

/// What a compressed file would be read with, or null.
static char const* unpackerOf(int fd) {
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

Capture::Capture(std::string const& path) {
   auto cannot = [&](char const* why) { return CannotOpen(path + ": " + why); };
   int const fd =
       path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3) : open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) throw cannot(std::strerror(errno));
   struct stat status {};
   fstat(fd, &status);
   std::FILE* const file = S_ISDIR(status.st_mode) ? nullptr : fdopen(fd, "rb");
   if (!file) {
      int const error = S_ISDIR(status.st_mode) ? EISDIR : errno;
      close(fd);
      throw cannot(std::strerror(error));
   }
   if (S_ISREG(status.st_mode)) size_ = static_cast<double>(status.st_size);
   char text[PCAP_ERRBUF_SIZE] = "";
   pcap_.reset(
       pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, text)); // owns the file
   if (!pcap_) {
      std::string why = path + ": no capture that can be read: " + text + "; expected a pcap or pcapng file";
      if (auto const* const unpacker = unpackerOf(fd))
         why += "; it is compressed, try: " + std::string(unpacker) + " -dc " + path + " | hoflow-tracker -";
      std::fclose(file);
      throw NotACapture(why);
   }
   file_ = fd;
   if (!S_ISREG(status.st_mode)) nothing_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
   linkLayer_ = linkLayerOf(pcap_datalink(pcap_.get()));
}

bool Capture::next(Packet& packet) {
   if (damage_) return false;
   pcap_pkthdr* header = nullptr;
   unsigned char const* bytes = nullptr;
   int const result = pcap_next_ex(pcap_.get(), &header, &bytes);
   if (result != 1) {
      if (result == PCAP_ERROR && !interrupted_) damage_ = pcap_geterr(pcap_.get());
      return false;
   }
   ++packets_;
   packet.captured = {bytes, header->caplen};
   packet.time = static_cast<double>(header->ts.tv_sec) + static_cast<double>(header->ts.tv_usec) / 1e9;
   return true;
}

// A read that waits ends by the signal itself, and one that would begin a moment later meets the end of the
// file.
void Capture::interrupt() noexcept {
   interrupted_ = true;
   if (nothing_ >= 0) dup2(nothing_, file_);
}

std::string Capture::linkTypeText() const {
   int const dlt = pcap_datalink(pcap_.get());
   char const* const name = pcap_datalink_val_to_name(dlt);
   return (name ? name : "unnamed") + (" (" + std::to_string(dlt) + ")");
}

double Capture::progress() const {
   if (size_ <= 0) return 0;
   auto const at = static_cast<double>(std::ftell(pcap_file(pcap_.get())));
   return at < 0 ? 0 : at > size_ ? 1 : at / size_;
}

} // namespace Tracker
