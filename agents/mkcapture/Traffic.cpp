// SPDX-License-Identifier: Apache-2.0
// The mix:
//   flows    appear one after the other, evenly over the capture, so that a table of them grows all the
//            while. Which of those that are there sends next is drawn so that a flow's chance falls with
//            its age's rank (about 1/rank): a few flows carry most packets, most flows have one or two
//   pairs    two flows in succession are the two directions between a client and a server
//   hosts    some thousand clients, a few hundred servers, clients' ports counting up
//   families 70 % IPv4, 30 % IPv6; 15 % in one of 16 VLANs, some of these behind a second tag
//   protocol 60 % TCP, 33 % UDP, 5 % ICMP, 2 % ESP
//   sizes    half small, a third full, the rest between; TCP's answers are mostly small
//   rest     of all frames 1 % ARP, 0.3 % fragments, 0.2 % IPv6 with an extension header, 0.02 % malformed
#include "Traffic.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace MkCapture {
namespace {

/// Appends to a frame of fixed size; what doesn't fit is not captured.
class Builder {
public:
   Builder(unsigned char* into, unsigned size)
      : into_(into)
      , size_(size) {}
   Builder& u8(unsigned value) {
      if (at_ < size_) into_[at_] = static_cast<unsigned char>(value);
      ++at_;
      return *this;
   }
   Builder& u16(std::uint64_t value) { return u8(value >> 8 & 0xff).u8(value & 0xff); }
   Builder& u32(std::uint64_t value) { return u16(value >> 16).u16(value); }
   Builder& u64(std::uint64_t value) { return u32(value >> 32).u32(value); }
   unsigned size() const { return at_; }

private:
   unsigned char* into_;
   unsigned size_, at_ = 0;
};

struct Flow {
   bool ip6, answer, tagged, twice;
   unsigned vlan, protocol;
   std::uint32_t client, server;
   unsigned clientPort, serverPort;
};

/// All that a flow is follows from its number. Pairs share their conversation.
Flow flowOf(std::uint64_t number, std::uint64_t seed) {
   std::uint64_t const conversation = number / 2;
   Draw draw(Draw::mix(seed ^ conversation * 0xd1342543de82ef95u));
   Flow flow{};
   flow.answer = number & 1;
   flow.ip6 = draw.below(100) < 30;
   flow.tagged = draw.below(100) < 15;
   flow.twice = flow.tagged && draw.below(8) == 0;
   flow.vlan = 100 + static_cast<unsigned>(draw.below(16));
   auto const kind = draw.below(100);
   flow.protocol = kind < 60 ? 6 : kind < 93 ? 17 : kind < 98 ? (flow.ip6 ? 58 : 1) : 50;
   flow.client = static_cast<std::uint32_t>(draw.below(4096));
   flow.server = static_cast<std::uint32_t>(draw.below(256));
   constexpr unsigned services[] = {443, 443, 443, 80, 53, 53, 22, 8080};
   flow.serverPort = services[draw.below(8)];
   // Ports count up with the conversations, so that no two conversations are one.
   flow.clientPort = 1024 + static_cast<unsigned>(conversation % 64512);
   flow.client += static_cast<std::uint32_t>(conversation / 64512) << 12;
   return flow;
}

} // namespace

Traffic::Traffic(std::uint64_t packets, std::uint64_t flows, std::uint64_t seed)
   : packets_(packets)
   , flows_(std::min(flows, packets))
   , seed_(Draw::mix(seed))
   , draw_(seed_) {}

/// Two at least so that there is always a flow to choose.
std::uint64_t Traffic::chooseFlow() {
   auto const due = static_cast<std::uint64_t>(static_cast<double>(flows_) * static_cast<double>(made_) /
                                               static_cast<double>(packets_)) +
                    1;
   if (arrived_ < std::min(due, flows_)) return arrived_++;
   // Log-uniform: first the power of two, then a number within it.
   unsigned const powers = static_cast<unsigned>(std::bit_width(arrived_));
   for (;;) {
      std::uint64_t const low = std::uint64_t(1) << draw_.below(powers);
      std::uint64_t const rank = low + draw_.below(low);
      if (rank <= arrived_) return rank - 1;
   }
}

