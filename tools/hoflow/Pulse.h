// SPDX-License-Identifier: Apache-2.0
// What `top` shows: the headers of all tables at one moment, and how fast they move between two moments. No
// row is read, but of tables whose rows count something for each state: those are a handful.
#pragma once

#include "Files.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Tool {

/// A table at the moment of the last look.
struct Pulse {
   Inspection seen;
   std::chrono::steady_clock::time_point at;
   /// Per second since the look before; none if the table wasn't there then, or is another one now.
   std::optional<double> rowRate, changeRate;
   /// A count for each state, where that is what the table's rows are.
   std::vector<std::pair<std::string, std::uint64_t>> states;

   std::uint64_t rows() const { return seen.slotHeader ? seen.slotHeader->occupiedSlots : 0; }
   std::uint64_t capacity() const { return seen.slotHeader ? seen.slotHeader->numSlots.value : 0; }
   bool hasQueue() const { return seen.queue.header && seen.queue.table; }
   /// What the queue's current table is filled to; 0 without a queue.
   double queueLoad() const;
};

class Pulses {
public:
   /// @param patterns only tables with one of these in their names, or matching it; none: all
   explicit Pulses(std::vector<std::string> patterns)
      : patterns_(std::move(patterns)) {}

   /// Looks at all tables. @throws Failure if the root can't be read
   void look();
   /// By name.
   std::map<std::string, Pulse> const& tables() const { return tables_; }
   std::uint64_t rows() const;
   double changeRate() const;

private:
   std::vector<std::string> const patterns_;
   std::map<std::string, Pulse> tables_;
};

} // namespace Tool
