// SPDX-License-Identifier: Apache-2.0
// Report.h: texts only.
#include "Report.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <string_view>
#include <unistd.h>

namespace Agents {

void complain(std::string const& text) {
   std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, text.c_str());
}

bool say(std::string const& text) {
   std::fwrite(text.data(), 1, text.size(), stdout);
   if (std::fflush(stdout) == 0) return true;
   complain(std::string("standard output can't be written: ") + std::strerror(errno));
   return false;
}

std::string grouped(std::uint64_t number) {
   std::string const digits = std::to_string(number);
   std::string text;
   for (std::size_t i = 0; i < digits.size(); ++i) {
      if (i && (digits.size() - i) % 3 == 0) text += ',';
      text += digits[i];
   }
   return text;
}

std::string groupedSum(std::uint64_t ip4, std::uint64_t ip6) {
   return fmt::format("{} ({} IPv4, {} IPv6)", grouped(ip4 + ip6), grouped(ip4), grouped(ip6));
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

} // namespace Agents
