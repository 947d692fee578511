// SPDX-License-Identifier: Apache-2.0
// Reads a capture file packet by packet, pcap or pcapng, through libpcap. Says exactly where a damaged file
// stops being readable; what was read before is good. Knows nothing of what packets contain.
#pragma once

#include "Frame.h"
#include "Zeb/Seconds.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

struct pcap;

namespace Tracker {

/// The file can't be opened: it isn't there, isn't a file, or may not be read. The text names it.
class CannotOpen : public std::runtime_error {
   using std::runtime_error::runtime_error;
};

/// The file's header is damaged, or the file is no capture at all. The text names it.
class NotACapture : public std::runtime_error {
   using std::runtime_error::runtime_error;
};

struct Packet {
   std::span<unsigned char const> captured; // good until the next one is read
   Zeb::Seconds time;                       // since 1970, as captured
};

class Capture {
public:
   /// @param path a file, or "-" for standard input
   explicit Capture(std::string const& path);
   ~Capture();
   Capture(Capture const&) = delete;
   Capture& operator=(Capture const&) = delete;

   /// Reads the next packet. False at the end of the file, at damage and once interrupted: `damage()` and
   /// `interrupted()` tell which.
   bool next(Packet& packet);

   /// Ends a wait for packets that don't come: a pipe has no more from now on. For signal handlers, so the
   /// signal must be one that doesn't restart system calls.
   void interrupt() noexcept;
   bool interrupted() const { return interrupted_; }

   /// Packets read so far.
   std::uint64_t packets() const { return packets_; }
   /// Why reading stopped before the end of the file, in libpcap's words; nothing otherwise. The damaged
   /// packet is number `packets() + 1`.
   std::optional<std::string> const& damage() const { return damage_; }
   /// Nothing if the capture's link type isn't supported; then `linkTypeText()` says which it is.
   std::optional<LinkLayer> linkLayer() const { return linkLayer_; }
   std::string linkTypeText() const;
   /// How much of the file was read, from 0 to 1; 0 where that can't be known.
   double progress() const;

private:
   struct Close {
      void operator()(pcap* handle) const;
   };
   std::unique_ptr<pcap, Close> pcap_;
   std::optional<LinkLayer> linkLayer_;
   std::optional<std::string> damage_;
   std::uint64_t packets_ = 0;
   std::atomic<bool> interrupted_{false}; // set by a signal handler
   int file_ = -1, nothing_ = -1;         // the latter is open if the former is a pipe or the like
   double size_ = 0;                      // of the file, 0 if it has none
};

} // namespace Tracker
