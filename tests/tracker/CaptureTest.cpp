// SPDX-License-Identifier: Apache-2.0
// Damaged captures. The file is cut at every byte: the packets before the cut are read and counted, the
// damage is told with the packet's number, and a file whose header is damaged is no capture. Both formats.
#include "Capture.h"
#include "MemoryStore.h"
#include "Packets.h"
#include "Track.h"

#include <gtest/gtest.h>

namespace Tracker {
namespace {

using namespace Packets;
using Agents::Capture, Agents::NotACapture;

struct Read {
   std::string failure; // nothing if the file could be opened
   std::uint64_t packets = 0;
   bool damaged = false;
};

Read read(std::string const& path) {
   try {
      Capture capture(path);
      MemoryStore<FlowTracking::HoIpFlowCounter> table4;
      MemoryStore<FlowTracking::HoIp6FlowCounter> table6;
      if (!capture.linkLayer()) throw NotACapture("link type");
      auto const figures = countAll(capture, table4, table6);
      EXPECT_TRUE(figures.complete);
      std::uint64_t counted = 0;
      table4.forEach([&](auto const& row) { counted += row.packets(); });
      EXPECT_EQ(counted, figures.packetsRead);
      return {{}, counted, figures.damage.has_value()};
   } catch (NotACapture const& e) {
      return {e.what()};
   }
}

Pcap threePackets() {
   Pcap pcap;
   for (unsigned i = 0; i < 3; ++i)
      pcap.add(ethernet(0x0800) + Ip4{.protocol = 17, .payload = be16(i) + be16(9) + zeros(4)}.bytes());
   return pcap;
}

/// The same as pcapng: one section, one interface, three packets in enhanced blocks.
Pcap threePacketsNextGeneration() {
   Pcap pcap;
   auto const classic = threePackets();
   auto block = [](unsigned type, Bytes const& body) {
      auto const size = static_cast<std::uint32_t>(body.size() + 12);
      return le32(type) + le32(size) + body + le32(size);
   };
   pcap.bytes = block(0x0a0d0d0a, le32(0x1a2b3c4d) + le16(1) + le16(0) + le32(~0u) + le32(~0u)) +
                block(1, le16(1) + le16(0) + le32(262144));
   for (auto const start : classic.starts) {
      Bytes frame(classic.bytes.begin() + static_cast<long>(start) + 16,
                  classic.bytes.begin() + static_cast<long>(start) + 16 + 42);
      pcap.starts.push_back(pcap.bytes.size());
      pcap.bytes =
          pcap.bytes + block(6, le32(0) + le32(0) + le32(1000) + le32(42) + le32(42) + frame + zeros(2));
   }
   return pcap;
}

void cutEverywhere(Pcap const& whole, std::size_t headerEnd) {
   Folder folder;
   ASSERT_EQ(read(folder.write("whole", whole.bytes)).packets, 3u);
   std::size_t const size = whole.starts[1] - whole.starts[0];
   for (std::size_t cut = 0; cut < whole.bytes.size(); ++cut) {
      SCOPED_TRACE(cut);
      auto bytes = whole.bytes;
      bytes.resize(cut);
      auto const path = folder.write("cut", bytes);
      auto const [failure, packets, damaged] = read(path);
      if (cut < headerEnd) {
         EXPECT_NE(failure.find(path), std::string::npos) << failure;
      } else {
         EXPECT_EQ(failure, "");
         EXPECT_EQ(packets, (cut - headerEnd) / size);
         EXPECT_EQ(damaged, (cut - headerEnd) % size != 0);
      }
   }
}

TEST(Capture, CutAtEveryByte) { cutEverywhere(threePackets(), 24); }
TEST(Capture, NextGenerationCutAtEveryByte) { cutEverywhere(threePacketsNextGeneration(), 28 + 20); }

TEST(Capture, BrokenInside) {
   Pcap const classic = threePackets(), next = threePacketsNextGeneration();
   struct {
      Pcap const& pcap;
      std::size_t at;
      unsigned char byte;
      std::uint64_t packets;
   } const all[] = {
       {classic, classic.starts[1] + 11, 0x7f, 1}, // captured length of the second packet: 2 GB
       {next, next.starts[2] - 1, 1, 1},           // trailing length of the second packet's block
       {next, next.starts[0] + 4, 3, 0},           // length of the first packet's block
   };
   Folder folder;
   for (auto const& [pcap, at, byte, packets] : all) {
      auto bytes = pcap.bytes;
      bytes[at] = byte;
      Read const result = read(folder.write("broken", bytes));
      EXPECT_EQ(result.packets, packets);
      EXPECT_TRUE(result.damaged);
   }
   auto bytes = classic.bytes;
   bytes[0] ^= 0xff;
   EXPECT_NE(read(folder.write("magic", bytes)).failure.find("expected a pcap or pcapng file"),
             std::string::npos);
}

TEST(Capture, TimesAreThoseOfTheCapture) {
   Folder folder;
   Pcap pcap;
   Bytes const frame = ethernet(0x0800) + Ip4{}.bytes();
   pcap.add(frame, 1700000000, 250000);
   pcap.add(frame, 1600000000, 500000); // time goes backwards
   Capture capture(folder.write("times", pcap.bytes));
   MemoryStore<FlowTracking::HoIpFlowCounter> table4;
   MemoryStore<FlowTracking::HoIp6FlowCounter> table6;
   countAll(capture, table4, table6);
   ASSERT_EQ(table4.rows(), 1u);
   auto const row = table4.content().begin()->second;
   EXPECT_EQ(row.createTime(), 1700000000.25);
   EXPECT_EQ(row.updateTime(), 1600000000.5);
   EXPECT_EQ(row.packets(), 2u);
   EXPECT_EQ(row.bytes(), 80u);
}

} // namespace
} // namespace Tracker
