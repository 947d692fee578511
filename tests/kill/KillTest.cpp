// SPDX-License-Identifier: Apache-2.0
// SIGKILL at random moments, over and over on one table. The writer's script follows from a seed, so the
// parent knows from two numbers (operations begun and ended) what the table must hold. The next writer tells
// which of the allowed it found: every row as before or after the operation in flight, or, under a new
// generation, none. A reader in another process reads all the while, through every death, restart and
// re-format.
#include "Judge.h"
#include "Processes.h"
#include "TestRoot.h"
#include "TestTable.h"

#include <gtest/gtest.h>

#include <random>

namespace Test {
namespace {

using R = Row<3, true>; // with a change queue, whose state must fit, too
using Writer = Mirak::MirakWriter<OpsOf<R>>;
using Reader = Mirak::MirakReader<OpsOf<R>>;
constexpr u32 keys = 1500;

struct Shared {
   std::atomic<u64> begun{0}, ended{0}; ///< operations, of the whole test
   std::atomic<u32> kestor{0};          ///< of the running writer, once it has judged what it found
   std::atomic<int> outcome{0};
   std::atomic<u64> slotGrows{0}, slotShrinks{0}, bucketGrows{0}, bucketShrinks{0};
   std::atomic<u64> reads{0}, rows{0}, reopened{0}, refused{0};
   Complaint complaint;
};
enum Outcome { nothing, before, after, formatted };

/// Operation `number` of the script. Rows come and go in tides, so slots and buckets grow and shrink.
struct Script {
   u64 seed;
   enum class Kind { put, keep, remove } kind = Kind::put;
   Key key = {};
   void at(u64 number) {
      u64 mix = (number + seed) * 0x9e3779b97f4a7c15u;
      mix = (mix ^ mix >> 29) * 0xbf58476d1ce4e5b9u;
      mix ^= mix >> 32;
      bool const ebb = number / 4000 % 2 != 0;
      u32 const index = static_cast<u32>(mix % keys), die = static_cast<u32>(mix >> 40) % 100;
      kind = die < (ebb ? 85u : 10u) ? Kind::remove : die % 20 == 0 ? Kind::keep : Kind::put;
      key = {index % 7 == 0 ? 0x11u : index * 0x9e3779b1u,
             index}; // a seventh of them in one long chain of twins
   }
   void model(u64 number, Content& content) {
      at(number);
      if (kind == Kind::remove)
         content.erase(key);
      else if (kind == Kind::put || !content.count(key))
         content[key] = static_cast<u32>(number + 1);
   }
   void run(u64 number, Writer& writer) {
      at(number);
      R removed;
      if (kind == Kind::remove)
         writer.remove(key, removed);
      else
         writer.write(R::make(key, static_cast<u32>(number + 1)), kind == Kind::put);
   }
};

Mirak::MapDescriptor descriptor() { return Mirak::MapDescriptor(500); }

struct Model {
   Content before, after;
   u32 kestor = 0;
};

/// The child: judges what it finds, then writes until it is killed.
void write(Shared& shared, Model model, Script script) {
   Writer writer(quiet(), "killed", descriptor());
   writer.initialize("test");
   u32 const kestor = writer.kestorId().value(), seed = Mem::loadShared(writer.slotTable().header().hashSeed);
   if (kestor == model.kestor) {
      std::string const asBefore = judgeAll<R>(writer, model.before, seed);
      std::string const asAfter = judgeAll<R>(writer, model.after, seed);
      if (!asBefore.empty() && !asAfter.empty())
         shared.complaint.say("adopted: " + asBefore + "; or: " + asAfter);
      shared.outcome = asBefore.empty() ? before : after;
   } else {
      if (std::string const wrong = judgeAll<R>(writer, {}, seed); !wrong.empty())
         shared.complaint.say("re-formatted: " + wrong);
      shared.outcome = formatted;
   }
   shared.kestor = kestor;
   for (u64 number = shared.ended;; ++number) {
      shared.begun = number + 1;
      script.run(number, writer);
      shared.ended = number + 1;
      if (number % 256 == 0) {
         auto const counters = writer.writerCounters();
         shared.slotGrows = std::max<u64>(shared.slotGrows, counters.slotGrows);
         shared.slotShrinks = std::max<u64>(shared.slotShrinks, counters.slotShrinks);
         shared.bucketGrows = std::max<u64>(shared.bucketGrows, counters.bucketGrows);
         shared.bucketShrinks = std::max<u64>(shared.bucketShrinks, counters.bucketShrinks);
      }
   }
}

/// The reader's process: every row that it is given proves itself.
void readAll(Shared& shared, u64 seed) {
   std::mt19937_64 random(seed);
   Reader reader(quiet(), "killed", {});
   Script script{seed};
   while (shared.complaint.count == 0) {
      if (!reader.initialized() && !reader.initialize("test")) {
         ++shared.refused;
         pause(0.0002);
         continue;
      }
      try {
         for (int i = 0; i < 200; ++i, ++shared.reads) {
            script.at(random());
            bool found = false;
            R buffer;
            R const row = *reader.lookup(script.key, found, &buffer);
            if (!found) continue;
            ++shared.rows;
            if (!row.sound() || row.key() != script.key) shared.complaint.say("lookup gave " + row.str());
         }
         auto const rows = walkAll<R>(reader, 1u << 20);
         shared.rows += rows.size();
         shared.reads += rows.size();
         for (std::size_t i = 0; i < rows.size(); ++i)
            if (!rows[i].sound() || (i > 0 && !Test::before(rows[i - 1].key(), rows[i].key(), 0)))
               shared.complaint.say("walk gave " + rows[i].str());
      } catch (Mirak::TableReformattedException const&) {
         ++shared.reopened;
         reader.detach(false);
      } catch (std::exception const& e) {
         shared.complaint.say(std::string("reader: ") + e.what());
      }
   }
}

TEST(Kill, AtAnyMoment) {
   u64 const rounds = setting("HOFLOW_KILL_ROUNDS", 200 / slow),
             seed = setting("HOFLOW_SEED", std::random_device{}());
   fmt::print("HOFLOW_SEED={} HOFLOW_KILL_ROUNDS={}\n", seed, rounds);
   std::mt19937_64 random(seed);
   testRoot();
   SharedReport<Shared> shared;
   Script script{seed};
   Model model;
   u64 counts[4] = {};
   {
      Child reader([&] { readAll(*shared, seed); });
      for (u64 round = 0; round < rounds && shared->complaint.count == 0; ++round) {
         shared->outcome = nothing;
         shared->begun = shared->ended.load();
         u64 const from = shared->ended;
         Child writer([&] { write(*shared, model, script); });
         // One in four is killed while it starts; one in eight stands still for a while before.
         pause(static_cast<double>(random() % 1000) * (round % 4 == 3 ? 3e-6 : 3e-5));
         if (round % 8 == 0) {
            writer.signal(SIGSTOP);
            pause(0.002);
            // It reads on, or is told that there is no table yet.
            auto const answers = [&] { return shared->reads + shared->refused; };
            u64 const had = answers();
            for (int i = 0; i < 1000 && answers() == had; ++i) pause(0.005);
            EXPECT_GT(answers(), had) << "a reader must not wait for a stopped writer";
            if (round % 16 == 0) {
               writer.signal(SIGCONT);
               pause(static_cast<double>(random() % 1000) * 1e-6);
            }
         }
         writer.kill();
         int const outcome = shared->outcome;
         ++counts[outcome];
         if (outcome == nothing) continue; // killed before it had judged: the same is allowed again
         Content content = outcome == before ? model.before : outcome == after ? model.after : Content{};
         for (u64 number = from; number < shared->ended; ++number) script.model(number, content);
         model.kestor = shared->kestor;
         model.before = model.after = std::move(content);
         // What was in flight may still come to light, or not; the script then goes on behind it.
         if (shared->begun != shared->ended) {
            script.model(shared->ended, model.after);
            shared->ended = shared->begun.load();
         }
      }
      shared->complaint.say(""); // ends the reader
      EXPECT_EQ(reader.wait(), 0);
   }
   EXPECT_STREQ(shared->complaint.text, "");
   EXPECT_GT(counts[before], 0u);
   EXPECT_GT(counts[formatted], 0u);
   EXPECT_GT(shared->rows, 1000u);
   EXPECT_GT(shared->slotGrows, 0u);
   EXPECT_GT(shared->slotShrinks, 0u);
   EXPECT_GT(shared->bucketGrows, 0u);
   EXPECT_GT(shared->bucketShrinks, 0u);
}

} // namespace
} // namespace Test
