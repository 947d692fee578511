// SPDX-License-Identifier: Apache-2.0
// Frames and capture files made by hand, byte by byte, for the tracker's tests. Knows nothing of the parser
// under test.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

namespace Packets {

using Bytes = std::vector<unsigned char>;

inline Bytes operator+(Bytes a, Bytes const& b) {
   a.insert(a.end(), b.begin(), b.end());
   return a;
}

inline Bytes be16(unsigned value) {
   return {static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
}
inline Bytes le32(std::uint32_t value) {
   return {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
           static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
}
inline Bytes le16(unsigned value) {
   return {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8)};
}
inline Bytes zeros(std::size_t count) { return Bytes(count, 0); }

/// Two Ethernet addresses, any tags as (protocol, control) pairs, an EtherType.
inline Bytes ethernet(unsigned etherType, std::initializer_list<std::pair<unsigned, unsigned>> tags = {}) {
   Bytes frame{2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2};
   for (auto const& [protocol, control] : tags) frame = frame + be16(protocol) + be16(control);
   return frame + be16(etherType);
}

struct Ip4 {
   unsigned versionAndLength = 0x45;
   int length = -1; // total length; the true one unless set
   unsigned fragment = 0;
   unsigned protocol = 6;
   Bytes src{10, 0, 0, 1}, dst{10, 0, 0, 2};
   Bytes payload = be16(1234) + be16(80) + zeros(16);

   Bytes bytes() const {
      unsigned const header = (versionAndLength & 15) * 4;
      Bytes packet{static_cast<unsigned char>(versionAndLength), 0};
      packet = packet + be16(length >= 0 ? unsigned(length) : header + unsigned(payload.size())) + be16(7) +
               be16(fragment) + Bytes{64, static_cast<unsigned char>(protocol)} + be16(0) + src + dst;
      if (header > 20) packet = packet + Bytes(header - 20, 1);
      return packet + payload;
   }
};

struct Ip6 {
   unsigned first = 0x60;
   int length = -1; // payload length; the true one unless set
   unsigned nextHeader = 6;
   Bytes src = Bytes{0x20, 1, 0xd, 0xb8} + zeros(11) + Bytes{1},
         dst = Bytes{0x20, 1, 0xd, 0xb8} + zeros(11) + Bytes{2};
   Bytes payload = be16(1234) + be16(80) + zeros(16);

   Bytes bytes() const {
      return Bytes{static_cast<unsigned char>(first), 0, 0, 0} +
             be16(length >= 0 ? unsigned(length) : unsigned(payload.size())) +
             Bytes{static_cast<unsigned char>(nextHeader), 64} + src + dst + payload;
   }
};

/// A classic capture file in memory.
class Pcap {
public:
   explicit Pcap(unsigned linkType = 1)
      : bytes(le32(0xa1b2c3d4) + le16(2) + le16(4) + le32(0) + le32(0) + le32(262144) + le32(linkType)) {}
   void add(Bytes const& frame, std::uint32_t seconds = 1700000000, std::uint32_t microseconds = 0) {
      starts.push_back(bytes.size());
      auto const size = static_cast<std::uint32_t>(frame.size());
      bytes = std::move(bytes) + le32(seconds) + le32(microseconds) + le32(size) + le32(size) + frame;
   }

   Bytes bytes;
   std::vector<std::size_t> starts; // where each packet's header begins
};

/// A folder that vanishes.
class Folder {
public:
   explicit Folder(std::string const& parent = "/tmp")
      : path_(parent + "/hoflow-test-XXXXXX") {
      if (!mkdtemp(path_.data())) throw std::runtime_error("no folder could be made in " + parent);
   }
   ~Folder() {
      std::error_code ignored;
      std::filesystem::remove_all(path_, ignored);
   }
   std::string path(std::string const& name = "") const { return name.empty() ? path_ : path_ + "/" + name; }
   std::string write(std::string const& name, Bytes const& bytes) const {
      std::ofstream out(path(name), std::ios::binary);
      out.write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
      return path(name);
   }

private:
   std::string path_;
};

} // namespace Packets
