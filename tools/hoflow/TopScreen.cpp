// SPDX-License-Identifier: Apache-2.0
// ncurses alone. See TopScreen.h.
//
// A signal that ends it only sets a flag: waiting for a key is cut short by it. Resizing is ncurses' own
// signal, and comes as a key.
#include "TopScreen.h"

#include "Mem/Paths.h"
#include "TopLines.h"

#include <algorithm>
#include <atomic>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <curses.h>

namespace Tool {

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<bool> ended{false}; // lock-free, so that a signal may set it

/// The terminal, as curses has it as long as this lives.
class Terminal {
public:
   Terminal() {
      struct sigaction action {};
      action.sa_handler = [](int) { ended = true; };
      sigaction(SIGINT, &action, nullptr);
      sigaction(SIGTERM, &action, nullptr);
      std::setlocale(LC_CTYPE, "");
      screen_ = newterm(nullptr, stdout, stdin);
      if (!screen_) {
         char const* const name = std::getenv("TERM");
         throw Failure{Exit::usage, fmt::format("top knows no terminal of the kind \"{}\"", name ? name : ""),
                       "set TERM, or use hoflow top -1"};
      }
      cbreak();
      noecho();
      keypad(stdscr, TRUE);
      curs_set(0);
      char const* const noColor = std::getenv("NO_COLOR");
      if (!(noColor && *noColor) && has_colors() && start_color() != ERR && use_default_colors() != ERR) {
         init_pair(good, COLOR_GREEN, -1);
         init_pair(warning, COLOR_YELLOW, -1);
         init_pair(bad, COLOR_RED, -1);
         coloured_ = true;
      }
   }
   Terminal(Terminal const&) = delete;
   Terminal& operator=(Terminal const&) = delete;
   ~Terminal() {
      endwin();
      delscreen(screen_);
   }

   attr_t attributes(Style style) const {
      if (style == Style::bold) return A_BOLD;
      if (!coloured_ || style == Style::plain) return A_NORMAL;
      return static_cast<attr_t>(COLOR_PAIR(style == Style::good      ? good
                                            : style == Style::warning ? warning
                                                                      : bad));
   }

private:
   enum : short { good = 1, warning, bad };
   SCREEN* screen_;
   bool coloured_ = false;
};

/// `text` in `width` columns; of one that is too long the end is kept, or the beginning.
std::string fitted(std::string text, std::size_t width, bool right, bool keepEnd) {
   for (char& c : text)
      if (static_cast<unsigned char>(c) < ' ' || c == 0x7f) c = '?';
   if (text.size() > width)
      return keepEnd && width > 2 ? ".." + text.substr(text.size() - width + 2) : text.substr(0, width);
   return right ? std::string(width - text.size(), ' ') + text : text + std::string(width - text.size(), ' ');
}

class View {
   static constexpr std::size_t gap = 2, leastName = 24, leastState = 12;

public:
   View(Terminal const& terminal, Pulses const& pulses)
      : terminal_(terminal)
      , pulses_(pulses) {}

   /// @param trouble shown in place of the summary, if there is any
   void draw(std::string const& trouble) {
      lines_ = topLines(pulses_, order_);
      int const room = std::max(LINES - 4, 1);
      offset_ = std::clamp(offset_, 0, std::max(static_cast<int>(lines_.size()) - room, 0));
      erase();
      drawHead(trouble);
      std::vector<std::size_t> const widths = columnWidths();
      int y = 3;
      std::vector<std::string> names;
      for (auto const& column : topColumns()) names.push_back(column.name);
      drawLine(y++, {names, Style::bold}, widths, A_REVERSE);
      for (auto i = static_cast<std::size_t>(offset_); i < lines_.size() && y < LINES; ++i)
         drawLine(y++, lines_[i], widths, A_NORMAL);
      refresh();
   }

