// SPDX-License-Identifier: Apache-2.0
// The frame parser against the fuzzer's reference parser on frames that are nearly right: built whole, then
// changed in a few bytes and cut. Two seconds; HOFLOW_SEED repeats another run, the seed is printed on
// failure.
#include "../../fuzz/frame/Compare.h"
#include "Packets.h"

#include <gtest/gtest.h>
#include <random>

namespace {

using namespace Packets;

Bytes randomFrame(std::mt19937& engine) {
   auto draw = [&] { return static_cast<unsigned>(engine()); };
   static unsigned const types[] = {0x0800, 0x86dd, 0x0800, 0x86dd, 0x8847, 0x05dc};
   static unsigned const protocols[] = {6, 17, 132, 1, 58, 0, 43, 44, 51, 60, 59};
   bool const raw = draw() % 4 == 0;
   Bytes frame{static_cast<unsigned char>(raw ? 6 : 0)}; // the link layers raw and Ethernet
   if (!raw) {
      switch (draw() % 4) {
      case 0:
         frame = frame + ethernet(types[draw() % 6], {{0x8100, draw() % 65536}});
         break;
      case 1:
         frame = frame + ethernet(types[draw() % 6], {{0x88a8, draw() % 65536}, {0x8100, 7}});
         break;
      default:
         frame = frame + ethernet(types[draw() % 6]);
      }
   }
   Bytes chain;
   unsigned const first = protocols[draw() % 11];
   for (unsigned i = draw() % 5; i > 0; --i) {
      unsigned const length = draw() % 8 ? draw() % 2 : draw() % 256;
      chain = chain +
              Bytes{static_cast<unsigned char>(protocols[draw() % 11]), static_cast<unsigned char>(length)} +
              be16(draw() % 3 ? 0 : draw() % 65536) + zeros(4 + (length < 2 ? 8 * length : 0));
   }
   chain = chain + be16(draw() % 65536) + be16(draw() % 65536) + zeros(draw() % 20);
   int const length = draw() % 3 ? -1 : static_cast<int>(draw() % 100);
   bool const six = frame.size() > 2 ? frame[frame.size() - 2] == 0x86 : draw() % 2;
   if (six)
      frame = frame + Ip6{.length = length, .nextHeader = first, .payload = chain}.bytes();
   else
      frame = frame + Ip4{.versionAndLength = draw() % 4 ? 0x45u : 0x40u + draw() % 16,
                          .length = length,
                          .fragment = draw() % 2 ? 0 : draw() % 65536,
                          .protocol = first,
                          .payload = chain}
                          .bytes();
   for (unsigned i = draw() % 3; i > 0; --i)
      frame[1 + draw() % (frame.size() - 1)] = static_cast<unsigned char>(draw());
   if (draw() % 2) frame.resize(1 + draw() % frame.size());
   return frame;
}

TEST(Frame, AgreesWithTheReference) {
   char const* const given = std::getenv("HOFLOW_SEED");
   unsigned const seed = given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : 1;
   std::mt19937 draw(seed);
   unsigned reached[4] = {};
   for (unsigned i = 0; i < 300000; ++i) {
      SCOPED_TRACE(seed);
      Bytes const frame = randomFrame(draw);
      ++reached[static_cast<unsigned>(FuzzFrame::compare(frame.data(), frame.size()))];
   }
   for (unsigned count : reached) EXPECT_GT(count, 10000u) << "each verdict must occur often";
}

} // namespace
