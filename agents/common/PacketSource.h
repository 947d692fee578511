// SPDX-License-Identifier: Apache-2.0
// Where packets come from: a capture file or pipe (Capture.h), or a network interface (Interface.h). Both
// read through libpcap, say exactly where and why they stop, and know nothing of what packets contain.
#pragma once

#include "Frame.h"
#include "Zeb/Seconds.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

struct pcap;

namespace Agents {

/// The source can't be opened: it isn't there, is of another kind, or may not be read. The text names it.
class CannotOpen : public std::runtime_error {
   using std::runtime_error::runtime_error;
};

struct Packet {
   std::span<unsigned char const> captured; // good until the next one is read
   Zeb::Seconds time;                       // since 1970, as captured
};

class PacketSource {
public:
   virtual ~PacketSource() = default;
   PacketSource(PacketSource const&) = delete;
   PacketSource& operator=(PacketSource const&) = delete;

   /// Reads the next packet. Where there is none yet, it waits in the thread's event loop. False at the end,
   /// at damage and once the program was told to stop (Stop.h).
   bool next(Packet& packet);

   /// Packets read so far.
   std::uint64_t packets() const { return packets_; }
   /// Why reading stopped before the end, in libpcap's words; nothing otherwise. The damaged packet is number
   /// `packets() + 1`.
   std::optional<std::string> const& damage() const { return damage_; }
   /// Nothing if the source's link type isn't supported; then `linkTypeText()` says which it is.
   std::optional<LinkLayer> linkLayer() const;
   std::string linkTypeText() const;
   /// How much of the source was read, from 0 to 1; 0 where that can't be known.
   virtual double progress() const { return 0; }
   /// Packets that the system had to drop before they could be read.
   virtual std::uint64_t dropped() const { return 0; }

protected:
   struct Close {
      void operator()(pcap* handle) const;
   };
   using Handle = std::unique_ptr<pcap, Close>;

   PacketSource() = default;
   /// Waits for more. Called where libpcap has nothing, and doesn't wait itself.
   virtual void wait() {}

   Handle pcap_;

private:
   std::optional<std::string> damage_;
   std::uint64_t packets_ = 0;
};

} // namespace Agents
