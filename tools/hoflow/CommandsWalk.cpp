// SPDX-License-Identifier: Apache-2.0
// check and stat: commands that walk the whole table and judge it.
//
// What check can claim. A reader's walk raises what no writer leaves: a slot that isn't occupied, a key in
// the wrong bucket, a stored hash that isn't its key's, a chain without end. check adds: rows strictly
// ascending, so none comes twice; each row found by a lookup of its key; as many rows as the header says. The
// last two may fail without any fault while rows come and go. So a failure counts only if both files held the
// same bytes before and after the walk: versions only move on, so equal bytes mean that nothing was stored in
// between.
//
// What it cannot see: the free list, a change queue's entries, and values that are wrong in themselves.
#include "Commands.h"
#include "Files.h"
#include "Json.h"
#include "Names.h"
#include "Table.h"
#include "Walk.h"

#include <algorithm>
#include <vector>

namespace Tool {

namespace {

constexpr int maxAttempts = 6;

struct Checked {
   std::uint64_t rows = 0;    ///< met by the walk
   std::uint64_t members = 0; ///< by the header, after the walk
   std::uint64_t lost = 0;    ///< met by the walk, not found by a lookup
   std::uint64_t outOfOrder = 0;
   std::string firstLost, firstOutOfOrder;
   bool agrees() const { return rows == members && lost == 0; }
};

std::string keyText(Schema const& schema, void const* row) {
   std::string text;
   for (Field const& field : schema.fields)
      if (field.inKey && !field.jsonOnly)
         text += fmt::format("{}{}={}", text.empty() ? "" : " ", field.name, cellText(field.get(row)));
   return text;
}

WalkEnd walkAndCheck(Table& table, Checked& seen) {
   Progress progress("checking", table.members(), true);
   WalkEnd end;
   try {
      end = walkRows(table, [&](void const* row) {
         progress.step(++seen.rows);
         if (!table.inOrder() && seen.outOfOrder++ == 0) seen.firstOutOfOrder = keyText(table.schema(), row);
         if (!table.findsPresent() && seen.lost++ == 0) seen.firstLost = keyText(table.schema(), row);
         return true;
      });
   } catch (Mirak::TableReformattedException const&) {
      end = WalkEnd::reformatted; // a lookup met it
   } catch (Lomi::CorruptionDetectedException const& e) {
      throw Failure{Exit::corrupt,
                    fmt::format("{}a lookup of a row that the walk met: {}", damagePrefix(table), e.what())};
   }
   seen.members = table.members();
   return end;
}

/// What is wrong with a table that stood still while it was walked.
std::vector<std::string> problemsOf(Checked const& seen) {
   std::vector<std::string> problems;
   if (seen.outOfOrder)
      problems.push_back(
          fmt::format("{} rows out of order or twice; the first: {}", seen.outOfOrder, seen.firstOutOfOrder));
   if (seen.lost)
      problems.push_back(
          fmt::format("{} rows that a lookup doesn't find; the first: {}", seen.lost, seen.firstLost));
   if (seen.rows != seen.members)
      problems.push_back(fmt::format("the header says {} rows, the walk met {}", seen.members, seen.rows));
   return problems;
}

struct Verdict {
   Checked seen;
   bool quiet = false; ///< nothing was stored during the last walk, or nothing speaks against it
   std::vector<std::string> problems;
};

Verdict judge(Table& table) {
   Verdict verdict;
   for (int attempt = 1;; ++attempt) {
      // The first walk needs no proof of quiet: most often it has nothing to say.
      std::uint64_t const before = attempt > 1 ? fingerprint(table.name()) : 0;
      verdict.seen = {};
      WalkEnd end = WalkEnd::stopped;
      std::string damage;
      try {
         end = walkAndCheck(table, verdict.seen);
      } catch (Failure const& failure) {
         if (failure.status != Exit::corrupt) throw;
         damage = failure.text.substr(damagePrefix(table).size());
      }
      if (end == WalkEnd::reformatted || end == WalkEnd::replaced) {
         if (attempt >= maxAttempts)
            throw Failure{Exit::incomplete,
                          fmt::format("{}: replaced {} times while it was checked", table.name(), attempt)};
         say(fmt::format("{}: {}; checking the new one", table.name(), endText(end)));
         table.reopen();
         continue;
      }
      bool const clean = damage.empty() && verdict.seen.outOfOrder == 0;
      if (clean && verdict.seen.agrees()) {
         verdict.quiet = true;
         return verdict;
      }
      verdict.quiet = attempt > 1 && fingerprint(table.name()) == before;
      if (!verdict.quiet && attempt < maxAttempts) continue;
      // Under a writer that never rests, rows that came and went explain all but disorder and damage.
      if (!damage.empty())
         verdict.problems.push_back(damage);
      else if (verdict.quiet || !clean)
         verdict.problems = problemsOf(verdict.seen);
      return verdict;
   }
}

Exit checkOne(Common const& common, std::string const& name) {
   std::unique_ptr<Table> table;
   try {
      table = openTable(name);
   } catch (Failure const& failure) {
      if (common.json)
         common.out.line(jsonLine(
             {{"table", name}, {"sound", false}, {"problems", ordered_json::array({failure.text})}}));
      throw;
   }
   Verdict verdict = judge(*table);
   Checked const seen = verdict.seen;
   Inspection const after = inspect(name);
   bool const interrupted = after.interrupted();
   for (std::string const& problem : {after.ownerProblem, after.queue.problem})
      if (!problem.empty()) verdict.problems.push_back(problem + "; the next writer formats the table anew");
   Exit const status = !verdict.problems.empty() ? Exit::corrupt : interrupted ? Exit::incomplete : Exit::ok;
   std::string const died = "the last writer died inside an operation: the next one formats the table anew";
   if (common.json) {
      ordered_json j{{"table", name},
                     {"sound", status == Exit::ok},
                     {"rows", seen.rows},
                     {"members", seen.members},
                     {"quiet", verdict.quiet},
                     {"writerAlive", after.writerAlive},
                     {"problems", verdict.problems}};
      if (interrupted) j["problems"].push_back(died);
      common.out.line(jsonLine(j));
      return status;
   }
   auto& out = common.out;
   if (status == Exit::ok) {
      std::string text = fmt::format("{}: {}: {} rows, each once and where it belongs", name,
                                     out.styled(Style::good, "sound"), seen.rows);
      if (!verdict.quiet) text += fmt::format("; rows come and go, the header says {} now", seen.members);
      out.line(text);
      return status;
   }
   for (std::string const& problem : verdict.problems)
      out.line(fmt::format("{}: {}: {}", name, out.styled(Style::bad, "damaged"), problem));
   if (interrupted)
      out.line(fmt::format("{}: {}: {}", name, out.styled(Style::warning, "interrupted"), died));
   return status;
}

struct Chains {
   std::vector<std::uint64_t> byLength; ///< how many chains have so many rows
   double meanSteps = 0;                ///< slots that a lookup of a row visits
};

Chains chainsOf(std::vector<std::uint32_t> const& hashes, std::uint32_t buckets) {
   std::vector<std::uint32_t> rows(buckets);
   for (std::uint32_t const hash : hashes) ++rows[hash & (buckets - 1)];
   Chains chains;
   double steps = 0;
   for (std::uint32_t const length : rows) {
      if (chains.byLength.size() <= length) chains.byLength.resize(length + 1);
      ++chains.byLength[length];
      steps += length * (length + 1.0) / 2;
   }
   if (!hashes.empty()) chains.meanSteps = steps / static_cast<double>(hashes.size());
   return chains;
}

void statJson(Common const& common, Table const& table, Inspection const& t, Chains const& chains,
              std::uint64_t rows) {
   auto const& h = *t.slotHeader;
   auto const c = table.counters();
   std::uint64_t const memory = t.slots.memory + t.buckets.memory;
   std::uint64_t const buckets = table.buckets();
   ordered_json j{{"table", table.name()},
                  {"rows", rows},
                  {"capacity", h.numSlots.value},
                  {"freeSlots", h.numSlots.value - h.occupiedSlots},
                  {"load", ratio(h.occupiedSlots, h.numSlots.value)},
                  {"buckets", buckets},
                  {"rowsPerBucket", ratio(rows, buckets)},
                  {"chainsByLength", chains.byLength},
                  {"longestChain", chains.byLength.size() - 1},
                  {"meanSteps", chains.meanSteps},
                  {"memory", memory},
                  {"bytesPerRow", rows ? ordered_json(static_cast<double>(memory) / static_cast<double>(rows))
                                       : ordered_json()},
                  {"rowsUntilSlotsGrow", h.numSlots.value - h.occupiedSlots},
                  {"rowsUntilBucketsDouble", buckets > h.occupiedSlots ? buckets - h.occupiedSlots : 0},
                  {"reader",
                   {{"retries", c.retries},
                    {"lookasideReads", c.lookasideReads},
                    {"nextSlowPath", c.nextSlowPath},
                    {"wrapperRetries", c.wrapperRetries},
                    {"slotResizes", c.slotResizes},
                    {"bucketResizes", c.buckets.resizes},
                    {"remaps", c.remaps + c.buckets.remaps}}}};
   common.out.line(jsonLine(j));
}

void statText(Common const& common, Table const& table, Inspection const& t, Chains const& chains,
              std::uint64_t rows) {
   auto const& h = *t.slotHeader;
   auto const c = table.counters();
   std::uint64_t const memory = t.slots.memory + t.buckets.memory;
   std::uint64_t const buckets = table.buckets();
   std::uint64_t const freeSlots = h.numSlots.value - h.occupiedSlots;
   Columns lines(common.out, {{"", false}, {"", false}}, false);
   auto const add = [&](char const* name, std::string value) { lines.add({name, std::move(value)}); };
   lines.add({"table", table.name()}, Style::bold);
   add("rows", std::to_string(rows));
   add("slots", fmt::format("{}, {} free, {:.1f} % taken", h.numSlots.value, freeSlots,
                            100 * ratio(h.occupiedSlots, h.numSlots.value)));
   add("buckets", fmt::format("{}, {:.2f} rows each", buckets,
                              static_cast<double>(rows) / static_cast<double>(buckets)));
   add("memory", rows ? fmt::format("{}, {:.1f} bytes a row", sizeText(memory),
                                    static_cast<double>(memory) / static_cast<double>(rows))
                      : sizeText(memory));
   add("growth", fmt::format("slots after {} more rows, buckets after {}", freeSlots,
                             buckets > h.occupiedSlots ? buckets - h.occupiedSlots : 0));
   add("lookups", fmt::format("{:.2f} slots on average for a row that is there", chains.meanSteps));
   add("retries", fmt::format("{} in this walk, {} values taken aside, {} resizes followed, {} steps by key",
                              c.retries + c.wrapperRetries, c.lookasideReads,
                              c.slotResizes + c.buckets.resizes, c.nextSlowPath));
   lines.finish();
   common.out.line("");
   std::uint64_t const most = *std::max_element(chains.byLength.begin(), chains.byLength.end());
   Columns histogram(common.out, {{"chain", true}, {"buckets", true}, {"", false}}, true);
   for (std::size_t length = 0; length < chains.byLength.size(); ++length) {
      std::uint64_t const n = chains.byLength[length];
      if (n)
         histogram.add(
             {std::to_string(length), std::to_string(n), std::string((n * 40 + most - 1) / most, '#')});
   }
   histogram.finish();
}

Exit statOne(Common const& common, std::string const& name) {
   auto const table = openTable(name);
   std::vector<std::uint32_t> hashes;
   for (int attempt = 1;; ++attempt) {
      hashes.clear();
      hashes.reserve(table->members());
      Progress progress("reading", table->members(), true);
      WalkEnd const end = walkRows(*table, [&](void const*) {
         hashes.push_back(table->hash());
         progress.step(hashes.size());
         return true;
      });
      if (end == WalkEnd::complete) break;
      progress.clear();
      if (attempt == maxAttempts)
         throw Failure{Exit::incomplete,
                       fmt::format("{}: replaced {} times while it was read", name, attempt)};
      say(fmt::format("{}: {}; reading the new one", name, endText(end)));
      table->reopen();
   }
   Inspection const t = inspect(name);
   if (t.state != State::ok) throw t.failure();
   Chains const chains = chainsOf(hashes, table->buckets());
   (common.json ? statJson : statText)(common, *table, t, chains, hashes.size());
   return Exit::ok;
}

} // namespace

std::string whyNotAdopted(Inspection const& seen) {
   if (seen.state == State::absent) return {};
   if (seen.state != State::ok) return seen.problem;
   if (seen.interrupted()) return seen.path + ": the last writer died inside an operation";
   for (std::string const& problem : {seen.ownerProblem, seen.queue.problem})
      if (!problem.empty()) return problem;
   auto const problems = judge(*openTable(seen.name)).problems;
   return problems.empty() ? std::string() : seen.path + ": " + problems.front();
}

Exit checkTables(Common const& common, std::vector<std::string> const& words) {
   return forEachTable(resolveTables(words), [&](std::string const& name) { return checkOne(common, name); });
}

Exit statTables(Common const& common, std::vector<std::string> const& words) {
   bool first = true;
   return forEachTable(resolveTables(words), [&](std::string const& name) {
      if (!first && !common.json) common.out.line("");
      first = false;
      return statOne(common, name);
   });
}

} // namespace Tool
