// SPDX-License-Identifier: Apache-2.0
// Report.h: texts only.
#include "Report.h"

#include <cstdio>
#include <cstdlib>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace Tracker {

std::string grouped(std::uint64_t number) {
   std::string const digits = std::to_string(number);
   std::string text;
   for (std::size_t i = 0; i < digits.size(); ++i) {
      if (i && (digits.size() - i) % 3 == 0) text += ',';
      text += digits[i];
   }
   return text;
}

std::string toText(Figures const& f) {
   auto sum = [&](std::uint64_t FamilyFigures::*field) { return f.ip4.*field + f.ip6.*field; };
   auto line = [&](char const* name, std::uint64_t FamilyFigures::*field) {
      return fmt::format("{:>16}  {} ({} IPv4, {} IPv6)\n", name, grouped(sum(field)), grouped(f.ip4.*field),
                         grouped(f.ip6.*field));
   };
   std::string text =
       fmt::format("{:>16}  {}, {} packets read\n", "capture", f.capture, grouped(f.packetsRead));
   text += line("flows", &FamilyFigures::flows);
   text += line("packets", &FamilyFigures::packets);
   text += line("bytes", &FamilyFigures::bytes);
   if (sum(&FamilyFigures::packetsKept)) text += line("kept", &FamilyFigures::packetsKept);
   text += fmt::format("{:>16}  {} (no IP {}, malformed {}, link type not supported {})\n", "not counted",
                       grouped(f.notIp + f.malformed + f.linkType), grouped(f.notIp), grouped(f.malformed),
                       grouped(f.linkType));
   auto const stores = sum(&FamilyFigures::stores);
   text += fmt::format("{:>16}  {} ({} rows stored in {:.3f} s)\n", "rows a second",
                       f.seconds > 0 ? grouped(static_cast<std::uint64_t>(double(stores) / f.seconds)) : "-",
                       grouped(stores), f.seconds);
   text += fmt::format("{:>16}  {}\n{:>16}  {}\n{:>16}  below {}\n", "tables", f.ip4.table, "", f.ip6.table,
                       "", f.root);
   return text;
}

std::string toJson(Figures const& f) {
   using Json = nlohmann::ordered_json;
   auto family = [](FamilyFigures const& ip) {
      return Json{{"table", ip.table},
                  {"flows", ip.flows},
                  {"packets", ip.packets},
                  {"bytes", ip.bytes},
                  {"packetsKept", ip.packetsKept},
                  {"rowsRemoved", ip.rowsRemoved},
                  {"rowsStored", ip.stores}};
   };
   auto const stores = f.ip4.stores + f.ip6.stores;
   Json json{{"capture", f.capture},
             {"root", f.root},
             {"packetsRead", f.packetsRead},
             {"flows", f.ip4.flows + f.ip6.flows},
             {"packets", f.ip4.packets + f.ip6.packets},
             {"bytes", f.ip4.bytes + f.ip6.bytes},
             {"packetsKept", f.ip4.packetsKept + f.ip6.packetsKept},
             {"ip4", family(f.ip4)},
             {"ip6", family(f.ip6)},
             {"notCounted", {{"notIp", f.notIp}, {"malformed", f.malformed}, {"linkType", f.linkType}}},
             {"seconds", f.seconds},
             {"rowsPerSecond", f.seconds > 0 ? double(stores) / f.seconds : 0.0},
             {"complete", f.complete}};
   if (f.damage) json["damage"] = {{"packet", f.packetsRead + 1}, {"text", *f.damage}};
   // File names and libpcap's words may hold any bytes.
   return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

ProgressBar::ProgressBar(std::string label)
   : label_(std::move(label))
   , terminal_(isatty(STDERR_FILENO) == 1)
   , start_(std::chrono::steady_clock::now()) {
   char const* const noColour = std::getenv("NO_COLOR");
   char const* const terminal = std::getenv("TERM");
   colour_ = !(noColour && *noColour) && !(terminal && std::string_view(terminal) == "dumb");
   next_ = start_ + std::chrono::milliseconds(500); // short work shows no bar
}

void ProgressBar::show(double share, std::uint64_t packets) {
   if (!terminal_) return;
   auto const now = std::chrono::steady_clock::now();
   if (now < next_) return;
   next_ = now + std::chrono::milliseconds(100);
   constexpr int width = 30;
   int const full = static_cast<int>(share * width);
   std::string bar;
   for (int i = 0; i < width; ++i) bar += i < full ? "#" : ".";
   double const seconds = std::chrono::duration<double>(now - start_).count();
   std::string const text =
       fmt::format("{} {}{}{} {:3.0f}%  {} packets, {} a second", label_, colour_ ? "\033[32m" : "", bar,
                   colour_ ? "\033[0m" : "", share * 100, grouped(packets),
                   grouped(static_cast<std::uint64_t>(double(packets) / seconds)));
   std::fprintf(stderr, "\r%s\033[K", text.c_str());
   std::fflush(stderr);
   drawn_ = true;
}

void ProgressBar::clear() {
   if (drawn_) std::fprintf(stderr, "\r\033[K");
   drawn_ = false;
}

} // namespace Tracker
