// SPDX-License-Identifier: Apache-2.0
// Reads a capture file packet by packet, pcap or pcapng, from a file or a pipe. What was read before a damage
// is good.
#pragma once

#include "PacketSource.h"

namespace Agents {

/// The file's header is damaged, or the file is no capture at all. The text names it.
class NotACapture : public std::runtime_error {
   using std::runtime_error::runtime_error;
};

class Capture final : public PacketSource {
public:
   /// @param path a file, or "-" for standard input
   /// @throws CannotOpen, NotACapture
   explicit Capture(std::string const& path);

   double progress() const override;

private:
   double size_ = 0; // of the file, 0 if it has none
};

} // namespace Agents
