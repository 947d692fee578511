// SPDX-License-Identifier: Apache-2.0
// One input of the frame fuzzer: the first byte chooses the link layer, the rest is the frame. Stops the
// process where the parser breaks a rule. Shared by the fuzzer and by the test that runs without one.
#pragma once

#include "Frame.h"
#include "Reference.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace FuzzFrame {

inline std::string text(Agents::Frame const& frame) {
   auto flow = [&](char family, auto const& key) {
      auto hex = [](auto const& address) { return Reference::hex(address.bytes()); };
      return std::string(1, family) + " " + std::to_string(key.vlanId()) + " " +
             std::to_string(static_cast<unsigned>(key.ipProtocol())) + " " + hex(key.srcAddr()) + " " +
             hex(key.dstAddr()) + " " + std::to_string(key.srcPort()) + " " + std::to_string(key.dstPort()) +
             " " + std::to_string(frame.bytes);
   };
   switch (frame.verdict) {
   case Agents::Verdict::ip4:
      return flow('4', frame.key4);
   case Agents::Verdict::ip6:
      return flow('6', frame.key6);
   case Agents::Verdict::notIp:
      return "not IP";
   case Agents::Verdict::malformed:
      return "malformed";
   }
   return "?";
}

/// @return the verdict, so that a caller can see what its inputs reach
inline Agents::Verdict compare(unsigned char const* data, std::size_t size) {
   if (size == 0) return Agents::Verdict::notIp;
   auto const layer = static_cast<Agents::LinkLayer>(data[0] % 9);
   // A buffer of exactly the frame's size: the sanitizer sees a read beyond it.
   std::size_t const length = size - 1;
   std::unique_ptr<unsigned char[]> const exact(new unsigned char[length]);
   std::memcpy(exact.get(), data + 1, length);
   std::span<unsigned char const> const bytes(exact.get(), length);
   Agents::Frame frame;
   parseFrame(bytes, layer, frame);
   std::string wanted;
   if (layer == Agents::LinkLayer::ethernet) wanted = Reference::Parser(bytes).ethernet();
   if (layer == Agents::LinkLayer::raw) wanted = Reference::Parser(bytes).raw();
   if (!wanted.empty() && wanted != text(frame)) {
      std::fprintf(stderr, "the parser says:    %s\nthe reference says: %s\n", text(frame).c_str(),
                   wanted.c_str());
      std::abort();
   }
   return frame.verdict;
}

} // namespace FuzzFrame
