// SPDX-License-Identifier: Apache-2.0
// What a private copy of a table costs and gives: the first sweep, memory, lookups and walks, with the writer
// at rest. The peer is a hash map of the process's own, filled by hand, which follows nothing.
#include "follow/Follow.h"
#include "follow/Sides.h"
#include "peers/PeerHash.h"

#include <ostream>

#ifdef BENCH_PEERS
#include <absl/container/flat_hash_map.h>
#endif

namespace Bench {

namespace {

class Measurement {
public:
   Measurement(Workload const& load, Figures& figures)
      : load_(load)
      , figures_(figures) {}

   void shadow(Place const& place, bool keyOnly) {
      char const* const who = keyOnly ? "keyshadow" : "shadow";
      auto& loop = Lomi::TaskSchedulerRoot::root();
      auto const start = Clock::now();
      ShadowFollower copy(place, keyOnly);
      while (!copy.complete()) loop.run(1);
      add(who, "sweep krows/s", static_cast<double>(load_.rows) / nsSince(start, 1) * 1e6);
      auto const counters = copy.readerCounters();
      if (counters.members != load_.rows) wrong(who, "the copy lacks rows");
      add(who, "bytes a row",
          static_cast<double>(counters.shadowMappedSize) / static_cast<double>(load_.rows));
      auto& back = copy.back();
      Row buffer;
      hits(who, [&](Key const& key) {
         bool found = false;
         auto const* const row = back.lookup(tableKey(key), found, &tableRow(buffer));
         return reinterpret_cast<Row const*>(row);
      });
      walk(who, [&](auto each) {
         Mirak::IterHint hint;
         for (bool more = back.first(tableRow(buffer), hint); more;
              more = back.next(tableKey(buffer.key), tableRow(buffer), hint))
            each(buffer);
      });
      copy.controlDetach();
   }

#ifdef BENCH_PEERS
   void flatHashMap() {
      char const* const who = "flat_hash_map";
      struct Hash {
         std::size_t operator()(Key const& key) const { return u64{peerHash(key)} * 0x9e3779b97f4a7c15; }
      };
      struct Same {
         bool operator()(Key const& left, Key const& right) const { return sameKey(left, right); }
      };
      absl::flat_hash_map<Key, Row, Hash, Same> map;
      for (Row const& row : load_.inserts) map.emplace(row.key, row);
      hits(who, [&](Key const& key) { return &map.find(key)->second; });
      walk(who, [&](auto each) {
         for (auto& [key, row] : map) {
            wholeRowIsUsed(row);
            each(row);
         }
      });
      // A slot and its control byte.
      add(who, "bytes a row",
          static_cast<double>(map.capacity()) * (sizeof(Key) + sizeof(Row) + 1) /
              static_cast<double>(load_.rows));
   }
#endif

private:
   template <class Lookup> void hits(char const* who, Lookup lookup) {
      u64 const passes = passesFor(load_.rows);
      u64 sum = 0;
      auto const start = Clock::now();
      for (u64 pass = 0; pass < passes; ++pass)
         for (Query const& query : load_.hits) sum += rowSum(*lookup(query.key));
      add(who, "hit", nsSince(start, passes * load_.rows));
      if (sum != passes * load_.sumInserted) wrong(who, "the rows found have a wrong sum");
   }
   template <class Walk> void walk(char const* who, Walk each) {
      u64 const passes = passesFor(load_.rows);
      u64 sum = 0;
      auto const start = Clock::now();
      for (u64 pass = 0; pass < passes; ++pass) each([&](Row const& row) { sum += rowSum(row); });
      add(who, "walk", nsSince(start, passes * load_.rows));
      if (sum != passes * load_.sumInserted) wrong(who, "the rows walked have a wrong sum");
   }
   void add(char const* who, char const* operation, double value) {
      figures_.add({nameOf(load_.family), load_.rows, who, operation}, value);
   }

   Workload const& load_;
   Figures& figures_;
};

} // namespace

void runShadow(Workload const& load, Setting const& setting, Figures& figures) {
   Folder const folder;
   Place const place{folder.path(), load.rows, setting.core};
   auto const writer = openFollowed(place);
   for (Row const& row : load.inserts) writer->write(tableRow(row), true);
   Measurement measurement(load, figures);
   for (int time = 0; time < setting.repetitions; ++time) {
      measurement.shadow(place, false);
      measurement.shadow(place, true);
#ifdef BENCH_PEERS
      measurement.flatHashMap();
#endif
   }
   writer->detach(false);
}

void printShadow(std::ostream& out, Figures const& figures) {
   std::vector<Traits> const copies{
       {"shadow", true, true, true, false, "keeps the rows"},
       {"keyshadow", true, true, true, false, "keeps the keys, fetches a row from the table"},
       {"flat_hash_map", false, false, true, true, "absl, CRC-32C, filled by hand; it follows nothing"},
   };
   figures.print(out, copies, {"hit", "walk"}, "a private copy of a table at rest, ns an operation");
   figures.print(out, copies, {"sweep krows/s", "bytes a row"},
                 "filling it: thousands of rows a second, and memory a row");
}

} // namespace Bench
