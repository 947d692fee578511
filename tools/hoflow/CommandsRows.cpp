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
         throw Failure{Exit::usage, fmt::format("\"{}\" is no column of {}", name, schema.valueType()),
                       "columns are: " + fieldNames(schema, false)};
      fields.push_back(field);
   }
   if (fields.empty())
      for (Field const& field : schema.fields)
         if (!field.jsonOnly) fields.push_back(&field);
   return fields;
}

bool standsRight(Kind kind) { return kind == Kind::number || kind == Kind::vlanTag; }

enum class Form { columns, fields, json, strep };

/// What `get` and `dump` say, in the form that was asked for.
Form formOf(Common const& common, bool strep, Form usual) {
   if (common.json && strep) throw Failure{Exit::usage, "--strep and --json exclude each other"};
   return common.json ? Form::json : strep ? Form::strep : usual;
}

/// Writes rows one by one.
class RowWriter {
public:
   RowWriter(Output& out, Schema const& schema, Form form, std::vector<Field const*> fields, bool header)
      : out_(out)
      , schema_(schema)
      , form_(form)
      , fields_(std::move(fields))
      , columns_(out, names(), header) {}

   void write(void const* row) {
      switch (form_) {
      case Form::json:
         appendJsonRow(out_.buffer(), schema_, row);
         out_.buffer().push_back('\n');
         return out_.lineDone();
      case Form::strep:
         return out_.line(strepOf(schema_, row).view());
      case Form::fields:
         return writeFields(row);
      case Form::columns:
         std::vector<std::string> words;
         words.reserve(fields_.size());
         for (Field const* field : fields_) words.push_back(cellText(field->get(row)));
         columns_.add(std::move(words));
      }
   }
   void finish() {
      if (form_ == Form::columns) columns_.finish();
      out_.flush();
   }

private:
   /// A line for each field, and an empty one between rows.
   void writeFields(void const* row) {
      if (!first_) out_.line("");
      first_ = false;
      Columns lines(out_, {{"field", false}, {"value", false}}, false);
      for (Field const* field : fields_)
         lines.add({std::string(field->name), cellText(field->get(row))}, Style::bold);
      lines.finish();
   }
   std::vector<Columns::Column> names() const {
      std::vector<Columns::Column> columns;
      for (Field const* field : fields_)
         columns.push_back({std::string(field->name), standsRight(field->type.kind)});
      return columns;
   }

   Output& out_;
   Schema const& schema_;
   Form form_;
   std::vector<Field const*> fields_;
   Columns columns_;
   bool first_ = true;
};

/// Writes the rows that pass, at most `limit` of them if that isn't 0.
Exit writeRows(Common const& common, Table& table, Filter const& filter, RowWriter& writer,
               std::uint64_t limit) {
   std::uint64_t walked = 0, written = 0;
   Progress progress("reading", table.members(), common.out.isFile());
   WalkEnd end = WalkEnd::stopped;
   try {
      end = walkRows(table, [&](void const* row) {
         progress.step(++walked);
         if (!passes(filter, row)) return true;
         writer.write(row);
         return ++written != limit;
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
           fmt::format("{}: {} behind {} rows: these are of the old table", table.name(), endText(end),
                       walked),
           "ask again for the rows of the new one"});
      return Exit::incomplete;
   }
   return written == 0 && !filter.empty() ? Exit::noMatch : Exit::ok;
}

/// The row with that key, null if there is none.
void const* lookUp(Table& table, void const* key) {
   for (int restarts = 0;; ++restarts) {
      try {
         void const* const row = table.lookup(key);
         // A table that was removed and made again is another one, also where the key says nothing of it.
         if (!table.filesReplaced()) return row;
      } catch (Mirak::TableReformattedException const&) {
      } catch (Lomi::CorruptionDetectedException const& e) {
         if (!table.filesReplaced())
            throw Failure{Exit::corrupt, fmt::format("{}: damaged: {}", table.name(), e.what()),
                          "hoflow check walks the whole table"};
      }
      if (restarts == maxRestarts) throw changesAllTheTime(table);
      say(fmt::format("{}: replaced meanwhile; looking again", table.name()));
      table.reopen();
   }
}

} // namespace

Exit getRows(Common const& common, std::string const& name, std::vector<std::string> words,
             std::vector<std::string> const& where, bool strep) {
   Form const form = formOf(common, strep, Form::fields);
   auto const table = openTable(resolveTable(name));
   Schema const& schema = table->schema();
   Query query = parseQuery(schema, words);
   for (std::string const& test : where) query.filter.emplace_back(schema, test);
   if (!query.key && query.filter.empty())
      throw Failure{Exit::usage, "get takes a key or tests", "fields are: " + fieldNames(schema, false)};
   RowWriter writer(common.out, schema, form, chosenColumns(schema, {}), false);
   if (!query.key) return writeRows(common, *table, query.filter, writer, 0);
   void const* const row = lookUp(*table, schema.keyOf(*query.key)->get());
   if (!row) {
      std::string text;
      auto value = query.key->begin();
      for (Field const& field : schema.fields)
         if (field.inKey && !field.jsonOnly) text += fmt::format(" {}={}", field.name, cellText(*value++));
      say(fmt::format("{}: no row with{}", table->name(), text));
      return Exit::noMatch;
   }
   if (!passes(query.filter, row)) {
      say(fmt::format("{}: the row with this key doesn't pass all tests", table->name()));
      return Exit::noMatch;
   }
   writer.write(row);
   writer.finish();
   return Exit::ok;
}

Exit dumpTable(Common const& common, std::string const& name, DumpOptions const& options) {
   Form const form = formOf(common, options.strep, Form::columns);
   auto const table = openTable(resolveTable(name));
   Schema const& schema = table->schema();
   Filter const filter = parseFilter(schema, options.where);
   RowWriter writer(common.out, schema, form, chosenColumns(schema, options.columns), !options.noHeader);
   return writeRows(common, *table, filter, writer, options.limit);
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
