// SPDX-License-Identifier: Apache-2.0
// See TopLines.h.
#include "TopLines.h"

#include <algorithm>
#include <cmath>

namespace Tool {

namespace {

constexpr std::array<std::string_view, 5> orders{"name", "rows", "rows/s", "changes/s", "queue"};

std::string rateText(std::optional<double> rate) {
   return rate ? fmt::format("{:.0f}", std::round(*rate) + 0.0) : "-"; // no "-0"
}

double keyOf(Pulse const& pulse, TopOrder order) {
   switch (order) {
   case TopOrder::name:
      return 0;
   case TopOrder::rows:
      return static_cast<double>(pulse.rows());
   case TopOrder::rowRate:
      return std::abs(pulse.rowRate.value_or(0));
   case TopOrder::changeRate:
      return pulse.changeRate.value_or(0);
   case TopOrder::queueLoad:
      return pulse.queueLoad();
   }
   return 0;
}

TopLine lineOf(std::string const& name, Pulse const& pulse) {
   Inspection const& t = pulse.seen;
   bool const readable = t.state == State::ok;
   auto const number = [](bool there, std::uint64_t value) { return there ? std::to_string(value) : "-"; };
   bool const queue = readable && pulse.hasQueue();
   std::string state(t.interrupted() ? "interrupted" : stateText(t.state));
   for (auto const& [word, count] : pulse.states)
      if (count) state += fmt::format(" {}={}", word, count);
   return {{name, number(readable, pulse.rows()), number(readable, pulse.capacity()),
            rateText(readable ? pulse.rowRate : std::nullopt),
            rateText(readable ? pulse.changeRate : std::nullopt),
            queue ? fmt::format("{}/{}", t.queue.table->count, t.queue.table->capacity) : "-",
            number(queue, queue ? t.queue.header->generation : 0),
            number(queue && t.writerAlive, queue ? t.queue.header->followers : 0),
            number(queue && t.writerAlive, queue ? t.queue.header->resyncs : 0),
            !t.writerAlive ? "-"
            : t.writerPid  ? std::to_string(t.writerPid)
                           : "?",
            state},
           t.interrupted() || t.state == State::halfMade ? Style::warning
           : readable                                    ? Style::good
                                                         : Style::bad};
}

} // namespace

std::string_view orderText(TopOrder order) { return orders[static_cast<std::size_t>(order)]; }

TopOrder nextOrder(TopOrder order) {
   return static_cast<TopOrder>((static_cast<std::size_t>(order) + 1) % orders.size());
}

std::vector<Columns::Column> const& topColumns() {
   static std::vector<Columns::Column> const columns{
       {"table", false},    {"rows", true},   {"capacity", true}, {"rows/s", true},
       {"changes/s", true}, {"queue", true},  {"gen", true},      {"followers", true},
       {"resyncs", true},   {"writer", true}, {"state", false}};
   return columns;
}

std::vector<TopLine> topLines(Pulses const& pulses, TopOrder order) {
   std::vector<std::pair<double, std::pair<std::string, Pulse const*>>> sorted;
   for (auto const& [name, pulse] : pulses.tables()) sorted.push_back({-keyOf(pulse, order), {name, &pulse}});
   std::stable_sort(sorted.begin(), sorted.end(),
                    [](auto const& a, auto const& b) { return a.first < b.first; });
   std::vector<TopLine> lines;
   lines.reserve(sorted.size());
   for (auto const& [key, table] : sorted) lines.push_back(lineOf(table.first, *table.second));
   return lines;
}

} // namespace Tool
