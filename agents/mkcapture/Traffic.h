// SPDX-License-Identifier: Apache-2.0
// Makes up traffic: an endless row of frames that looks to a flow table as a busy network's does. Everything
// follows from the seed. What is in it, and in which proportion, stands in Traffic.cpp. Contents of packets
// are zeros: nobody looks at them.
#pragma once

#include <cstdint>
#include <span>

namespace MkCapture {

/// A small fast generator of 64-bit numbers, the same on every machine (splitmix64).
class Draw {
public:
   explicit Draw(std::uint64_t seed)
      : state_(seed) {}
   std::uint64_t operator()() { return mix(state_ += 0x9e3779b97f4a7c15u); }
   /// From 0 to below `bound`, which is at least 1 and far below 2^32.
   std::uint64_t below(std::uint64_t bound) { return ((*this)() >> 32) * bound >> 32; }
   /// True `share` times in 10,000.
   bool oneIn10000(unsigned share) { return below(10000) < share; }

   static std::uint64_t mix(std::uint64_t z) {
      z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9u;
      z = (z ^ z >> 27) * 0x94d049bb133111ebu;
      return z ^ z >> 31;
   }

private:
   std::uint64_t state_;
};

struct MadeFrame {
   std::span<unsigned char const> captured; // good until the next frame
   std::uint32_t length;                    // on the wire; at least what was captured
   std::uint64_t microseconds;              // since 1970
};

class Traffic {
public:
   /// @param packets how many frames will be asked for; flows appear evenly over them
   /// @param flows at most `packets`
   Traffic(std::uint64_t packets, std::uint64_t flows, std::uint64_t seed);

   MadeFrame next();

private:
   std::uint64_t chooseFlow();
   std::uint32_t buildFlow(std::uint64_t flow);
   std::uint32_t buildOther();
   std::uint32_t sizeOf(std::uint64_t flowBits);

   std::uint64_t packets_, flows_, seed_;
   std::uint64_t made_ = 0, arrived_ = 0;
   std::uint64_t microseconds_ = 1700000000000000u;
   Draw draw_;
   static constexpr unsigned snapLength = 96; // all headers, and little else
   unsigned char frame_[snapLength];
   unsigned captured_ = 0; // bytes of frame_ that the last frame has
};

} // namespace MkCapture
