// SPDX-License-Identifier: Apache-2.0
// Buffered stdout, words and progress on stderr, columns. See Output.h.
#include "Output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Tool {

using namespace std::chrono_literals;

Exit worse(Exit a, Exit b) {
   constexpr std::array order{Exit::ok,       Exit::noMatch, Exit::incomplete,
                              Exit::cantOpen, Exit::usage,   Exit::corrupt};
   auto const rank = [&](Exit e) { return std::find(order.begin(), order.end(), e); };
   return rank(a) < rank(b) ? b : a;
}

namespace {

/// Whether the terminal takes no command but to begin its line anew.
bool isDumb() {
   char const* const terminal = std::getenv("TERM");
   return terminal && std::string_view(terminal) == "dumb";
}

} // namespace

Output::Output() {
   char const* const noColor = std::getenv("NO_COLOR");
   colour_ = isatty(STDOUT_FILENO) != 0 && !(noColor && *noColor) && !isDumb();
   struct stat status {};
   file_ = fstat(STDOUT_FILENO, &status) == 0 && S_ISREG(status.st_mode);
}

void Output::line(std::string_view text) {
   buffer_.append(text.data(), text.data() + text.size());
   buffer_.push_back('\n');
   lineDone();
}

std::string Output::styled(Style style, std::string_view text) const {
   if (!colour_ || style == Style::plain) return std::string(text);
   constexpr std::array codes{"0", "1", "32", "33", "31"};
   return fmt::format("\033[{}m{}\033[0m", codes[static_cast<std::size_t>(style)], text);
}

bool Output::readerGone() {
   pollfd out{STDOUT_FILENO, 0, 0};
   return poll(&out, 1, 0) == 1 && (out.revents & (POLLERR | POLLHUP)) != 0;
}

/// @return false if the output is to be given up
bool Output::waitForRoom() const {
   pollfd either[2] = {{STDOUT_FILENO, POLLOUT, 0}, {stop_, POLLIN, 0}};
   while (poll(either, 2, -1) < 0 && errno == EINTR) {
   }
   return either[0].revents != 0;
}

void Output::flush() {
   std::size_t done = 0;
   while (done < buffer_.size()) {
      std::string_view part(buffer_.data() + done, buffer_.size() - done);
      if (stop_ >= 0) {
         if (!waitForRoom()) break;
         // A pipe that has room has it for PIPE_BUF bytes at least: a write of no more doesn't wait, and is
         // done as a whole. Whole lines, since the next write may be given up.
         part = part.substr(0, PIPE_BUF);
         if (auto const end = part.rfind('\n'); end != part.npos) part = part.substr(0, end + 1);
      }
      ssize_t const wrote = write(STDOUT_FILENO, part.data(), part.size());
      if (wrote < 0 && errno == EINTR) continue;
      if (wrote < 0) {
         int const why = errno;
         buffer_.clear();
         throw Failure{Exit::incomplete, fmt::format("cannot write the output: {}", std::strerror(why))};
      }
      done += static_cast<std::size_t>(wrote);
   }
   buffer_.clear();
}

namespace {

/// Names of tables and bytes of damaged files may hold what a terminal takes for a command.
std::string withoutControls(std::string text, bool lines) {
   for (char& c : text)
      if ((static_cast<unsigned char>(c) < ' ' && !(lines && c == '\n')) || c == 0x7f) c = '?';
   return text;
}

} // namespace

void say(std::string_view text) {
   fmt::print(stderr, "hoflow: {}\n", withoutControls(std::string(text), true));
}

void say(Failure const& failure) {
   say(failure.text);
   if (!failure.hint.empty()) fmt::print(stderr, "  {}\n", withoutControls(failure.hint, true));
}

Progress::Progress(std::string_view what, std::uint64_t total, bool wanted)
   : what_(what)
   , total_(total)
   , shown_(wanted && isatty(STDERR_FILENO))
   , began_(std::chrono::steady_clock::now())
   , drawnAt_(began_ + 400ms) {}

void Progress::draw(std::uint64_t done) {
   auto const now = std::chrono::steady_clock::now();
   if (now - drawnAt_ < 100ms) return;
   drawnAt_ = now;
   constexpr std::size_t width = 30;
   // Under a live writer there may be more rows by now than there were at the start.
   std::uint64_t const total = std::max(total_, done);
   auto const filled = static_cast<std::size_t>(total ? done * width / total : width);
   double const seconds = std::chrono::duration<double>(now - began_).count();
   std::string text =
       fmt::format("{} [{}{}] {} of {} rows, {:.0f} a second", what_, std::string(filled, '#'),
                   std::string(width - filled, '.'), done, total, static_cast<double>(done) / seconds);
   // A line that wraps can't be drawn over. The last column stays free: some terminals wrap behind it.
   winsize window{};
   if (ioctl(STDERR_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 0)
      text.resize(std::min<std::size_t>(text.size(), window.ws_col - 1u));
   clear();
   drawn_ = text.size();
   fmt::print(stderr, "{}", text);
   std::fflush(stderr);
}

void Progress::clear() {
   if (drawn_ == 0) return;
   if (isDumb())
      fmt::print(stderr, "\r{}\r", std::string(drawn_, ' '));
   else
      fmt::print(stderr, "\r\033[K");
   std::fflush(stderr);
   drawn_ = 0;
}

Columns::Columns(Output& out, std::vector<Column> columns, bool header)
   : out_(out)
   , columns_(std::move(columns))
   , header_(header) {
   for (Column const& column : columns_) widths_.push_back(header ? column.name.size() : 0);
}

void Columns::add(std::vector<std::string> words, Style last) {
   Row row{std::move(words), last};
   if (settled_) return write(row);
   for (std::size_t i = 0; i < widths_.size(); ++i) widths_[i] = std::max(widths_[i], row.words[i].size());
   rows_.push_back(std::move(row));
   if (rows_.size() == heldBack) finish();
}

void Columns::finish() {
   if (settled_) return;
   settled_ = true;
   if (header_) {
      Row names{{}, Style::bold};
      for (Column const& column : columns_) names.words.push_back(column.name);
      write(names, true);
   }
   for (Row const& row : rows_) write(row);
   rows_.clear();
}

void Columns::write(Row const& row, bool header) {
   auto& out = out_.buffer();
   std::string line;
   for (std::size_t i = 0; i < columns_.size(); ++i) {
      bool const last = i + 1 == columns_.size();
      std::string const word = withoutControls(row.words[i], false);
      std::size_t const fill = widths_[i] > word.size() ? widths_[i] - word.size() : 0;
      if (columns_[i].right) line.append(fill, ' ');
      line += last && !header ? out_.styled(row.last, word) : word;
      if (!columns_[i].right && !last) line.append(fill, ' ');
      if (!last) line += "  ";
   }
   line.erase(line.find_last_not_of(' ') + 1);
   if (header) line = out_.styled(Style::bold, line);
   out.append(line.data(), line.data() + line.size());
   out.push_back('\n');
   out_.lineDone();
}

std::string sizeText(std::uint64_t bytes) {
   constexpr std::array units{"B", "KiB", "MiB", "GiB", "TiB"};
   auto size = static_cast<double>(bytes);
   std::size_t unit = 0;
   for (; size >= 1024 && unit + 1 < units.size(); ++unit) size /= 1024;
   return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", size, units[unit]);
}

} // namespace Tool
