// SPDX-License-Identifier: Apache-2.0
// Comparing what was with what is, and the lines. See Changes.h.
#include "Changes.h"

#include "Json.h"
#include "Zeb/Registry.h"

#include <cstring>
#include <ctime>
#include <iterator>

namespace Tool {

namespace {

std::string now() {
   timespec time{};
   clock_gettime(CLOCK_REALTIME, &time);
   return timeText(static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9);
}

Style styleOf(std::string_view what) {
   if (what == "new") return Style::good;
   if (what == "removed") return Style::bad;
   return what == "changed" ? Style::warning : Style::bold;
}

} // namespace

Changes::Changes(Common const& common, std::string const& table, Mirak::TableType const& type, Filter filter,
                 std::uint64_t most)
   : common_(common)
   , table_(table)
   , schema_(schemaOf(Zeb::typeNamed(type.valueType)))
   , filter_(std::move(filter))
   , most_(most)
   , known_(type, schema_) {}

void Changes::changed(void const* row) {
   auto const* const known = known_.find(row);
   if (!passes(filter_, row)) {
      if (known) removed(row);
   } else if (!known) {
      known_.insert(row, round_);
      tellNew(row);
   } else {
      known->round = round_;
      if (std::memcmp(known->bytes.get(), row, known_.rowBytes()) == 0) return;
      if (looksDifferent(known->bytes.get(), row)) tellChanged(known->bytes.get(), row);
      known_.update(*known, row);
   }
}

void Changes::removed(void const* row) {
   auto const* const known = known_.find(row);
   if (!known) return;
   tellRemoved(known->bytes.get());
   known_.remove(row);
}

void Changes::endRound() {
   known_.keepRound(round_, [this](void const* row) { tellRemoved(row); });
}

void Changes::clear() {
   beginRound();
   endRound();
}

/// Bytes between fields may differ, and so may parts of a second that no one is shown.
bool Changes::looksDifferent(void const* a, void const* b) const {
   fmt::memory_buffer textA, textB;
   for (Field const& field : schema_.fields) {
      textA.clear();
      textB.clear();
      appendJson(textA, field.get(a));
      appendJson(textB, field.get(b));
      if (fmt::to_string(textA) != fmt::to_string(textB)) return true;
   }
   return false;
}

bool Changes::mayTell() {
   if (mode_ == Mode::silent || enough()) return false;
   told_ += mode_ == Mode::changes;
   return true;
}

void Changes::tellNew(void const* row) { tellRow("new", "is", row); }

void Changes::tellRemoved(void const* row) { tellRow("removed", "was", row); }

void Changes::tellRow(std::string_view what, std::string_view side, void const* row) {
   if (!mayTell()) return;
   begin(what);
   auto& out = common_.out.buffer();
   if (common_.json) {
      fmt::format_to(std::back_inserter(out), R"(,"{}":)", side);
      appendJsonRow(out, schema_, row);
   } else {
      appendFields(row, true);
      appendFields(row, false);
   }
   endLine();
}

void Changes::tellChanged(void const* was, void const* is) {
   if (!mayTell()) return;
   begin("changed");
   auto& out = common_.out.buffer();
   if (common_.json) {
      fmt::format_to(std::back_inserter(out), R"(,"was":)");
      appendJsonRow(out, schema_, was);
      fmt::format_to(std::back_inserter(out), R"(,"is":)");
      appendJsonRow(out, schema_, is);
      return endLine();
   }
   appendFields(is, true);
   for (Field const& field : schema_.fields) {
      if (field.inKey || field.jsonOnly) continue;
      std::string const before = cellText(field.get(was)), after = cellText(field.get(is));
      if (before != after) fmt::format_to(std::back_inserter(out), " {}={}->{}", field.name, before, after);
   }
   endLine();
}

void Changes::event(std::string_view what, ordered_json facts, std::string_view text) {
   begin(what);
   auto& out = common_.out.buffer();
   if (common_.json) {
      fmt::format_to(std::back_inserter(out), R"(,"table":{})", jsonLine(table_));
      for (auto const& [name, value] : facts.items())
         fmt::format_to(std::back_inserter(out), R"(,"{}":{})", name, value.dump());
   } else if (!text.empty()) {
      fmt::format_to(std::back_inserter(out), " {}", text);
   }
   endLine();
}

void Changes::begin(std::string_view what) {
   auto const to = std::back_inserter(common_.out.buffer());
   if (common_.json)
      fmt::format_to(to, R"({{"event":"{}","time":"{}")", what, now());
   else
      fmt::format_to(to, "{}", common_.out.styled(styleOf(what), what));
}

void Changes::appendFields(void const* row, bool keys) {
   auto& out = common_.out.buffer();
   for (Field const& field : schema_.fields) {
      if (field.inKey != keys || field.jsonOnly) continue;
      fmt::format_to(std::back_inserter(out), " {}=", field.name);
      appendText(out, field.get(row));
   }
}

void Changes::endLine() {
   if (common_.json) common_.out.buffer().push_back('}');
   common_.out.buffer().push_back('\n');
   common_.out.lineDone();
}

} // namespace Tool
