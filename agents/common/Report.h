// SPDX-License-Identifier: Apache-2.0
// What an agent shows to people: words on stderr, numbers, the progress bar. Says nothing on its own.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace Agents {

/// "PROGRAM: TEXT" as a line on stderr.
void complain(std::string const& text);

/// Writes the figures to stdout. Complains and returns false if that doesn't take them.
bool say(std::string const& text);

/// A number with a comma between thousands.
std::string grouped(std::uint64_t number);
/// "3 (2 IPv4, 1 IPv6)".
std::string groupedSum(std::uint64_t ip4, std::uint64_t ip6);

/// A bar on stderr, redrawn at most ten times a second. Silent unless stderr is a terminal. In colour unless
/// NO_COLOR is set and not empty. No wider than the terminal, and without its commands where TERM is "dumb".
class ProgressBar {
public:
   explicit ProgressBar(std::string label);
   ~ProgressBar() { clear(); }
   ProgressBar(ProgressBar const&) = delete;
   ProgressBar& operator=(ProgressBar const&) = delete;
   /// @param share of the work that is done, from 0 to 1; 0 where it isn't known
   void show(double share, std::uint64_t packets);
   void clear();

private:
   std::string label_;
   bool terminal_, colour_, dumb_;
   std::size_t drawn_ = 0; ///< characters that stand on the terminal
   std::chrono::steady_clock::time_point start_, next_;
};

} // namespace Agents
