// SPDX-License-Identifier: Apache-2.0
// list, show, header, and the overview: what can be said without reading a row. They say as much as they can
// of a table that can't be opened, too.
#include "Cell.h"
#include "Commands.h"
#include "Files.h"
#include "Json.h"
#include "Names.h"
#include "Table.h"

namespace Tool {

namespace {

Style styleOf(State state) {
   switch (state) {
   case State::ok:
      return Style::good;
   case State::halfMade:
      return Style::warning;
   default:
      return Style::bad;
   }
}

std::string shortType(Inspection const& t) {
   if (!t.slotHeader || t.slotHeader->magic != Mirak::SlotTableHeader::magicValue) return "-";
   std::string name = t.slotHeader->valueTypeName();
   for (char& c : name)
      if (static_cast<unsigned char>(c) <= ' ' || static_cast<unsigned char>(c) > '~') c = '?';
   auto const colon = name.rfind("::");
   if (colon != std::string::npos) name.erase(0, colon + 2);
   return name.empty() ? "-" : name;
}

/// A text that is fit for JSON whatever bytes a damaged file holds.
std::string printable(std::string text) {
   for (char& c : text)
      if (static_cast<unsigned char>(c) < ' ' || static_cast<unsigned char>(c) > '~') c = '?';
   return text;
}

std::string writerText(Inspection const& t) {
   if (!t.writerAlive) return "-";
   return t.writerPid ? std::to_string(t.writerPid) : "?";
}

/// Whether the header's numbers mean anything.
bool hasNumbers(Inspection const& t) {
   return t.slotHeader && t.slotHeader->magic == Mirak::SlotTableHeader::magicValue &&
          t.slotHeader->version == Mirak::SlotTableHeader::formatVersion;
}

ordered_json summary(Inspection const& t) {
   ordered_json j{{"table", t.name}, {"state", stateText(t.state)}};
   if (hasNumbers(t)) {
      j["valueType"] = printable(t.slotHeader->valueTypeName());
      j["rows"] = t.slotHeader->occupiedSlots;
      j["capacity"] = t.slotHeader->numSlots.value;
      j["interrupted"] = t.interrupted();
   }
   j["writerAlive"] = t.writerAlive;
   j["writerPid"] = t.writerPid && t.writerAlive ? ordered_json(t.writerPid) : ordered_json();
   if (!t.problem.empty()) {
      j["problem"] = printable(t.problem);
      j["hint"] = printable(t.hint);
   }
   return j;
}

ordered_json fileJson(FileFacts const& file) {
   return {{"present", file.present}, {"size", file.size}, {"memory", file.memory}};
}

ordered_json headerJson(Mirak::SlotTableHeader const& h) {
   return {{"magic", fmt::format("{:#x}", h.magic)},
           {"version", h.version},
           {"kestor", Parcel::KestorId(h.kestor).text()},
           {"platform", h.platform},
           {"valueType", printable(h.valueTypeName())},
           {"valueSize", h.valueSize},
           {"slotSize", h.slotSize},
           {"maxSlots", h.maxSlots},
           {"constFlags", h.constFlags},
           {"runtimeFlags", h.runtimeFlags},
           {"hash", h.hash},
           {"occupiedSlots", h.occupiedSlots},
           {"freeSlots", h.freeSlots},
           {"mostSlots", h.mostSlots},
           {"hashSeed", h.hashSeed},
           {"numSlots", {{"version", h.numSlots.version}, {"value", h.numSlots.value}}},
           {"scratchpad", h.scratchpad}};
}

ordered_json headerJson(MirakCore::BucketTableHeader const& h) {
   return {{"magic", fmt::format("{:#x}", h.magic)},
           {"version", h.version},
           {"kestor", Parcel::KestorId(h.kestor).text()},
           {"numBuckets", {{"version", h.numBuckets.version}, {"value", h.numBuckets.value}}}};
}

/// Null if there is no owner file; of a damaged one, what is wrong with it.
ordered_json ownerJson(Inspection const& t) {
   if (!t.owner.present) return {};
   if (!t.ownerFacts) return {{"problem", printable(t.ownerText)}};
   auto const& f = *t.ownerFacts;
   bool const mirak = f.parcelType == static_cast<std::uint32_t>(Parcel::ParcelType::mirak);
   return {{"version", f.version},
           {"pid", f.pid},
           {"startTime", timeText(static_cast<double>(f.startTime) / 1e9)},
           {"typeName", printable(f.typeName)},
           {"parcelType", mirak ? ordered_json("mirak") : ordered_json(f.parcelType)},
           {"socketName", f.tunnetInfo.socketName.empty() ? ordered_json()
                                                          : ordered_json(printable(f.tunnetInfo.socketName))},
           {"tableId", f.tunnetInfo.tableId}};
}

void showJson(Common const& common, Inspection const& t) {
   ordered_json j = summary(t);
   j["path"] = t.path;
   if (hasNumbers(t)) {
      auto const& h = *t.slotHeader;
      j["load"] = ratio(h.occupiedSlots, h.numSlots.value);
      j["maxSlots"] = h.maxSlots;
      j["mostSlots"] = h.mostSlots;
      j["changeQueue"] = hasQueue(h);
      if (t.queue.header && t.queue.table) j["queue"] = queueJson(t);
      j["inOperation"] = t.inOperation();
   }
   if (t.bucketHeader) j["buckets"] = t.bucketHeader->numBuckets.value;
   j["kestor"] = t.kestorId.value() ? ordered_json(t.kestorId.text()) : ordered_json();
   j["kestorTime"] = t.kestorTime ? ordered_json(timeText(t.kestorTime)) : ordered_json();
   j["corruptionMarker"] = t.marked;
   j["owner"] = ownerJson(t);
   j["files"] = {{"slots", fileJson(t.slots)},
                 {"buckets", fileJson(t.buckets)},
                 {"kestor", fileJson(t.kestor)},
                 {"owner", fileJson(t.owner)}};
   common.out.line(jsonLine(j));
}

std::string queueText(Inspection const& t) {
   if (!hasQueue(*t.slotHeader)) return "none: readers look, nobody tells them";
   if (!t.queue.header || !t.queue.table) return "the writer feeds a change queue";
   return fmt::format("{} entries of {}, generation {}; {} changes so far, {} followers",
                      t.queue.table->count, t.queue.table->capacity, t.queue.header->generation,
                      t.queue.header->next - 1, t.writerAlive ? t.queue.header->followers : 0);
}

void showText(Common const& common, Inspection const& t) {
   Columns lines(common.out, {{"", false}, {"", false}}, false);
   auto const add = [&](char const* name, std::string value, Style style = Style::plain) {
      lines.add({name, std::move(value)}, style);
   };
   add("table", t.name, Style::bold);
   add("path", t.path);
   add("state", std::string(stateText(t.state)), styleOf(t.state));
   if (t.writerAlive)
      add("writer", t.writerPid ? fmt::format("alive, process {}", t.writerPid) : "alive", Style::good);
   else
      add("writer", "none");
   if (t.interrupted())
      add("note", "the last writer died inside an operation: the next one formats the table anew",
          Style::warning);
   if (!t.ownerProblem.empty())
      add("note", "the owner file is damaged: the next writer formats the table anew", Style::warning);
   if (t.marked)
      add("note", "corruption-detected: a reader found damage since the last start", Style::warning);
   if (hasNumbers(t)) {
      auto const& h = *t.slotHeader;
      add("type", printable(h.valueTypeName()));
      add("rows", std::to_string(h.occupiedSlots), Style::bold);
      add("capacity",
          fmt::format("{} slots, {:.1f} % taken; made for {}, at most {} so far", h.numSlots.value,
                      100 * ratio(h.occupiedSlots, h.numSlots.value), h.maxSlots, h.mostSlots));
      add("row", fmt::format("{} bytes in a slot of {}", h.valueSize, h.slotSize));
   }
   if (t.bucketHeader) add("buckets", std::to_string(t.bucketHeader->numBuckets.value));
   if (hasNumbers(t)) add("queue", queueText(t));
   add("kestor",
       t.kestorId.value() ? fmt::format("{} since {}", t.kestorId.text(), timeText(t.kestorTime)) : "none");
   add("owner", printable(t.ownerText));
   for (auto const& [name, file] : {std::pair{"slots", t.slots}, std::pair{"buckets", t.buckets}})
      add(name,
          file.present ? fmt::format("{} bytes, takes {}", file.size, sizeText(file.memory)) : "absent");
   lines.finish();
}

} // namespace

Exit listTables(Common const& common, std::vector<std::string> const& patterns, bool namesOnly) {
   Scan const found = scanTables();
   Columns columns(common.out,
                   {{"table", false},
                    {"type", false},
                    {"rows", true},
                    {"capacity", true},
                    {"writer", true},
                    {"state", false}},
                   true);
   std::size_t shown = 0;
   for (std::string const& name : found.names) {
      bool wanted = patterns.empty();
      for (std::string const& pattern : patterns)
         wanted = wanted || matchesPattern(pattern, name) || name.find(pattern) != std::string::npos;
      if (!wanted) continue;
      ++shown;
      if (namesOnly) {
         common.out.line(common.json ? jsonLine({{"table", name}}) : name);
         continue;
      }
      Inspection const t = inspect(name);
      if (common.json) {
         common.out.line(jsonLine(summary(t)));
         continue;
      }
      bool const numbers = hasNumbers(t);
      columns.add({name, shortType(t), numbers ? std::to_string(t.slotHeader->occupiedSlots) : "-",
                   numbers ? std::to_string(t.slotHeader->numSlots.value) : "-", writerText(t),
                   t.interrupted() ? "interrupted" : std::string(stateText(t.state))},
                  t.interrupted() ? Style::warning : styleOf(t.state));
   }
   if (!common.json && !namesOnly && shown) columns.finish();
   for (std::string const& directory : found.skipped) say(directory + ": may not be read by this user");
   if (!found.skipped.empty()) return Exit::incomplete;
   if (shown) return Exit::ok;
   say(patterns.empty()
           ? fmt::format("there is no table below {}", Mem::RootPath::get())
           : fmt::format("no table below {} matches {}", Mem::RootPath::get(), quoted(patterns)));
   return Exit::noMatch;
}

Exit showTables(Common const& common, std::vector<std::string> const& words) {
   bool first = true;
   return forEachTable(resolveTables(words), [&](std::string const& name) {
      Inspection const t = inspect(name);
      if (common.json) {
         showJson(common, t);
      } else {
         if (!first) common.out.line("");
         showText(common, t);
      }
      first = false;
      if (t.state != State::ok) {
         common.out.flush();
         say(t.failure());
      }
      return t.status();
   });
}

Exit showHeaders(Common const& common, std::vector<std::string> const& words) {
   return forEachTable(resolveTables(words), [&](std::string const& name) {
      Inspection const t = inspect(name);
      if (common.json) {
         ordered_json j{{"table", name}};
         j["slots"] = t.slotHeader ? headerJson(*t.slotHeader) : ordered_json();
         j["buckets"] = t.bucketHeader ? headerJson(*t.bucketHeader) : ordered_json();
         common.out.line(jsonLine(j));
      } else {
         auto const raw = [&](char const* file, std::string const& text) {
            common.out.line(fmt::format("{}/{}: {}", name, file, printable(text)));
         };
         raw("slots", t.slotHeader ? t.slotHeader->toString() : "no header");
         raw("buckets", t.bucketHeader ? t.bucketHeader->toString() : "no header");
      }
      if (t.state != State::ok) {
         common.out.flush();
         say(t.failure());
      }
      return t.status();
   });
}

Exit overview(Common const& common) {
   if (common.json) return listTables(common, {}, false);
   auto& out = common.out;
   out.line(fmt::format(
       "{} looks into the flow tables below {}. It only reads, but for load, and never disturbs a writer.",
       out.styled(Style::bold, "hoflow"), Mem::RootPath::get()));
   out.line("");
   try {
      Scan const found = scanTables();
      if (found.names.empty()) out.line("There is no table.");
      std::size_t shown = 0;
      for (std::string const& name : found.names)
         if (shown++ < 10) out.line("   " + name);
      if (shown > 10) out.line(fmt::format("   and {} more: hoflow list", shown - 10));
   } catch (Failure const& failure) {
      out.line("There is no table: " + failure.text);
   }
   out.line("");
   out.line("   hoflow list                    all tables, with rows and writers");
   out.line("   hoflow show TABLE              one table: sizes, load, writer");
   out.line("   hoflow dump TABLE [-j]         all rows, in columns or one JSON object a line");
   out.line("   hoflow get TABLE KEY...        one row: tcp 10.0.0.1:443 10.0.0.2:50000 vlan=5");
   out.line("   hoflow load TABLE FILE         rows back from dump --strep");
   out.line("   hoflow count TABLE...          how many rows");
   out.line("   hoflow check TABLE...          is every row there once, and where it belongs?");
   out.line("   hoflow stat TABLE...           chains, memory, growth ahead");
   out.line("   hoflow COMMAND --help          more of a command, with examples");
   return Exit::ok;
}

} // namespace Tool
