// SPDX-License-Identifier: Apache-2.0
// All figures of a run: samples by (keys, rows, contender, operation), their summaries, and how they are
// shown: as a table of medians and ratios on stdout, and as JSON. Measures nothing.
#pragma once

#include "core/Contender.h"
#include "core/Machine.h"

#include <iosfwd>
#include <map>
#include <tuple>

namespace Bench {

/// Where a sample belongs. `operation` also names the unit if it isn't ns an operation.
struct FigureKey {
   std::string keys;
   u64 rows;
   std::string contender;
   std::string operation;
   auto operator<=>(FigureKey const&) const = default;
};

struct Summary {
   double median;
   double least;
   double most;
   std::size_t samples;
};

class Figures {
public:
   void add(FigureKey const& key, double value) { samples_[key].push_back(value); }
   bool has(FigureKey const& key) const { return samples_.count(key) != 0; }
   Summary of(FigureKey const& key) const;

   /// A table for each (keys, rows): one line a contender, ns an operation; then each figure divided by the
   /// best peer's. A contender without a figure has a dash.
   void print(std::ostream& out, std::vector<Traits> const& contenders,
              std::vector<std::string> const& operations, std::string const& title) const;
   /// Every sample. @param command the arguments of the run
   void writeJson(std::string const& file, Machine const& machine, std::vector<Traits> const& contenders,
                  std::string const& command, double loadBefore, double loadAfter) const;

private:
   void printBlock(std::ostream& out, std::vector<Traits> const& contenders,
                   std::vector<std::string> const& operations, std::string const& keys, u64 rows) const;
   std::map<FigureKey, std::vector<double>> samples_;
};

} // namespace Bench
