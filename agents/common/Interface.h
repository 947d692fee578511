// SPDX-License-Identifier: Apache-2.0
// Reads the packets of a network interface as they come and go, through libpcap. Only their headers are
// captured.
#pragma once

#include "PacketSource.h"

namespace Agents {

class Interface final : public PacketSource {
public:
   /// @param name as the system calls it; "any" is all of them
   /// @throws CannotOpen, which says what the user can do about it
   explicit Interface(std::string const& name);

   /// The kernel's number of the interface, nothing for "any".
   std::optional<std::uint32_t> index() const { return index_; }
   std::uint64_t dropped() const override;

private:
   void wait() override;

   std::optional<std::uint32_t> index_;
};

} // namespace Agents
