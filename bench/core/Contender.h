// SPDX-License-Identifier: Apache-2.0
// What the runner asks of a contender, and the timed loops, written once for all of them.
//
// A contender is a small class `Peer` (the side that writes) with a nested `Peer::Reader` (the side that
// reads); one file a contender under peers/. `Adapted<Peer>` puts the loops around it, so that the compiler
// inlines a contender's calls into loops that are the same for everybody, and the virtual call is paid once a
// batch.
//
// Required of a Peer:
//    static constexpr Traits traits;
//    explicit Peer(Place const&)                  an empty table
//    void insert(Row const&, u32 ordinal)         the key is absent
//    void overwrite(Row const&, u32 ordinal)      the key is present; no reader may ever see half of each row
//    bool remove(Key const&, u32 ordinal)         true if it was there
//    void settle()                                lets deferred work of a batch come to its end (is timed)
//    u64 bytes()                                  memory held now
//    Reader(Place const&, Peer*)                  Peer is null in another process
//    bool Reader::lookup(Key const&, u32 ordinal, Row&)   copies all 84 bytes on a hit
//    void Reader::walk(F&& seeRow)                        copies each row's 84 bytes into its own Row first
#pragma once

#include "core/Workload.h"

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Bench {

/// Where a contender may put its files, and for how many rows.
struct Place {
   std::string directory;
   std::size_t rows; // most rows at any time; a contender that can't grow is created for these
   int core;         // the core that the benchmark runs on
};

struct Traits {
   char const* name;
   bool grows;        // starts small and grows inside `insert`
   bool processes;    // another process can read the table
   bool canBeShared;  // a reader may work while the writer writes
   bool isPeer;       // counts as the "best peer"; false for ourselves and the bare limit
   char const* notes; // one line on how it is configured
};

/// One timed batch. `count` and `sum` are checked by the caller against what they must be.
struct Batch {
   double nsPerOperation = 0;
   u64 count = 0;
   u64 sum = 0;
};

/// The reading side, as a second process or thread uses it.
class ReaderSide {
public:
   virtual ~ReaderSide() = default;
   virtual Batch hit(Workload const& load) = 0;
   virtual Batch miss(Workload const& load) = 0;
   virtual Batch walk(Workload const& load) = 0;
   /// Looks up every row and compares all its bytes with those of the generations allowed; throws on a
   /// difference.
   virtual void check(Workload const& load, bool first, bool second) = 0;
};

class Contender {
public:
   virtual ~Contender() = default;
   virtual Traits const& traits() const = 0;
   virtual void create(Place const& place) = 0;
   virtual void destroy() = 0;
   virtual Batch insert(Workload const& load) = 0;
   virtual Batch overwrite(Workload const& load) = 0;
   virtual Batch remove(Workload const& load) = 0;
   virtual u64 bytes() = 0;
   /// Inserts all rows into the empty table; the time of each single call in TSC ticks.
   virtual std::vector<u64> insertEach(Workload const& load) = 0;
   /// `steps` writes of a busy writer: overwrites, inserts and removals in turn. Never touches a key of
   /// `misses`.
   virtual void churn(Workload const& load, std::vector<Row> const& extras, u64& position, u64 steps) = 0;
   /// `sameProcess`: as a thread or on the writer's own thread; otherwise attach by the files alone.
   virtual std::unique_ptr<ReaderSide> reader(Place const& place, bool sameProcess) = 0;
};

using Clock = std::chrono::steady_clock;

inline double nsSince(Clock::time_point start, u64 operations) {
   double const ns = std::chrono::duration<double, std::nano>(Clock::now() - start).count();
   return ns / static_cast<double>(operations);
}

inline u64 passesFor(u64 rows) { return rows >= 200'000 ? 1 : 200'000 / rows; }

[[noreturn]] inline void wrong(char const* who, std::string const& what) {
   throw std::runtime_error(std::string(who) + ": " + what);
}

template <class Peer> class AdaptedReader final : public ReaderSide {
public:
   AdaptedReader(Place const& place, Peer* peer)
      : reader_(place, peer) {}

   Batch hit(Workload const& load) override { return lookups(load.hits); }
   Batch miss(Workload const& load) override { return lookups(load.misses); }

   Batch walk(Workload const& load) override {
      Batch batch;
      u64 const passes = passesFor(load.rows);
      auto const start = Clock::now();
      for (u64 pass = 0; pass < passes; ++pass) {
         reader_.walk([&](Row& row) {
            wholeRowIsUsed(row);
            ++batch.count;
            batch.sum += rowSum(row);
         });
      }
      batch.nsPerOperation = nsSince(start, passes * load.rows);
      batch.count /= passes;
      return batch;
   }

   void check(Workload const& load, bool first, bool second) override {
      Row row;
      for (Query const& query : load.hits) {
         if (!reader_.lookup(query.key, query.ordinal, row)) {
            wrong(Peer::traits.name, "row " + std::to_string(query.ordinal) + " is reported absent");
         }
         Row const old = load.inserts[query.ordinal];
         bool ok = first && std::memcmp(&row, &old, sizeof row) == 0;
         if (!ok && second) {
            Row const now = rowOf(query.key, query.ordinal, 2);
            ok = std::memcmp(&row, &now, sizeof row) == 0;
         }
         if (!ok) wrong(Peer::traits.name, "row " + std::to_string(query.ordinal) + " has wrong bytes");
      }
      for (Query const& query : load.misses) {
         if (reader_.lookup(query.key, query.ordinal, row)) {
            wrong(Peer::traits.name, "absent key " + std::to_string(query.ordinal) + " is reported found");
         }
      }
   }

private:
   Batch lookups(std::vector<Query> const& queries) {
      Batch batch;
      Row row;
      u64 const passes = passesFor(queries.size());
      auto const start = Clock::now();
      for (u64 pass = 0; pass < passes; ++pass) {
         for (Query const& query : queries) {
            if (!reader_.lookup(query.key, query.ordinal, row)) continue;
            wholeRowIsUsed(row);
            ++batch.count;
            batch.sum += rowSum(row);
         }
      }
      batch.nsPerOperation = nsSince(start, passes * queries.size());
      batch.count /= passes;
      return batch;
   }

   typename Peer::Reader reader_;
};

template <class Peer> class Adapted final : public Contender {
public:
   Traits const& traits() const override { return Peer::traits; }
   void create(Place const& place) override { peer_ = std::make_unique<Peer>(place); }
   void destroy() override { peer_.reset(); }
   u64 bytes() override { return peer_->bytes(); }

   Batch insert(Workload const& load) override {
      u32 ordinal = 0;
      auto const start = Clock::now();
      for (Row const& row : load.inserts) peer_->insert(row, ordinal++);
      peer_->settle();
      return {nsSince(start, load.rows), ordinal, 0};
   }

   Batch overwrite(Workload const& load) override {
      u64 const passes = passesFor(load.rows);
      auto const start = Clock::now();
      for (u64 pass = 0; pass < passes; ++pass) {
         for (std::size_t n = 0; n < load.rows; ++n) {
            peer_->overwrite(load.overwrites[n], load.overwriteOrdinals[n]);
         }
      }
      peer_->settle();
      return {nsSince(start, passes * load.rows), load.rows, 0};
   }

   Batch remove(Workload const& load) override {
      u64 removed = 0;
      auto const start = Clock::now();
      for (Query const& query : load.removals) removed += peer_->remove(query.key, query.ordinal);
      peer_->settle();
      return {nsSince(start, load.rows), removed, 0};
   }

   std::vector<u64> insertEach(Workload const& load) override {
      std::vector<u64> ticks(load.rows);
      u32 ordinal = 0;
      for (Row const& row : load.inserts) {
         u64 const start = __builtin_ia32_rdtsc();
         peer_->insert(row, ordinal);
         ticks[ordinal++] = __builtin_ia32_rdtsc() - start;
      }
      peer_->settle();
      return ticks;
   }

   void churn(Workload const& load, std::vector<Row> const& extras, u64& position, u64 steps) override {
      for (u64 const end = position + steps; position < end; ++position) {
         std::size_t const n = position % load.rows;
         peer_->overwrite(load.overwrites[n], load.overwriteOrdinals[n]);
         if (position % 2) continue;
         // Half of the extras are in the table at any time: insert one, remove the one half a round behind.
         u64 const turn = position / 2;
         u64 const half = extras.size() / 2;
         auto const ordinal = static_cast<u32>(turn % extras.size());
         peer_->insert(extras[ordinal], static_cast<u32>(load.rows) + ordinal);
         if (turn < half) continue;
         auto const behind = static_cast<u32>((turn - half) % extras.size());
         peer_->remove(extras[behind].key, static_cast<u32>(load.rows) + behind);
      }
      peer_->settle();
   }

   std::unique_ptr<ReaderSide> reader(Place const& place, bool sameProcess) override {
      return std::make_unique<AdaptedReader<Peer>>(place, sameProcess ? peer_.get() : nullptr);
   }

private:
   std::unique_ptr<Peer> peer_;
};

// One a file of peers/; those that this build has are listed by contenders().
std::unique_ptr<Contender> makeBareLimit();
std::unique_ptr<Contender> makeHoflow();
std::unique_ptr<Contender> makeHoflowFixed();
std::unique_ptr<Contender> makeRteHash();
std::unique_ptr<Contender> makeLmdb();
std::unique_ptr<Contender> makeLmdbBatched();
std::unique_ptr<Contender> makeLfht();
std::unique_ptr<Contender> makeInterprocess();

std::vector<std::unique_ptr<Contender>> contenders();

} // namespace Bench
