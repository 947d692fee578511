// SPDX-License-Identifier: Apache-2.0
// One process inserts, overwrites, removes, grows and shrinks slots and buckets as fast as it can, and others
// read. Rows of two kinds: some stay from the beginning to the end and are only overwritten, the others come
// and go in tides. A reader must find each row that stays at every look, once in every walk, whole, and never
// older than it has seen it before.
#include "Judge.h"
#include "Processes.h"
#include "TestTable.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace Test {
namespace {

using R = Row<7>; // 36 bytes
using Writer = Mirak::MirakWriter<OpsOf<R>>;
using Reader = Mirak::MirakReader<OpsOf<R>>;
constexpr u32 staying = 300, tides = 6000, readers = 2;

struct Shared {
   std::atomic<bool> ready{false}, stop{false};
   std::atomic<u64> reads{0}, walks{0}, writes{0};
   std::atomic<u64> retries{0}, lookasideReads{0}, slowSteps{0}, wrapperRetries{0}, slotResizes{0},
       bucketResizes{0};
   Complaint complaint;
};

/// Every eighth row has a twin of the other kind beside it, in a chain of equal hashes.
Key stayingKey(u32 i) { return {i % 8 == 0 ? 0x33u : i * 0x9e3779b1u, i}; }
Key tideKey(u32 i) { return {i % 64 == 0 ? 0x33u : (i + 5000) * 0x9e3779b1u, i + 100000}; }

void write(Shared& shared, u64 seed) {
   std::mt19937 random(static_cast<u32>(seed));
   Writer writer(quiet(), "stress", Mirak::MapDescriptor(500));
   writer.initialize("test");
   u32 generation = 1;
   for (u32 i = 0; i < staying; ++i) writer.write(R::make(stayingKey(i), generation), true);
   shared.ready = true;
   auto const overwriteSome = [&] {
      for (int i = 0; i < 4; ++i)
         writer.write(R::make(stayingKey(i < 2 ? 0 : random() % staying), ++generation), true);
      shared.writes += 5;
   };
   // Each tide is a little higher than the last one, and the ebb moves the rows that stay.
   for (u32 tide = 0; !shared.stop; ++tide) {
      u32 const height = std::min(1000 + tide * 100, tides);
      for (u32 i = 0; i < height && !shared.stop; ++i) {
         writer.write(R::make(tideKey(i), ++generation), true);
         overwriteSome();
      }
      R removed;
      for (u32 i = 0; i < height && !shared.stop; ++i) {
         writer.remove(tideKey((i * 7919) % height), removed);
         overwriteSome();
      }
      for (u32 i = 0; i < height; ++i) writer.remove(tideKey(i), removed);
   }
   if (!writer.validate()) shared.complaint.say("the table is unsound in the end");
   auto const counters = writer.writerCounters();
   if (counters.bucketShrinks == 0 || counters.bucketGrows == 0)
      shared.complaint.say("the bucket table never changed");
   if (counters.slotShrinks == 0 || counters.slotsMoved == 0) shared.complaint.say("no slot was given back");
}

void read(Shared& shared, u64 seed) {
   std::mt19937 random(static_cast<u32>(seed));
   Mirak::Reader::Counters counters;
   Reader reader(quiet(), "stress", {}, &counters);
   while (!shared.ready || !reader.initialize("test")) pause(0.001);
   std::vector<u32> seen(staying, 0); // the newest generation of each row that stays
   auto const judge = [&](R const& row) {
      if (!row.sound()) shared.complaint.say("torn: " + row.str());
      if (row.key().number < staying) {
         u32& newest = seen[row.key().number];
         if (row.generation() < newest) shared.complaint.say("older than before: " + row.str());
         newest = row.generation();
      }
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

TEST(Stress, ReadersBesideABusyWriter) {
   u64 const target = setting("HOFLOW_STRESS_READS", 40'000'000 / slow),
             seed = setting("HOFLOW_SEED", std::random_device{}());
   double const limit =
       static_cast<double>(setting("HOFLOW_STRESS_SECONDS", target > 40'000'000 ? 3600 : 120));
   fmt::print("HOFLOW_SEED={} HOFLOW_STRESS_READS={}\n", seed, target);
   std::string const root = "/dev/shm/hoflow-stress-" + std::to_string(::getpid());
   std::filesystem::create_directories(root);
   Mem::RootPath::set(root);
   SharedReport<Shared> shared;
   double const begin = now();
   {
      std::vector<std::unique_ptr<Child>> children;
      for (u32 i = 0; i < readers; ++i)
         children.push_back(std::make_unique<Child>([&] { read(*shared, seed + i); }));
      children.push_back(std::make_unique<Child>([&] { write(*shared, seed); }));
      while (shared->reads < target && shared->complaint.count == 0 && now() - begin < limit) pause(0.02);
      shared->stop = true;
      for (auto& child : children) EXPECT_EQ(child->wait(), 0);
   }
   EXPECT_STREQ(shared->complaint.text, "");
   fmt::print(
       "{} reads in {} walks beside {} writes in {:.1f} s: {} retries, {} lookaside reads, {} slow steps, {} "
       "wrapper retries, {} slot resizes, {} bucket resizes\n",
       shared->reads.load(), shared->walks.load(), shared->writes.load(), now() - begin,
       shared->retries.load(), shared->lookasideReads.load(), shared->slowSteps.load(),
       shared->wrapperRetries.load(), shared->slotResizes.load(), shared->bucketResizes.load());
   EXPECT_GE(shared->reads, std::min<u64>(target, 1'000'000 / slow));
   EXPECT_GT(shared->retries, 0u);
   EXPECT_GT(shared->lookasideReads, 0u);
   EXPECT_GT(shared->slowSteps, 0u);
   EXPECT_GT(shared->wrapperRetries, 0u);
   EXPECT_GT(shared->slotResizes, readers); // the first one maps the table
   EXPECT_GT(shared->bucketResizes, 0u);
   std::filesystem::remove_all(root);
}

} // namespace
} // namespace Test
