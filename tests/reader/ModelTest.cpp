// SPDX-License-Identifier: Apache-2.0
// A reader beside the real writer. First in turns, against a model: after each change lookups, and a walk
// that goes one step at a time while the table changes, grows and shrinks around it; with a good hash, hashes
// of few values, and one hash for all. Then at the same time, in two threads, where each row proves itself.
// The threads have a mapping each, so a race detector sees no common address here; what is judged is what
// comes back.
#include "Scratch.h"
#include "TestTable.h"

#include <atomic>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <thread>

namespace {

using Test::Key;
using Test::u32;
using Test::u64;
using Row = Test::Row<19>; // 84 bytes
using Ops = Test::OpsOf<Row>;
using Writer = Mirak::MirakWriter<Ops>;
using Reader = Mirak::MirakReader<Ops>;

enum class Spread { good, few, one };
char const* const names[] = {"good", "few", "one"};

Key keyOf(Spread spread, u32 number) {
   switch (spread) {
   case Spread::good:
      return {number * 0x9e3779b1u, number};
   case Spread::few:
      return {number % 13 << (number % 3) * 12, number};
   case Spread::one:
      break;
   }
   return {0xabcd, number};
}

class ModelTest : public testing::TestWithParam<Spread> {
protected:
   void SetUp() override { handler().maskIs(0); }
};

TEST_P(ModelTest, inTurns) {
   Spread const spread = GetParam();
   u64 const seed = ::Test::setting("HOFLOW_SEED", 7);
   std::mt19937_64 random(seed);
   Scratch scratch;
   Writer writer(handler(), "a/table", Mirak::MapDescriptor(5000));
   ASSERT_TRUE(writer.initialize("test"));
   Reader reader(handler(), "a/table", Ops{});
   ASSERT_TRUE(reader.initialize("test")) << reader.initializeError();

   u32 const keys = spread == Spread::good ? 1500 : 250;
   u32 const steps = (spread == Spread::good ? 24000 : 6000) / (sanitized ? 3 : 1);
   std::map<u32, u32> model; // number -> generation
   Row row;
   Mirak::IterHint hint;
   bool walking = false;
   u64 walks = 0;
   std::set<u32> due;  // rows that were there when the walk began, and stayed
   std::set<u32> seen; // rows that the walk returned and that stayed
   for (u32 step = 0; step < steps; ++step) {
      // Waves of growth and decline, so that both files' sizes move both ways.
      bool const growing = step / (steps / 6) % 2 == 0;
      u32 const number = static_cast<u32>(random() % keys);
      Key const key = keyOf(spread, number);
      if (random() % 10 < (growing ? 9u : 1u)) {
         writer.write(Row::make(key, step + 1), true);
         model[number] = step + 1;
      } else {
         Row removed;
         EXPECT_EQ(writer.remove(key, removed), model.erase(number) != 0);
         due.erase(number);
         seen.erase(number);
      }
      for (u32 tries = 0; tries < 3; ++tries) {
         u32 const asked = tries == 0 ? number : static_cast<u32>(random() % keys);
         bool found;
         Row out;
         reader.lookup(keyOf(spread, asked), found, &out);
         auto const wanted = model.find(asked);
         ASSERT_EQ(found, wanted != model.end()) << "key " << asked << " step " << step << " seed " << seed;
         ASSERT_TRUE(!found || (out.sound() && out.generation() == wanted->second)) << "step " << step;
      }
      // A few steps of a walk that lives through it all.
      for (u64 n = random() % 4; n; --n) {
         if (!walking) {
            due.clear();
            seen.clear();
            for (auto const& entry : model) due.insert(entry.first);
            walking = reader.first(row, hint);
         } else {
            walking = reader.next(row.key(), row, hint);
         }
         if (!walking) {
            ASSERT_TRUE(due.empty()) << "the walk left out key " << *due.begin() << ", seed " << seed;
            ++walks;
            break;
         }
         u32 const at = row.key().number;
         ASSERT_TRUE(row.sound() && model.count(at) && model[at] == row.generation()) << "step " << step;
         ASSERT_TRUE(seen.insert(at).second) << "key " << at << " twice in a walk, seed " << seed;
         due.erase(at);
      }
   }
   EXPECT_EQ(reader.members(), model.size());
   EXPECT_EQ(reader.buckets(), writer.buckets());
   auto const counters = reader.readerCounters();
   EXPECT_GT(walks, 1u);
   EXPECT_GT(counters.nextSlowPath, 0u);
   EXPECT_GT(counters.slotResizes, 2u);
   EXPECT_TRUE(spread != Spread::good || counters.buckets.resizes > 3); // up and down again
}

TEST_P(ModelTest, atTheSameTime) {
   Spread const spread = GetParam();
   Scratch scratch;
   Writer writer(handler(), "a/table", Mirak::MapDescriptor(20000));
   ASSERT_TRUE(writer.initialize("test"));
   // Even keys stay for ever, odd ones come and go in waves.
   u32 const stay = spread == Spread::good ? 500 : 40;
   for (u32 i = 0; i < stay; ++i) writer.write(Row::make(keyOf(spread, 2 * i), 1), true);
   std::atomic<bool> stop{false};
   std::atomic<u64> written{0};
   std::thread other([&] {
      u32 const many = spread == Spread::good ? 4000 : 120;
      for (u32 generation = 2; !stop.load(); ++generation) {
         Row removed;
         for (u32 i = 0; i < many && !stop.load(); ++i) {
            writer.write(Row::make(keyOf(spread, 2 * i + 1), generation), true);
            writer.write(Row::make(keyOf(spread, 2 * (i % stay)), generation), true);
            written.fetch_add(2);
         }
         for (u32 i = 0; i < many && !stop.load(); ++i) writer.remove(keyOf(spread, 2 * i + 1), removed);
      }
   });
   Reader reader(handler(), "a/table", Ops{});
   ASSERT_TRUE(reader.initialize("test")) << reader.initializeError();
   std::mt19937_64 random(3);
   u64 torn = 0, missing = 0, twice = 0, left = 0, walks = 0;
   auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(sanitized ? 4 : 2);
   while (std::chrono::steady_clock::now() < end) {
      for (u32 n = 0; n < 2000; ++n) {
         u32 const number = static_cast<u32>(random() % (2 * stay));
         bool found;
         Row out;
         reader.lookup(keyOf(spread, number), found, &out);
         if (found) torn += !out.sound() || out.key() != keyOf(spread, number);
         if (number % 2 == 0) missing += !found;
      }
      Row row;
      Mirak::IterHint hint;
      std::set<u32> seen;
      for (bool more = reader.first(row, hint); more; more = reader.next(row.key(), row, hint)) {
         torn += !row.sound();
         // A row that came back after it went may be met again; one that stayed may not.
         if (row.key().number % 2 == 0) twice += !seen.insert(row.key().number).second;
      }
      left += stay - seen.size();
      ++walks;
   }
   stop.store(true);
   other.join();
   auto const counters = reader.readerCounters();
   RecordProperty("written", std::to_string(written.load()));
   RecordProperty("retries", std::to_string(counters.retries));
   EXPECT_EQ(torn, 0u);
   EXPECT_EQ(missing, 0u);
   EXPECT_EQ(twice, 0u);
   EXPECT_EQ(left, 0u);
   // What this test is about must have happened. Torn reads need luck with one row among many.
   EXPECT_GT(walks, 1u);
   EXPECT_GT(counters.nextSlowPath + counters.retries, 0u);
   EXPECT_GT(counters.slotResizes, 0u);
   EXPECT_TRUE(spread != Spread::good || counters.buckets.resizes > 2);
   EXPECT_TRUE(spread != Spread::one || counters.retries > 0);
}

INSTANTIATE_TEST_SUITE_P(Spreads, ModelTest, testing::Values(Spread::good, Spread::few, Spread::one),
                         [](auto const& test) { return names[static_cast<int>(test.param)]; });

} // namespace