   /// @return false if it is to end
   bool key(int key) {
      switch (key) {
      case 'q':
      case 'Q':
         return false;
      case 's':
         order_ = nextOrder(order_);
         break;
      case KEY_DOWN:
         ++offset_;
         break;
      case KEY_UP:
         --offset_;
         break;
      case KEY_NPAGE:
         offset_ += LINES / 2;
         break;
      case KEY_PPAGE:
         offset_ -= LINES / 2;
         break;
      default:
         break;
      }
      return true;
   }

private:
   void put(int y, std::string const& text, attr_t attributes) {
      if (y >= LINES) return;
      attrset(static_cast<int>(attributes));
      mvaddnstr(y, 0, text.c_str(), COLS);
      attrset(A_NORMAL);
   }
   void drawHead(std::string const& trouble) {
      std::time_t const now = std::time(nullptr);
      std::tm local{};
      localtime_r(&now, &local);
      put(0,
          fmt::format("hoflow top  {}  {:02}:{:02}:{:02}", Mem::RootPath::get(), local.tm_hour, local.tm_min,
                      local.tm_sec),
          A_BOLD);
      if (trouble.empty())
         put(1,
             fmt::format("{} tables, {} rows, {:.0f} changes/s", pulses_.tables().size(), pulses_.rows(),
                         pulses_.changeRate()),
             A_NORMAL);
      else
         put(1, trouble, terminal_.attributes(Style::bad));
      put(2, fmt::format("q quit   s sort (by {})   arrows scroll", orderText(order_)), A_DIM);
   }
   /// 0 for a column that isn't shown. Where the terminal is narrow, names lose their beginnings, then the
   /// columns go that tell least.
   std::vector<std::size_t> columnWidths() const {
      std::vector<std::size_t> widths;
      for (auto const& column : topColumns()) widths.push_back(column.name.size());
      for (TopLine const& line : lines_)
         for (std::size_t i = 0; i < widths.size(); ++i)
            widths[i] = std::max(widths[i], line.words[i].size());
      auto const screen = static_cast<std::size_t>(COLS);
      auto const others = [&](std::size_t last) {
         std::size_t sum = std::min(widths.back(), last);
         for (std::size_t i = 1; i + 1 < widths.size(); ++i) sum += widths[i] ? widths[i] + gap : 0;
         return sum + gap;
      };
      for (std::string_view const dispensable : {"gen", "capacity", "resyncs", "rows/s", "writer"}) {
         if (leastName + others(leastState) <= screen) break;
         for (std::size_t i = 0; i < widths.size(); ++i)
            if (topColumns()[i].name == dispensable) widths[i] = 0;
      }
      widths[0] = std::min(widths[0], std::max(screen - std::min(screen, others(screen)), leastName));
      return widths;
   }
   void drawLine(int y, TopLine const& line, std::vector<std::size_t> const& widths, attr_t attributes) {
      std::string text;
      for (std::size_t i = 0; i + 1 < widths.size(); ++i) {
         if (widths[i] == 0) continue;
         text += fitted(line.words[i], widths[i], topColumns()[i].right, i == 0) + std::string(gap, ' ');
      }
      put(y, text, attributes);
      int const x = static_cast<int>(text.size());
      if (x >= COLS) return;
      attrset(static_cast<int>(attributes | terminal_.attributes(line.style)));
      mvaddnstr(y, x, fitted(line.words.back(), widths.back(), false, false).c_str(), COLS - x);
      attrset(A_NORMAL);
   }

   Terminal const& terminal_;
   Pulses const& pulses_;
   std::vector<TopLine> lines_;
   TopOrder order_ = TopOrder::name;
   int offset_ = 0;
};

} // namespace

void showTop(Pulses& pulses, double interval) {
   Terminal const terminal;
   View view(terminal, pulses);
   auto const pause = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(interval));
   auto next = Clock::now();
   std::string trouble;
   while (!ended) {
      if (Clock::now() >= next) {
         try {
            pulses.look();
            trouble.clear();
         } catch (Failure const& failure) {
            trouble = failure.text;
         }
         next = Clock::now() + pause;
      }
      view.draw(trouble);
      auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()).count();
      timeout(static_cast<int>(std::clamp<long>(left + 1, 1, 3600 * 1000)));
      if (!view.key(getch())) return;
   }
}

} // namespace Tool
