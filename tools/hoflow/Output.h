// SPDX-License-Identifier: Apache-2.0
// Where the tool's words go: data to stdout through one buffer, words and progress to stderr. Also the exit
// statuses, and the one exception by which a command ends early.
#pragma once

#include <chrono>
#include <cstdint>
#include <fmt/format.h>
#include <string>
#include <string_view>
#include <vector>

namespace Tool {

enum class Exit {
   ok = 0,
   noMatch = 1,    ///< no such row, no row that a filter lets through, no table
   usage = 2,      ///< the command line can't be understood
   cantOpen = 3,   ///< absent, no permission, of another version or type
   corrupt = 4,    ///< the files hold what no writer leaves there
   incomplete = 5, ///< a table that is half made, or output that isn't whole
};

/// Ends a command. `text` names the thing and its place, `hint` says what to do.
struct Failure {
   Exit status;
   std::string text;
   std::string hint = {};
};

/// Of several tables' outcomes the gravest counts: corrupt, usage, can't open, incomplete, no match, ok.
Exit worse(Exit a, Exit b);

enum class Style { plain, bold, good, warning, bad };

/// stdout. Colour only on a terminal, and not if NO_COLOR is set and not empty.
class Output {
public:
   Output();
   Output(Output const&) = delete;
   Output& operator=(Output const&) = delete;

   fmt::memory_buffer& buffer() { return buffer_; }
   /// Call after each line: writes when enough has come together.
   void lineDone() {
      if (buffer_.size() >= flushSize) flush();
   }
   void line(std::string_view text);
   /// The text in a style, or as it is where there is no colour.
   std::string styled(Style style, std::string_view text) const;
   /// Whether the data goes to a file: then nobody reads it on the terminal at the same time.
   bool isFile() const { return file_; }
   /// @throws Failure if it can't be written. A reader that went away ends the process by SIGPIPE, silently.
   void flush();
   /// From now on a flush that would wait for its reader gives up as soon as this descriptor is readable, and
   /// what is left is thrown away.
   void givesUpOn(int descriptor) { stop_ = descriptor; }
   /// Whether stdout is a pipe or a terminal that nobody reads any more.
   static bool readerGone();

private:
   static constexpr std::size_t flushSize = 65536;
   bool waitForRoom() const;

   bool colour_, file_;
   int stop_ = -1;
   fmt::memory_buffer buffer_;
};

/// "hoflow: TEXT" on stderr, above the progress bar.
void say(std::string_view text);
void say(Failure const& failure);

/// A bar on stderr for long work, from half a second on, if stderr is a terminal and stdout is not in its
/// way. No wider than the terminal, and without its commands where TERM is "dumb".
class Progress {
public:
   Progress(std::string_view what, std::uint64_t total, bool wanted);
   Progress(Progress const&) = delete;
   Progress& operator=(Progress const&) = delete;
   ~Progress() { clear(); }
   void step(std::uint64_t done) {
      if (shown_ && (done & 4095) == 0) draw(done);
   }
   void clear();

private:
   void draw(std::uint64_t done);
   std::string what_;
   std::uint64_t total_;
   bool shown_;
   std::size_t drawn_ = 0; ///< characters that stand on the terminal
   std::chrono::steady_clock::time_point began_, drawnAt_;
};

/// Rows of words in columns two blanks apart. The widths come from the rows that are there when the first of
/// them is written; a longer word later only pushes its line's rest to the right.
class Columns {
public:
   struct Column {
      std::string name;
      bool right; ///< numbers stand at the right
   };
   Columns(Output& out, std::vector<Column> columns, bool header);
   /// Takes a row of as many words as there are columns. A style belongs to the row's last word.
   void add(std::vector<std::string> words, Style last = Style::plain);
   /// Writes what is held back.
   void finish();

private:
   static constexpr std::size_t heldBack = 1000;
   struct Row {
      std::vector<std::string> words;
      Style last;
   };
   void write(Row const& row, bool header = false);

   Output& out_;
   std::vector<Column> columns_;
   bool header_;
   bool settled_ = false;
   std::vector<std::size_t> widths_;
   std::vector<Row> rows_;
};

/// "1.5 MiB" for 1572864, "88 B" for 88.
std::string sizeText(std::uint64_t bytes);

/// 0 where there is nothing to be a part of.
inline double ratio(std::uint64_t part, std::uint64_t whole) {
   return whole ? static_cast<double>(part) / static_cast<double>(whole) : 0;
}

} // namespace Tool
