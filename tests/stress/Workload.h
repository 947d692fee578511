// SPDX-License-Identifier: Apache-2.0
// A busy writer and the readers beside it, as functions that a test runs in processes (StressTest.cpp) or in
// threads of one (RaceProbe.cpp). Rows of two kinds: some stay from the beginning to the end and are only
// overwritten, the others come and go in tides that make slots and buckets grow and shrink. A reader must
// find each row that stays at every look, once in every walk, whole, and never older than it has seen it
// before.
#pragma once

#include "Judge.h"
#include "Processes.h"
#include "TestTable.h"

#include <random>

namespace Test::Workload {

using R = Row<7>; // 36 bytes
using Writer = Mirak::MirakWriter<OpsOf<R>>;
using Reader = Mirak::MirakReader<OpsOf<R>>;
constexpr u32 staying = 300;

struct Shared {
   std::atomic<bool> ready{false}, stop{false};
   std::atomic<u64> reads{0}, walks{0};
   std::atomic<u64> retries{0}, lookasideReads{0}, slowSteps{0}, wrapperRetries{0}, slotResizes{0},
       bucketResizes{0};
   Complaint complaint;
};

/// Every eighth row has a twin of the other kind beside it, in a chain of equal hashes.
inline Key stayingKey(u32 i) { return {i % 8 == 0 ? 0x33u : i * 0x9e3779b1u, i}; }
inline Key tideKey(u32 i) { return {i % 64 == 0 ? 0x33u : (i + 5000) * 0x9e3779b1u, i + 100000}; }

/// A table with its writer, for write().
struct Table : Writer {
   Table()
      : Writer(quiet(), "stress", Mirak::MapDescriptor(500)) {
      initialize("test");
   }
};

/// @param tides rows of the highest tide
/// @param beside called at each high tide
inline void write(
    Writer& writer, Shared& shared, u64 seed, u32 tides, std::function<void()> const& beside = [] {}) {
   std::mt19937 random(static_cast<u32>(seed));
   u32 generation = 1;
   for (u32 i = 0; i < staying; ++i) writer.write(R::make(stayingKey(i), generation), true);
   shared.ready = true;
   auto const overwriteSome = [&] {
      for (int i = 0; i < 4; ++i)
         writer.write(R::make(stayingKey(i < 2 ? 0 : random() % staying), ++generation), true);
   };
   // Each tide is a little higher than the last one, and the ebb moves the rows that stay.
   for (u32 tide = 0; !shared.stop; ++tide) {
      u32 const height = std::min(1000 + tide * 100, tides);
      for (u32 i = 0; i < height && !shared.stop; ++i) {
         writer.write(R::make(tideKey(i), ++generation), true);
         overwriteSome();
      }
      beside();
      R removed;
      for (u32 i = 0; i < height && !shared.stop; ++i) {
         writer.remove(tideKey((i * 7919) % height), removed);
         overwriteSome();
      }
      for (u32 i = 0; i < height; ++i) writer.remove(tideKey(i), removed);
   }
   if (!writer.validate()) shared.complaint.say("the table is unsound in the end");
}

inline void read(Shared& shared, u64 seed, u32 tides) {
   std::mt19937 random(static_cast<u32>(seed));
   Mirak::Reader::Counters counters;
   Reader reader(quiet(), "stress", {}, &counters);
   while (!shared.ready || !reader.initialize("test")) pause(0.001);
   std::vector<u32> seen(staying, 0); // the newest generation of each row that stays
   auto const judge = [&](R const& row) {
      if (!row.sound()) shared.complaint.say("torn: " + row.str());
      if (row.key().number >= staying) return;
      u32& newest = seen[row.key().number];
      if (row.generation() < newest) shared.complaint.say("older than before: " + row.str());
      newest = row.generation();
   };
   auto const look = [&](Key key, bool stays) {
      bool found = false;
      R row;
      reader.lookup(key, found, &row);
      if (found && row.key() != key) shared.complaint.say("foreign: " + row.str());
      if (!found && stays) shared.complaint.say("absent: " + key.str());
      if (found) judge(row);
   };
   while (!shared.stop) {
      for (int i = 0; i < 2000; ++i) {
         look(stayingKey(i % 4 == 0 ? 0 : random() % staying), true);
         look(tideKey(random() % tides), false);
      }
      u64 rows = 0, stayed = 0;
      R row;
      Key last;
      Mirak::IterHint hint;
      for (bool more = reader.first(row, hint); more; more = reader.next(last, row, hint), ++rows) {
         judge(row);
         if (rows > 0 && !before(last, row.key(), 0)) shared.complaint.say("walk went back to " + row.str());
         last = row.key();
         stayed += last.number < staying;
      }
      // Ascending, so none came twice.
      if (stayed != staying)
         shared.complaint.say(fmt::format("a walk saw {} of {} rows that stay", stayed, staying));
      shared.reads += 4000 + rows;
      ++shared.walks;
   }
   shared.retries += counters.retries;
   shared.lookasideReads += counters.lookasideReads;
   shared.slowSteps += counters.nextSlowPath;
   shared.wrapperRetries += counters.wrapperRetries;
   shared.slotResizes += counters.slotResizes;
   shared.bucketResizes += counters.buckets.resizes;
}

} // namespace Test::Workload