std::uint32_t Traffic::sizeOf(std::uint64_t flowBits) {
   auto const kind = draw_.below(100);
   if (flowBits & 1 ? kind < 75 : kind < 35) return static_cast<std::uint32_t>(draw_.below(60));
   if (kind < 50 || kind >= 85) return 60 + static_cast<std::uint32_t>(draw_.below(1200));
   return 1400;
}

std::uint32_t Traffic::buildFlow(std::uint64_t number) {
   Flow const flow = flowOf(number, seed_);
   Builder out(frame_, snapLength);
   out.u16(0x0200).u32(flow.answer ? 2 : 1).u16(0x0200).u32(flow.answer ? 1 : 2);
   if (flow.twice) out.u16(0x88a8).u16(flow.vlan);
   if (flow.tagged) out.u16(0x8100).u16(flow.twice ? 7 : flow.vlan);
   bool const fragment = flow.protocol == 17 && draw_.oneIn10000(90);
   bool const extension = flow.ip6 && !fragment && draw_.oneIn10000(70);
   bool const malformed = draw_.oneIn10000(2);
   unsigned const transport = flow.protocol == 6 ? 20 : 8;
   std::uint32_t const payload = transport + (fragment ? 1200 : sizeOf(number));
   auto host4 = [&](bool server) { out.u32(server ? 0xc0a80000u + flow.server : 0x0a000000u + flow.client); };
   auto host6 = [&](bool server) {
      out.u64(server ? 0x20010db800000001u : 0x20010db800000002u)
          .u64(server ? flow.server + 1 : flow.client + 1);
   };
   std::uint32_t length;
   if (flow.ip6) {
      unsigned const headers = fragment || extension ? 8 : 0;
      out.u16(0x86dd).u32(malformed ? 0x50000000 : 0x60000000).u16(payload + headers);
      out.u8(fragment ? 44 : extension ? 0 : flow.protocol).u8(64);
      host6(flow.answer);
      host6(!flow.answer);
      if (fragment) out.u8(flow.protocol).u8(0).u16(draw_.below(2) ? 1 : 1208).u32(number);
      if (extension) out.u8(flow.protocol).u8(0).u16(0x0104).u32(0);
      length = 40 + headers + payload;
   } else {
      out.u16(0x0800).u8(malformed ? 0x43 : 0x45).u8(0).u16(20 + payload).u16(number);
      out.u16(fragment ? (draw_.below(2) ? 0x2000 : 151) : 0x4000).u8(64).u8(flow.protocol).u16(0);
      host4(flow.answer);
      host4(!flow.answer);
      length = 20 + payload;
   }
   unsigned const before = out.size() - (flow.ip6 ? (fragment || extension ? 48 : 40) : 20);
   if (flow.protocol == 6 || flow.protocol == 17) {
      out.u16(flow.answer ? flow.serverPort : flow.clientPort)
          .u16(flow.answer ? flow.clientPort : flow.serverPort);
      if (flow.protocol == 17) out.u16(payload).u16(0);
   } else if (flow.protocol != 50) {
      out.u8(flow.answer ? 0 : 8).u8(0).u16(0);
   }
   captured_ = std::min({out.size(), snapLength, before + length});
   return before + length;
}

std::uint32_t Traffic::buildOther() {
   Builder out(frame_, snapLength);
   out.u16(0xffff).u32(0xffffffff).u16(0x0200).u32(1).u16(0x0806).u64(0x0001080006040001);
   captured_ = out.size();
   return 60;
}

MadeFrame Traffic::next() {
   std::memset(frame_, 0, sizeof frame_);
   std::uint32_t const length = std::max(60u, draw_.oneIn10000(100) ? buildOther() : buildFlow(chooseFlow()));
   ++made_;
   microseconds_ += draw_.below(8);
   captured_ = std::min(length, snapLength); // zeros follow what was built
   return {{frame_, captured_}, length, microseconds_};
}

} // namespace MkCapture
