// SPDX-License-Identifier: Apache-2.0
// load: the one command that writes. It makes itself the table's writer for as long as it takes.
//
// The whole file is read and understood before the table is touched: a file with a line that doesn't parse
// changes nothing. The table then has the rows of the file and, unless they are to be kept, no others. Rows
// are stored one by one, so a reader sees the old table turn into the new one.
#include "Commands.h"
#include "Files.h"
#include "FlowTracking/TableTypes.h"
#include "Json.h"
#include "Names.h"
#include "Schema.h"
#include "Walk.h"
#include "Zeb/Registry.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <numeric>

namespace Tool {

namespace {

using Mirak::TableType;

std::string typeNames() {
   std::string names;
   for (TableType const& type : FlowTracking::tableTypes())
      (names += names.empty() ? "" : " ") += type.valueType;
   return names;
}

/// The type that the text form of a row names.
std::string_view typeInStrep(std::string_view line) {
   constexpr std::string_view open = "Value('";
   if (!line.starts_with(open)) return {};
   line.remove_prefix(open.size());
   auto const quote = line.find('\'');
   return quote == std::string_view::npos ? std::string_view() : line.substr(0, quote);
}

/// Rows side by side, with the lines that they come from.
class Rows {
public:
   explicit Rows(TableType const& type)
      : type_(type)
      , row_(Zeb::typeNamed(type.valueType))
      , size_(row_.type().info().size) {}

   void add(std::string const& line, std::uint64_t number) {
      if (std::string_view const named = typeInStrep(line);
          named != type_.valueType && FlowTracking::tableTypeNamed(named))
         throw Lomi::RuntimeException(fmt::format("a row of {}; the table holds {}", named, type_.valueType));
      row_.type().info().implementation.values->genericIfStrepToValue(row_.get(), line, row_.type());
      auto const* const bytes = static_cast<std::byte const*>(row_.get());
      bytes_.insert(bytes_.end(), bytes, bytes + size_);
      lines_.push_back(number);
   }
   TableType const& type() const { return type_; }
   std::size_t count() const { return lines_.size(); }
   void const* at(std::size_t i) const { return bytes_.data() + i * size_; }
   std::uint64_t line(std::size_t i) const { return lines_[i]; }

