// SPDX-License-Identifier: Apache-2.0
// get, dump, count.
//
// All three may meet a writer that formats the table anew or exchanges its files. `get` and `count` have said
// nothing yet and begin again on the new table. `dump` has: it stops, says so, and ends with
// Exit::incomplete.
#include "Commands.h"
#include "Json.h"
#include "Names.h"
#include "Query.h"
#include "Table.h"
#include "Walk.h"

#include <algorithm>

namespace Tool {

namespace {

constexpr int maxRestarts = 10;

Failure changesAllTheTime(Table const& table) {
   return {Exit::incomplete,
           fmt::format("{}: formatted anew {} times while it was read", table.name(), maxRestarts),
           "its writer starts again and again; see to that first"};
}

std::vector<Field const*> chosenColumns(Schema const& schema, std::vector<std::string> const& names) {
   std::vector<Field const*> fields;
   for (std::string const& name : names) {
      Field const* const field = schema.find(name);
      if (!field)
         throw Failure{Exit::usage, fmt::format("\"{}\" is no column of {}", name, schema.valueType),
                       "columns are: " + fieldNames(schema, false)};
      fields.push_back(field);
   }
   if (fields.empty())
      for (Field const& field : schema.fields)
         if (!field.jsonOnly) fields.push_back(&field);
   return fields;
}

bool standsRight(Kind kind) { return kind == Kind::number || kind == Kind::vlanTag; }

/// Writes rows one by one, as JSON or in columns.
class RowWriter {
public:
   RowWriter(Common const& common, Schema const& schema, DumpOptions const& options)
      : common_(common)
      , schema_(schema)
      , fields_(chosenColumns(schema, options.columns))
      , columns_(common.out, names(), !options.noHeader) {}

   void write(void const* row) {
      if (common_.json) {
         appendJsonRow(common_.out.buffer(), schema_, row);
         common_.out.buffer().push_back('\n');
         common_.out.lineDone();
         return;
      }
      std::vector<std::string> words;
      words.reserve(fields_.size());
      for (Field const* field : fields_) words.push_back(cellText(field->get(row)));
      columns_.add(std::move(words));
   }
   void finish() {
      if (!common_.json) columns_.finish();
      common_.out.flush();
   }

private:
   std::vector<Columns::Column> names() const {
      std::vector<Columns::Column> columns;
      for (Field const* field : fields_)
         columns.push_back({std::string(field->name), standsRight(field->type.kind)});
      return columns;
   }

   Common const& common_;
   Schema const& schema_;
   std::vector<Field const*> fields_;
   Columns columns_;
};

} // namespace

Exit getRow(Common const& common, std::string const& name, std::vector<std::string> const& words) {
   auto const table = openTable(resolveTable(name));
   Schema const& schema = table->schema();
   std::vector<Cell> const key = parseKey(schema, words);
   void const* row = nullptr;
   for (int restarts = 0;; ++restarts) {
      try {
         row = table->lookup(key);
         // A table that was removed and made again is another one, also where the key says nothing of it.
         if (!table->filesReplaced()) break;
      } catch (Mirak::TableReformattedException const&) {
      } catch (Lomi::CorruptionDetectedException const& e) {
         if (!table->filesReplaced())
            throw Failure{Exit::corrupt, fmt::format("{}: damaged: {}", table->name(), e.what()),
                          "hoflow check walks the whole table"};
      }
      if (restarts == maxRestarts) throw changesAllTheTime(*table);
      say(fmt::format("{}: replaced meanwhile; looking again", table->name()));
      table->reopen();
   }
   if (!row) {
      std::string text;
      auto value = key.begin();
      for (Field const& field : schema.fields)
         if (field.inKey && !field.jsonOnly) text += fmt::format(" {}={}", field.name, cellText(*value++));
      say(fmt::format("{}: no row with{}", table->name(), text));
      return Exit::noMatch;
   }
   if (common.json) {
      appendJsonRow(common.out.buffer(), schema, row);
      common.out.buffer().push_back('\n');
   } else {
      Columns lines(common.out, {{"field", false}, {"value", false}}, false);
      for (Field const& field : schema.fields)
         if (!field.jsonOnly) lines.add({std::string(field.name), cellText(field.get(row))}, Style::bold);
      lines.finish();
   }
   return Exit::ok;
}

Exit dumpTable(Common const& common, std::string const& name, DumpOptions const& options) {
   auto const table = openTable(resolveTable(name));
   Schema const& schema = table->schema();
   Filter const filter = parseFilter(schema, options.where);
   RowWriter writer(common, schema, options);
   std::uint64_t walked = 0, written = 0;
   Progress progress("reading", table->members(), common.out.isFile());
   WalkEnd end = WalkEnd::stopped;
   try {
      end = walkRows(*table, [&](void const* row) {
         progress.step(++walked);
         if (!passes(filter, row)) return true;
         writer.write(row);
         return ++written != options.limit;
      });
   } catch (Failure& failure) {
      if (failure.status == Exit::corrupt) writer.finish();
      if (failure.status == Exit::corrupt) failure.text += fmt::format(" (behind {} sound rows)", walked);
      throw;
   }
   progress.clear();
   writer.finish();
   if (end == WalkEnd::reformatted || end == WalkEnd::replaced) {
      say({Exit::incomplete,
           fmt::format("{}: {} behind {} rows: these are of the old table", table->name(), endText(end),
                       walked),
           "ask again for the rows of the new one"});
      return Exit::incomplete;
   }
   return written == 0 && !filter.empty() ? Exit::noMatch : Exit::ok;
}

namespace {

std::uint64_t countOne(Table& table, std::vector<std::string> const& where) {
   if (where.empty()) return table.members();
   Filter const filter = parseFilter(table.schema(), where);
   for (int restarts = 0;; ++restarts) {
      std::uint64_t walked = 0, matching = 0;
      Progress progress("counting", table.members(), true);
      WalkEnd const end = walkRows(table, [&](void const* row) {
         progress.step(++walked);
         matching += passes(filter, row);
         return true;
      });
      if (end == WalkEnd::complete) return matching;
      progress.clear();
      if (restarts == maxRestarts) throw changesAllTheTime(table);
      say(fmt::format("{}: {}; counting again", table.name(), endText(end)));
      table.reopen();
   }
}

} // namespace

Exit countRows(Common const& common, std::vector<std::string> const& words,
               std::vector<std::string> const& where) {
   auto const names = resolveTables(words);
   Columns columns(common.out, {{"rows", true}, {"table", false}}, false);
   std::uint64_t sum = 0;
   Exit status = forEachTable(names, [&](std::string const& name) {
      auto const table = openTable(name);
      std::uint64_t const rows = countOne(*table, where);
      sum += rows;
      if (common.json)
         common.out.line(jsonLine({{"table", name}, {"rows", rows}}));
      else if (names.size() == 1)
         common.out.line(std::to_string(rows));
      else
         columns.add({std::to_string(rows), name});
      return Exit::ok;
   });
   columns.finish();
   if (status == Exit::ok && sum == 0 && !where.empty()) status = Exit::noMatch;
   return status;
}

} // namespace Tool
