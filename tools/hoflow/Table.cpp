// SPDX-License-Identifier: Apache-2.0
// Opening a table, and opening it again. See Table.h.
#include "Table.h"

#include "Files.h"
#include "Zeb/Registry.h"

#include <chrono>
#include <thread>

namespace Tool {

Table::Table(std::string name, Mirak::TableType const& type)
   : name_(std::move(name))
   , schema_(schemaOf(Zeb::typeNamed(type.valueType)))
   , reader_(type.makeReader(quietHandler(), name_)) {}

void Table::reopen() {
   using namespace std::chrono_literals;
   // A writer that starts, or formats the table anew, is through in a moment; but it may do so again.
   for (int attempt = 0;; ++attempt) {
      std::string error;
      if (reader_->open(error)) return;
      Inspection const seen = inspect(name_);
      if (seen.state != State::ok) throw seen.failure();
      if (seen.type->valueType != schema_.valueType())
         throw Failure{Exit::incomplete, fmt::format("{}: now holds {}", seen.path, seen.type->valueType),
                       "the table was replaced by one of another type; ask again"};
      if (attempt == 10) throw Failure{Exit::cantOpen, error, "the table changes all the time; try again"};
      std::this_thread::sleep_for(20ms);
   }
}

std::unique_ptr<Table> openTable(std::string const& name) {
   Inspection const seen = inspect(name);
   if (seen.state != State::ok) throw seen.failure();
   auto table = std::make_unique<Table>(name, *seen.type);
   table->reopen();
   return table;
}

} // namespace Tool