   /// Sorts by key. Needed by has() and for finding keys that come twice.
   void sort() {
      order_.resize(count());
      std::iota(order_.begin(), order_.end(), std::size_t{0});
      std::stable_sort(order_.begin(), order_.end(),
                       [this](std::size_t a, std::size_t b) { return type_.keyLess(at(a), at(b)); });
   }
   bool has(void const* row) const {
      auto const place =
          std::lower_bound(order_.begin(), order_.end(), row, [this](std::size_t a, void const* wanted) {
             return type_.keyLess(at(a), wanted);
          });
      return place != order_.end() && !type_.keyLess(row, at(*place));
   }
   /// Calls with the lines of two rows that have one key.
   template <class Twice> void forEachTwice(Twice&& twice) const {
      for (std::size_t i = 1; i < order_.size(); ++i)
         if (!type_.keyLess(at(order_[i - 1]), at(order_[i]))) twice(line(order_[i - 1]), line(order_[i]));
   }

private:
   TableType const& type_;
   Value row_;
   std::size_t size_;
   std::vector<std::byte> bytes_;
   std::vector<std::uint64_t> lines_;
   std::vector<std::size_t> order_;
};

/// The type of the rows to come: the table's own, or the one that was said, or that of the first row.
TableType const& typeFor(Inspection const& table, std::string const& said, std::string_view firstLine,
                         std::string const& file) {
   TableType const* type = table.type;
   std::string_view wanted = said.empty() ? typeInStrep(firstLine) : std::string_view(said);
   if (type && (said.empty() || isTypeName(said, type->valueType))) return *type;
   if (type)
      throw Failure{Exit::cantOpen, fmt::format("{}: holds {}, not {}", table.path, type->valueType, said),
                    "load into another table"};
   if (wanted.empty())
      throw Failure{
          Exit::usage,
          fmt::format("{}: its first line names no type, and there is no table {} yet", file, table.path),
          "--type names the rows' type, one of: " + typeNames()};
   for (TableType const& known : FlowTracking::tableTypes())
      if (said.empty() ? wanted == known.valueType : isTypeName(said, known.valueType)) type = &known;
   if (!type)
      throw Failure{Exit::usage, fmt::format("there are no tables of type \"{}\"", wanted),
                    "types are: " + typeNames()};
   return *type;
}

/// What keeps the tool from being the table's writer.
void refuse(Inspection const& table) {
   if (table.writerAlive)
      throw Failure{Exit::cantOpen,
                    table.writerPid
                        ? fmt::format("{}: its writer, process {}, lives", table.path, table.writerPid)
                        : fmt::format("{}: its writer lives", table.path),
                    "a table has one writer; stop it first, or load into another table"};
   switch (table.state) {
   case State::ok:
   case State::halfMade:
   case State::absent:
   case State::corrupt: // formatted anew, as by each writer
      return;
   case State::unreadable:
   case State::unknownType:
   case State::otherVersion:
   case State::foreign:
      throw table.failure();
   }
}

/// With --keep rows must not be lost.
void refuseToEmpty(Inspection const& table) {
   if (std::string const why = whyNotAdopted(table); !why.empty())
      throw Failure{Exit::corrupt,
                    fmt::format("{}: its rows can't be kept, a writer formats it anew: {}", table.name, why),
                    "nothing was changed; without --keep the table is emptied first"};
}

/// Reads all rows, and says what is wrong with each line that is none.
std::unique_ptr<Rows> readRows(std::istream& in, std::string const& file, Inspection const& table,
                               std::string const& type) {
   std::string line;
   bool more = static_cast<bool>(std::getline(in, line));
   auto rows = std::make_unique<Rows>(typeFor(table, type, line, file));
   std::uint64_t number = 0, bad = 0;
   Progress progress("reading", 0, true);
   for (; more; more = static_cast<bool>(std::getline(in, line))) {
      try {
         rows->add(line, ++number);
      } catch (Lomi::Exception const& e) {
         ++bad;
         say(fmt::format("{}:{}: {}", file, number, e.what()));
      }
      progress.step(number);
   }
   if (in.bad()) throw Failure{Exit::cantOpen, fmt::format("{}: can't be read to its end", file)};
   rows->sort();
   rows->forEachTwice([&](std::uint64_t first, std::uint64_t second) {
      ++bad;
      say(fmt::format("{}:{}: the row of line {} has this key, too", file, second, first));
   });
   if (bad)
      throw Failure{Exit::corrupt, fmt::format("{}: {} of {} lines can't be loaded", file, bad, number),
                    "nothing was changed"};
   return rows;
}

struct Done {
   std::uint64_t removed = 0, members = 0;
};

Done write(std::string const& name, Inspection const& table, Rows const& rows, bool keep) {
   auto const least = std::max<std::size_t>(rows.count(), 1);
   std::size_t const size =
       table.state == State::ok ? std::max<std::size_t>(table.slotHeader->maxSlots, 1) : least;
   Mirak::MapDescriptor const descriptor(static_cast<std::uint32_t>(size));
   auto const writer = rows.type().makeWriter(quietHandler(), name, descriptor);
   writer->open();
   // A table that is taken over keeps its generation.
   if (table.slots.present && glance(name).kestorId.value() != table.kestorId.value()) {
      std::string const emptied = name + ": what was there can't be taken over; emptied";
      if (keep) throw Failure{Exit::corrupt, emptied, "nothing was loaded"};
      say(emptied);
   }
   Done done;
   if (!keep)
      for (void const* row = writer->first(); row; row = writer->next())
         if (!rows.has(row)) {
            writer->remove(row);
            ++done.removed;
         }
   Progress progress("storing", rows.count(), true);
   for (std::size_t i = 0; i < rows.count(); ++i) {
      writer->write(rows.at(i));
      progress.step(i);
   }
   done.members = writer->members();
   return done;
}

} // namespace

Exit loadTable(Common const& common, std::string const& word, std::string const& file,
               LoadOptions const& options) {
   std::string const name = resolveOrNewTable(word);
   Inspection const table = inspect(name);
   refuse(table);
   std::ifstream opened;
   if (file != "-") {
      opened.open(file);
      if (!opened) throw Failure{Exit::cantOpen, fmt::format("{}: {}", file, std::strerror(errno))};
      std::error_code ignored;
      if (std::filesystem::is_directory(file, ignored))
         throw Failure{Exit::cantOpen, file + ": is a directory"};
   }
   auto const rows = readRows(file == "-" ? std::cin : opened, file, table, options.type);
   if (options.keep) refuseToEmpty(table);
   try {
      Done const done = write(name, table, *rows, options.keep);
      if (common.json)
         common.out.line(jsonLine({{"table", name},
                                   {"valueType", rows->type().valueType},
                                   {"loaded", rows->count()},
                                   {"removed", done.removed},
                                   {"rows", done.members}}));
      else
         common.out.line(fmt::format("{}: loaded {} rows, removed {}, now has {}", name, rows->count(),
                                     done.removed, done.members));
   } catch (Lomi::InvalidInitializeException const& e) {
      throw Failure{Exit::cantOpen, fmt::format("{}: {}", name, e.what())};
   } catch (Lomi::MemoryResourceException const& e) {
      throw Failure{Exit::incomplete, fmt::format("{}: {}", name, e.what()), "load again once there is room"};
   }
   return Exit::ok;
}

} // namespace Tool
