// SPDX-License-Identifier: Apache-2.0
// Flow keys as a network makes them, for judging hashes: each set is the keys of one situation, without
// repeats, the same on every run. Used by the benchmark beside it and by the test of hash quality.
#pragma once

#include "FlowTracking/IpFlowKey.h"

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace KeySets {

template <class Key> struct Set {
   std::string name;
   std::vector<Key> keys;
};

/// An address of either family that ends in the 32 bits of `host`, within one network.
template <class Key> typename Key::Address address(std::uint32_t host) {
   typename Key::Address::Bytes bytes{};
   if constexpr (Key::isIp6) bytes = {0x20, 0x01, 0x0d, 0xb8, 0, 7};
   for (unsigned i = 0; i < 4; ++i) bytes[bytes.size() - 1 - i] = static_cast<std::uint8_t>(host >> 8 * i);
   return typename Key::Address(bytes);
}

template <class Key>
Key key(std::uint32_t src, std::uint32_t dst, unsigned srcPort, unsigned dstPort, unsigned vlan = 0,
        Ip::Protocol protocol = Ip::Protocol::tcp) {
   return Key(0, static_cast<Ovie::VlanId>(vlan), address<Key>(src), address<Key>(dst), protocol,
              static_cast<std::uint16_t>(srcPort), static_cast<std::uint16_t>(dstPort));
}

constexpr std::uint32_t tenNet = 0x0a000000;

/// `count` keys (at most 2^20) of each situation.
template <class Key> std::vector<Set<Key>> all(unsigned count) {
   std::vector<Set<Key>> sets;
   auto add = [&](char const* name, std::function<Key(unsigned)> make) {
      Set<Key> set{name, {}};
      set.keys.reserve(count);
      for (unsigned i = 0; i < count; ++i) set.keys.push_back(make(i));
      sets.push_back(std::move(set));
   };
   add("few hosts, counting ports", [](unsigned i) { // 16 clients, one server, source ports count up
      return key<Key>(tenNet + 1 + i % 16, tenNet + 0xfffe, 1024 + i / 16 % 0xf000, 443 + i / (16 * 0xf000));
   });
   add("one host, two counting ports", [](unsigned i) { // a port scan from every port
      return key<Key>(tenNet + 1, tenNet + 2, 32768 + i % 1024, 1 + i / 1024);
   });
   add("sequential sources", [](unsigned i) { return key<Key>(tenNet + i, tenNet + 0xffffff, 0, 53); });
   add("both addresses counting", [](unsigned i) {
      return key<Key>(tenNet + i % 1024, tenNet + 0x10000 + i / 1024, 5000, 5000, 0, Ip::Protocol::udp);
   });
   add("one tuple in many VLANs",
       [](unsigned i) { return key<Key>(tenNet + i / 4094, tenNet, 7, 7, i % 4094); });
   add("both directions", [](unsigned i) { // each flow and its answer
      unsigned const flow = i / 2, client = tenNet + flow % 4096, port = 20000 + flow / 4096;
      return i % 2 ? key<Key>(tenNet + 0xffff, client, 80, port)
                   : key<Key>(client, tenNet + 0xffff, port, 80);
   });
   add("multiples of 256", [](unsigned i) { // only high bytes differ
      return key<Key>(tenNet + (i << 8 & 0xffff00), tenNet, i >> 16 << 8, 0);
   });

   // All keys that differ from one key in at most three bits of addresses, ports and VLAN.
   Set<Key> near{"up to three bits apart", {}};
   Key const base = key<Key>(0xc0a80117, 0xc0a80120, 0xd431, 443, 100);
   auto flip = [](Key from, unsigned bit) {
      auto const mask = [&](unsigned first) { return bit - first < 32 ? 1u << (bit - first) : 0u; };
      auto addr = [](typename Key::Address a, std::uint32_t change) {
         auto bytes = a.bytes();
         for (unsigned i = 0; i < 4; ++i)
            bytes[bytes.size() - 1 - i] ^= static_cast<std::uint8_t>(change >> 8 * i);
         return typename Key::Address(bytes);
      };
      return Key(from.vrfId(), static_cast<Ovie::VlanId>(from.vlanId() ^ (bit >= 96 ? 1u << (bit - 96) : 0u)),
                 addr(from.srcAddr(), mask(0)), addr(from.dstAddr(), mask(32)), from.ipProtocol(),
                 static_cast<std::uint16_t>(from.srcPort() ^ (mask(64) & 0xffff)),
                 static_cast<std::uint16_t>(from.dstPort() ^ (mask(64) >> 16)));
   };
   constexpr unsigned bits = 108;
   for (unsigned a = 0; a < bits; ++a)
      for (unsigned b = a; b < bits; ++b)
         for (unsigned c = b; c < bits && near.keys.size() < count; ++c)
            if (a == b ? b == c : b != c) { // 1 or 3 different bits; never the same key twice
               Key made = flip(base, a);
               if (a != b) made = flip(flip(made, b), c);
               near.keys.push_back(made);
            }
   sets.push_back(std::move(near));

   Set<Key> random{"random", {}};
   std::mt19937_64 draw(42);
   for (unsigned i = 0; i < count; ++i) {
      typename Key::Address::Bytes src, dst;
      for (auto& byte : src) byte = static_cast<std::uint8_t>(draw());
      for (auto& byte : dst) byte = static_cast<std::uint8_t>(draw());
      auto const word = draw();
      random.keys.push_back(Key(0, word & 0xfff, typename Key::Address(src), typename Key::Address(dst),
                                word & 0x1000 ? Ip::Protocol::tcp : Ip::Protocol::udp,
                                static_cast<std::uint16_t>(word >> 16),
                                static_cast<std::uint16_t>(word >> 32)));
   }
   sets.push_back(std::move(random));
   return sets;
}

} // namespace KeySets
