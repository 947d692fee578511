// SPDX-License-Identifier: Apache-2.0
// See Figures.h.
#include "core/Figures.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <ostream>
#include <set>

#include <fmt/format.h>
#include <fmt/ostream.h>

namespace Bench {

Summary Figures::of(FigureKey const& key) const {
   auto const found = samples_.find(key);
   if (found == samples_.end())
      throw std::runtime_error("no figure for " + key.contender + " " + key.operation);
   std::vector<double> sorted = found->second;
   std::sort(sorted.begin(), sorted.end());
   std::size_t const middle = sorted.size() / 2;
   double const median = sorted.size() % 2 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
   return {median, sorted.front(), sorted.back(), sorted.size()};
}

void Figures::printBlock(std::ostream& out, std::vector<Traits> const& contenders,
                         std::vector<std::string> const& operations, std::string const& keys,
                         u64 rows) const {
   constexpr int nameWidth = 24;
   auto const heading = [&](std::string const& what) {
      fmt::print(out, "{:{}}", what, nameWidth);
      for (auto const& operation : operations) fmt::print(out, "{:>12}", operation);
      fmt::print(out, "\n");
   };
   std::map<std::string, double> best;
   heading(fmt::format("{} rows, {} keys", rows, keys));
   for (Traits const& contender : contenders) {
      fmt::print(out, "{:{}}", contender.name, nameWidth);
      for (auto const& operation : operations) {
         FigureKey const key{keys, rows, contender.name, operation};
         if (!has(key)) {
            fmt::print(out, "{:>12}", "-");
            continue;
         }
         double const median = of(key).median;
         fmt::print(out, "{:>12.{}f}", median, median < 1000 ? 1 : 0);
         if (contender.isPeer && (!best.count(operation) || median < best[operation]))
            best[operation] = median;
      }
      fmt::print(out, "\n");
   }
   if (best.empty()) return;
   heading("  ratio to the best peer");
   for (Traits const& contender : contenders) {
      fmt::print(out, "{:{}}", contender.name, nameWidth);
      for (auto const& operation : operations) {
         FigureKey const key{keys, rows, contender.name, operation};
         if (has(key) && best.count(operation)) {
            fmt::print(out, "{:>12.2f}", of(key).median / best[operation]);
         } else {
            fmt::print(out, "{:>12}", "-");
         }
      }
      fmt::print(out, "\n");
   }
}

void Figures::print(std::ostream& out, std::vector<Traits> const& contenders,
                    std::vector<std::string> const& operations, std::string const& title) const {
   std::set<std::pair<std::string, u64>> blocks;
   for (auto const& [key, ignored] : samples_) {
      if (std::find(operations.begin(), operations.end(), key.operation) != operations.end()) {
         blocks.emplace(key.keys, key.rows);
      }
   }
   if (blocks.empty()) return;
   fmt::print(out, "\n== {} ==\n", title);
   for (auto const& [keys, rows] : blocks) {
      printBlock(out, contenders, operations, keys, rows);
      fmt::print(out, "\n");
   }
}

void Figures::writeJson(std::string const& file, Machine const& machine,
                        std::vector<Traits> const& contenders, std::string const& command, double loadBefore,
                        double loadAfter) const {
   nlohmann::ordered_json root;
   root["machine"] = {{"processor", machine.processor}, {"kernel", machine.kernel},
                      {"compiler", machine.compiler},   {"buildType", machine.buildType},
                      {"cores", machine.cores},         {"lastLevelCache", machine.lastLevelCache},
                      {"hugePages", machine.hugePages}, {"loadBefore", loadBefore},
                      {"loadAfter", loadAfter}};
   root["command"] = command;
   root["keyBytes"] = sizeof(Key);
   root["rowBytes"] = sizeof(Row);
   for (Traits const& traits : contenders) {
      root["contenders"].push_back({{"name", traits.name},
                                    {"grows", traits.grows},
                                    {"processes", traits.processes},
                                    {"peer", traits.isPeer},
                                    {"notes", traits.notes}});
   }
   for (auto const& [key, samples] : samples_) {
      Summary const summary = of(key);
      root["figures"].push_back({{"keys", key.keys},
                                 {"rows", key.rows},
                                 {"contender", key.contender},
                                 {"operation", key.operation},
                                 {"median", summary.median},
                                 {"least", summary.least},
                                 {"most", summary.most},
                                 {"samples", samples}});
   }
   std::ofstream out(file);
   out << root.dump(1) << "\n";
   if (!out.flush()) throw std::runtime_error("can't write " + file);
}

} // namespace Bench
