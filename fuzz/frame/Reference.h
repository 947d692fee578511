// SPDX-License-Identifier: Apache-2.0
// The rules of agents/common/Frame.h a second time, written to be obvious rather than quick, and in another
// way: each byte is asked for by its offset in the whole frame and may turn out not to be there. The fuzzer
// and a test compare the two parsers. Only Ethernet and the raw link types, which all others lead to.
#pragma once

#include <optional>
#include <span>
#include <string>

namespace Reference {

inline std::string hex(std::span<unsigned char const> bytes) {
   std::string text;
   for (unsigned const byte : bytes) {
      text += "0123456789abcdef"[byte / 16];
      text += "0123456789abcdef"[byte % 16];
   }
   return text;
}

class Parser {
public:
   explicit Parser(std::span<unsigned char const> frame)
      : frame_(frame) {}

   /// The flow as text, "not IP" or "malformed".
   std::string ethernet() const {
      unsigned vlan = 0;
      std::size_t at = 12;
      for (bool first = true;; first = false) {
         auto const type = number(at, 2);
         if (!type) return "not IP";
         if (*type == 0x0800) return ip4(at + 2, vlan);
         if (*type == 0x86dd) return ip6(at + 2, vlan);
         auto const tag = number(at + 2, 2);
         if ((*type != 0x8100 && *type != 0x88a8) || !tag) return "not IP";
         if (first) vlan = *tag % 4096;
         at += 4;
      }
   }

   std::string raw() const {
      auto const first = number(0, 1);
      if (first && *first / 16 == 4) return ip4(0, 0);
      if (first && *first / 16 == 6) return ip6(0, 0);
      return "malformed";
   }

private:
   std::optional<unsigned> number(std::size_t at, unsigned bytes) const {
      unsigned value = 0;
      for (unsigned i = 0; i < bytes; ++i) {
         if (at + i >= frame_.size()) return std::nullopt;
         value = value * 256 + frame_[at + i];
      }
      return value;
   }

   std::string flow(char family, unsigned vlan, unsigned protocol, bool fragment, std::size_t src,
                    unsigned width, std::size_t transport, std::size_t end, unsigned length) const {
      std::string ports = "0 0";
      auto const a = number(transport, 2), b = number(transport + 2, 2);
      bool const known = protocol == 6 || protocol == 17 || protocol == 132;
      if (known && !fragment && a && b && transport + 4 <= end)
         ports = std::to_string(*a) + " " + std::to_string(*b);
      return std::string(1, family) + " " + std::to_string(vlan) + " " + std::to_string(protocol) + " " +
             hex(frame_.subspan(src, width)) + " " + hex(frame_.subspan(src + width, width)) + " " + ports +
             " " + std::to_string(length);
   }

   std::string ip4(std::size_t at, unsigned vlan) const {
      if (!number(at + 19, 1)) return "malformed";
      unsigned const first = *number(at, 1), length = *number(at + 2, 2), header = first % 16 * 4;
      if (first / 16 != 4 || header < 20 || length < header) return "malformed";
      unsigned const place = *number(at + 6, 2);
      bool const fragment = place % 8192 != 0 || place / 8192 % 2 == 1;
      return flow('4', vlan, *number(at + 9, 1), fragment, at + 12, 4, at + header, at + length, length);
   }

   std::string ip6(std::size_t at, unsigned vlan) const {
      if (!number(at + 39, 1) || *number(at, 1) / 16 != 6) return "malformed";
      unsigned const length = *number(at + 4, 2) + 40;
      unsigned protocol = *number(at + 6, 1);
      bool fragment = false;
      std::size_t header = at + 40;
      for (;;) {
         auto const next = number(header, 1), size = number(header + 1, 1), place = number(header + 2, 2);
         if (protocol == 0 || protocol == 43 || protocol == 60) {
            if (!next || !size) break;
            header += *size * 8 + 8;
         } else if (protocol == 51) {
            if (!next || !size) break;
            header += *size * 4 + 8;
         } else if (protocol == 44) {
            if (!place) break;
            header += 8;
            if (*place / 8 != 0 || *place % 2 == 1) fragment = true;
            if (*place / 8 != 0) {
               protocol = *next;
               break;
            }
         } else {
            break;
         }
         protocol = *next;
      }
      return flow('6', vlan, protocol, fragment, at + 8, 16, header, at + length, length);
   }

   std::span<unsigned char const> frame_;
};

} // namespace Reference
