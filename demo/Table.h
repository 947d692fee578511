// SPDX-License-Identifier: Apache-2.0
// One table as a demo reader follows it: attach, read, judge, and attach again when the files are no longer
// those that are mapped. It shows all that a long-lived reader has to do.
#pragma once

#include "FlowTracking/Tables.h"
#include "Lomi/Exception.h"
#include "Mirak/MirakReader.h"

#include <memory>
#include <string>
#include <unordered_map>

namespace Demo {

using Mem::u32;
using Mem::u64;
using Ip4Ops = FlowTracking::HoIpFlowCounterOps;
using Ip6Ops = FlowTracking::HoIp6FlowCounterOps;

/// What one process has read so far, of both tables.
struct Tally {
   u64 lookups = 0, walks = 0, rowsWalked = 0;
   u64 retries = 0, lookasideReads = 0, resizes = 0;
   u64 reattaches = 0, generations = 0;
   u64 missing = 0, twice = 0, backwards = 0, corrupt = 0;
   std::string firstAnomaly;

   u64 anomalies() const { return missing + twice + backwards + corrupt; }
   void anomaly(u64& kind, std::string const& words) {
      if (anomalies() == 0) firstAnomaly = words;
      ++kind;
   }
};

template <class Ops> class Table {
public:
   using Key = typename Ops::Key;
   using Value = typename Ops::Value;

   /// @param path below the root
   Table(std::string path, Tally& sum)
      : name(std::move(path))
      , tally(sum) {}

   u32 rows() const { return reader ? reader->members() : 0; }
   std::string generationText() const { return generation.value() ? generation.text() : "none"; }

   /// Adds what the present reader object has counted so far.
   void countersInto(Tally& into) const {
      if (!reader) return;
      auto const counters = reader->readerCounters();
      into.retries += counters.retries + counters.wrapperRetries;
      into.lookasideReads += counters.lookasideReads;
      into.resizes += counters.slotResizes + counters.buckets.resizes;
   }

   /// Looks up a batch of the known keys; learns the keys anew whenever all have had their turn.
   /// @return false: nothing to read yet
   bool lookups() {
      return guarded([this] {
         if (turn == known.end()) {
            pass();
            turn = known.begin();
         }
         for (unsigned i = 0; i < batch && turn != known.end(); ++i, ++turn) {
            bool found = false;
            Value value;
            reader->lookup(turn->first.key, found, &value);
            ++tally.lookups;
            if (!found) {
               if (!reader->filesReplaced())
                  tally.anomaly(tally.missing, name + ": a key that was there is reported absent");
            } else {
               judge(turn->second, value);
            }
         }
         return !known.empty();
      });
   }

   /// One walk over the whole table. @return false: nothing to read yet
   bool walk() {
      return guarded([this] {
         bool const some = pass();
         ++tally.walks;
         return some;
      });
   }

private:
   static constexpr unsigned batch = 4096;

   struct Known {
      Key key;
      bool operator==(Known const& other) const { return key == other.key; }
   };
   struct Hash {
      std::size_t operator()(Known const& row) const { return row.key.hash(0); }
   };
   struct Seen {
      u64 packets = 0, bytes = 0, lastWalk = 0;
   };
   using Map = std::unordered_map<Known, Seen, Hash>;

   /// Runs `work` on an attached reader; attaches before it and, where the table was replaced, after it.
   template <class Work> bool guarded(Work work) {
      if (!reader && !attach()) return false;
      if (reader->filesReplaced()) {
         release();
         // A table made anew after its files were removed can carry the same generation.
         generation = {};
         return false;
      }
      try {
         return work();
      } catch (Mirak::TableReformattedException const&) {
         release();
      } catch (Lomi::CorruptionDetectedException const& e) {
         if (!reader->filesReplaced()) tally.anomaly(tally.corrupt, name + ": " + e.what());
         release();
      }
      return false;
   }

   bool attach() {
      auto const handler = Lomi::Platform::getDebugHandler("demo", true);
      auto fresh = std::make_unique<Mirak::MirakReader<Ops>>(*handler, name, Ops());
      if (!fresh->initialize("demo")) return false;
      if (attached) ++tally.reattaches;
      attached = true;
      if (fresh->kestorId() != generation) {
         ++tally.generations;
         generation = fresh->kestorId();
         known.clear();
         walks = 0;
      }
      turn = known.end();
      reader = std::move(fresh);
      return true;
   }

   void release() {
      countersInto(tally);
      reader->detach(false);
      reader.reset();
   }

   bool pass() {
      ++walks;
      Value value;
      Mirak::IterHint hint;
      u64 passed = 0;
      for (bool more = reader->first(value, hint); more; more = reader->next(value.fwkKey(), value, hint)) {
         ++passed;
         Seen& seen = known[Known{value.fwkKey()}];
         if (seen.lastWalk == walks) tally.anomaly(tally.twice, name + ": one row twice in a walk");
         seen.lastWalk = walks;
         judge(seen, value);
      }
      tally.rowsWalked += passed;
      if (passed < known.size() && !reader->filesReplaced())
         tally.anomaly(tally.missing, name + ": a walk missed a row that was there all along");
      return passed != 0;
   }

   void judge(Seen& seen, Value const& value) {
      if (value.packets() < seen.packets || value.bytes() < seen.bytes)
         tally.anomaly(tally.backwards, name + ": a row's counts fell");
      seen.packets = value.packets();
      seen.bytes = value.bytes();
   }

   std::string name;
   Tally& tally;
   std::unique_ptr<Mirak::MirakReader<Ops>> reader;
   bool attached = false; // ever
   Parcel::KestorId generation;
   Map known; // all keys of this generation
   typename Map::iterator turn = known.end();
   u64 walks = 0;
};

} // namespace Demo
