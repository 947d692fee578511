// SPDX-License-Identifier: Apache-2.0
// Report.h: texts only.
#include "Report.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <string_view>
#include <sys/ioctl.h>
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
   dumb_ = terminal && std::string_view(terminal) == "dumb";
   colour_ = !(noColour && *noColour) && !dumb_;
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
   std::string text =
       fmt::format("{} {} {:3.0f}%  {} packets, {} a second", label_, bar, share * 100, grouped(packets),
                   grouped(static_cast<std::uint64_t>(double(packets) / seconds)));
   // A line that wraps can't be drawn over. The last column stays free: some terminals wrap behind it.
   winsize window{};
   if (ioctl(STDERR_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 0)
      text.resize(std::min<std::size_t>(text.size(), window.ws_col - 1u));
   clear();
   drawn_ = text.size();
   if (std::size_t const begin = label_.size() + 1; colour_ && begin < text.size()) {
      text.insert(std::min(begin + width, text.size()), "\033[0m");
      text.insert(begin, "\033[32m");
   }
   std::fputs(text.c_str(), stderr);
   std::fflush(stderr);
}

void ProgressBar::clear() {
   if (drawn_ == 0) return;
   if (dumb_)
      std::fprintf(stderr, "\r%*s\r", static_cast<int>(drawn_), "");
   else
      std::fputs("\r\033[K", stderr);
   drawn_ = 0;
}

} // namespace Agents
