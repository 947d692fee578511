// SPDX-License-Identifier: Apache-2.0
// Two looks and the difference. See Pulse.h.
#include "Pulse.h"

#include "Names.h"
#include "Table.h"
#include "Walk.h"
#include "Zeb/Registry.h"

#include <algorithm>

namespace Tool {

namespace {

constexpr std::uint64_t mostStates = 64; // a table with more rows counts no states

/// The field that is counted, if the rows are a state and a number; null otherwise.
Field const* countedByState(Schema const& schema) {
   Field const* number = nullptr;
   for (Field const& field : schema.fields) {
      if (field.jsonOnly) continue;
      if (field.inKey != (field.type.kind == Kind::state)) return nullptr;
      if (field.inKey) continue;
      if (number || field.type.kind != Kind::number) return nullptr;
      number = &field;
   }
   return number;
}

void readStates(Pulse& pulse) {
   if (pulse.seen.state != State::ok || pulse.rows() > mostStates) return;
   Schema const& schema = schemaOf(Zeb::typeNamed(pulse.seen.type->valueType));
   Field const* const number = countedByState(schema);
   if (!number) return;
   try {
      auto const table = openTable(pulse.seen.name);
      walkRows(*table, [&](void const* row) {
         pulse.states.emplace_back(cellText(schema.fields.front().get(row)),
                                   std::get<std::uint64_t>(number->get(row)));
         return pulse.states.size() < mostStates;
      });
   } catch (Failure const&) {
      pulse.states.clear(); // it is being formatted, or damaged: the next look says so, or `check` does
   }
   std::sort(pulse.states.begin(), pulse.states.end());
}

void rate(Pulse& now, Pulse const& before) {
   double const seconds = std::chrono::duration<double>(now.at - before.at).count();
   if (seconds <= 0 || now.seen.kestorId.value() != before.seen.kestorId.value()) return;
   auto const per = [&](std::uint64_t a, std::uint64_t b) {
      return static_cast<double>(static_cast<std::int64_t>(b - a)) / seconds;
   };
   now.rowRate = per(before.rows(), now.rows());
   if (now.hasQueue() && before.hasQueue() && now.seen.queue.header->next >= before.seen.queue.header->next)
      now.changeRate = per(before.seen.queue.header->next, now.seen.queue.header->next);
}

} // namespace

double Pulse::queueLoad() const {
   return hasQueue() ? ratio(seen.queue.table->count, seen.queue.table->capacity) : 0;
}

void Pulses::look() {
   std::map<std::string, Pulse> looked;
   for (std::string const& name : scanTables().names) {
      bool const wanted =
          patterns_.empty() || std::any_of(patterns_.begin(), patterns_.end(), [&](auto const& p) {
             return matchesPattern(p, name) || name.find(p) != std::string::npos;
          });
      if (!wanted) continue;
      Pulse pulse;
      pulse.seen = glance(name);
      pulse.at = std::chrono::steady_clock::now();
      if (auto const before = tables_.find(name); before != tables_.end()) rate(pulse, before->second);
      readStates(pulse);
      looked.emplace(name, std::move(pulse));
   }
   tables_ = std::move(looked);
}

std::uint64_t Pulses::rows() const {
   std::uint64_t sum = 0;
   for (auto const& [name, pulse] : tables_) sum += pulse.rows();
   return sum;
}

double Pulses::changeRate() const {
   double sum = 0;
   for (auto const& [name, pulse] : tables_) sum += pulse.changeRate.value_or(0);
   return sum;
}

} // namespace Tool
