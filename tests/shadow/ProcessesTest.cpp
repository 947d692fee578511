// SPDX-License-Identifier: Apache-2.0
// A writer and its shadows in processes of their own, killed and stopped at any moment: a quiet while later
// each copy is the table, what its client was told adds up to the same, and the writer knows. The memory that
// a table has given back is the system's again, also where a shadow had it mapped.
#include "Dice.h"
#include "Support.h"

#include <errno.h>
#include <fstream>
#include <sys/stat.h>

namespace Test {
namespace {

constexpr u32 crowd = 32, keys = 3000;

struct Report {
   std::atomic<u32> phase{0};       ///< odd: the writer works; even: it is quiet
   std::atomic<u32> written{0};     ///< the phase in which the writer is quiet
   std::atomic<u32> equal[crowd]{}; ///< the phase in which that shadow has compared
   std::atomic<u64> known{0};       ///< so many shadows have told the quiet writer that they have everything
   std::atomic<u64> changes{0}, resyncs{0}, told{0};
   std::atomic<bool> moved{false}, turned{false}, woken{false};
   Complaint complaint;
};

void write(Report& report, u64 seed) {
   Dice dice(seed);
   Lomi::Platform::defaultMaskIs(0);
   auto writer = newWriter("followed", MapDescriptor(keys));
   u32 generation = static_cast<u32>(seed % 1000) * 1'000'000;
   u32 mood = 0;
   for (;;) {
      u32 const phase = report.phase;
      if (phase % 2 == 0) {
         report.written = phase;
         report.known = writer->clientQuiesced(::program_invocation_short_name);
         auto const& wrapper = writer->slotTable().wrapper();
         if (!wrapper.releasePending() && wrapper.blockBytes() > Mem::roundUpToPage(wrapper.mappedSize()))
            report.complaint.say("memory that was cut off is still held");
         loop().run(0.005);
         continue;
      }
      if (dice.oneIn(20)) mood = dice.below(3);
      for (u32 n = 0; n < 200; ++n) {
         Key const key = keyOf(dice.below(mood == 2 ? 50 : keys));
         R removed;
         if (dice.below(10) < (mood == 1 ? 1u : 7u))
            writer->write(R::make(key, ++generation), true);
         else
            writer->remove(key, removed);
      }
      report.changes += 200;
      loop().run(0);
      auto const counters = writer->writerCounters();
      if (counters.slotsMoved) report.moved = true;
      if (counters.queueTurns) report.turned = true;
      if (counters.ruskCount) report.woken = true;
   }
}

void follow(Report& report, u32 which) {
   Lomi::Platform::defaultMaskIs(0);
   Client client("followed");
   client.init(shadowSettings(which % 2));
   u32 done = 0;
   u64 resyncs = 0;
   for (;;) {
      loop().run(0.05);
      if (!client.complaint.empty()) report.complaint.say(client.complaint);
      u64 const seen = client.readerCounters().resyncs;
      report.resyncs += seen - std::exchange(resyncs, seen);
      u32 const phase = report.written;
      if (phase == 0 || phase == done || report.phase != phase) continue;
      if (client.mountStatus() != Mem::MountStatus::synchronised || !client.quiesced()) continue;
      Mirak::MirakReader<ShadowOps> reader(quiet(), "followed", {});
      if (!reader.initialize("compare") || reader.kestorId() != client.kestorId()) continue;
      Content const table = contentOf(reader);
      std::string wrong = difference(contentOf(client.back()), table);
      if (wrong.empty()) wrong = difference(client.heard, table);
      if (report.phase != phase) continue; // the writer works again
      if (!wrong.empty()) {
         if (client.quiesced()) report.complaint.say(wrong);
         continue;
      }
      report.told += client.calls();
      report.equal[which] = done = phase;
   }
}

TEST(ShadowProcesses, ConvergeThroughKillsAndStops) {
   std::filesystem::remove_all(testRoot() + "/followed");
   SmallTables const small(2);
   SharedReport<Report> report;
   Dice dice(setting("HOFLOW_SHADOW_SEED", static_cast<u64>(now() * 1e6)));
   std::unique_ptr<Child> writer, shadows[crowd];
   u64 seed = 1;
   auto const startWriter = [&] {
      writer = std::make_unique<Child>([&] { write(*report, seed); });
      ++seed;
   };
   auto const startShadow = [&](u32 which) {
      shadows[which] = std::make_unique<Child>([&, which] { follow(*report, which); });
   };
   startWriter();
   for (u32 which = 0; which < crowd; ++which) startShadow(which);
   for (u64 round = 0, rounds = setting("HOFLOW_SHADOW_ROUNDS", 12 / std::min<u64>(slow, 3)); round < rounds;
        ++round) {
      ++report->phase;
      pause(0.01 * (1 + dice.below(20)));
      if (dice.oneIn(3)) {
         writer->kill();
         startWriter();
      }
      u32 const from = dice.below(crowd);
      for (u32 which = from; which < crowd; which += 3) {
         if (round % 2) {
            shadows[which]->kill();
            startShadow(which);
         } else {
            shadows[which]->signal(SIGSTOP);
         }
      }
      pause(0.01 * (1 + dice.below(10)));
      for (auto& shadow : shadows) shadow->signal(SIGCONT);
      u32 const quiet = ++report->phase;
      auto const late = [&] {
         return std::find_if(report->equal, report->equal + crowd, [&](auto& at) { return at != quiet; }) -
                report->equal;
      };
      for (double const end = now() + 60; late() < crowd || report->known != crowd;) {
         ASSERT_LT(now(), end) << "round " << round << ": no rest, shadow " << late() << ", " << report->known
                               << " are known to the writer";
         ASSERT_EQ(report->complaint.count, 0) << report->complaint.text;
         ASSERT_FALSE(writer->ended());
         pause(0.005);
      }
   }
   ASSERT_EQ(report->complaint.count, 0) << report->complaint.text;
   fmt::print("changes {} told {} resyncs {}\n", report->changes.load(), report->told.load(),
              report->resyncs.load());
   EXPECT_GT(report->told, 1000u);
   EXPECT_TRUE(report->moved && report->turned && report->woken);
}

/// Pages of files in memory that this process has mapped and touched.
u64 residentFiles() {
   std::ifstream status("/proc/self/status");
   std::string word;
   u64 kilobytes = 0;
   while (status >> word && word != "RssShmem:") {
   }
   status >> kilobytes;
   return kilobytes * 1024;
}
u64 blocksOf(std::string const& directory) {
   u64 sum = 0;
   for (auto const& entry : std::filesystem::directory_iterator(directory)) {
      struct stat status {};
      ::stat(entry.path().c_str(), &status);
      sum += static_cast<u64>(status.st_blocks) * 512;
   }
   return sum;
}

// A table that fills and empties compacts every time, and in the end its memory is the system's again: the
// files' blocks, and what writer and shadow have mapped of them.
TEST(ShadowProcesses, TidesGiveTheMemoryBack) {
   struct Watched {
      std::atomic<u64> resident{0}, looks{0};
      std::atomic<bool> stop{false};
   };
   testRoot();
   SharedReport<Watched> shared;
   constexpr u32 rows = 20'000, bytes = rows * sizeof(Writer::Slot);
   MapDescriptor descriptor(rows);
   descriptor.pruneQueue = false; // a compaction's entries go because the shadow has reported them
   auto const writer = newWriter("tides", descriptor);
   Child follower([&] {
      Client client("tides");
      client.init(shadowSettings(false));
      for (; !shared->stop; ++shared->looks) {
         loop().run(0.01);
         shared->resident = residentFiles();
      }
      Mirak::MirakReader<ShadowOps> reader(quiet(), "tides", {});
      return reader.initialize("compare") && client.heard == contentOf(reader) ? 0 : 1;
   });
   auto const settled = [&](auto done) {
      return runUntil(done) &&
             runUntil([&, from = shared->looks.load()] { return shared->looks > from + 1; });
   };
   auto const quiesced = [&] { return writer->clientQuiesced(::program_invocation_short_name) == 1; };
   EXPECT_TRUE(settled(quiesced));
   R removed;
   for (u32 tide = 0; tide < 100; ++tide) {
      u32 const fill = tide == 99 ? rows : 300;
      u64 const shrinks = writer->writerCounters().slotShrinks;
      for (u32 i = 0; i < fill; ++i) writer->write(R::make(keyOf(i), tide), true);
      if (tide == 99) {
         EXPECT_TRUE(settled(quiesced));
         EXPECT_GT(blocksOf(testRoot() + "/tides"), bytes);
         EXPECT_GT(residentFiles(), bytes);
         EXPECT_GT(shared->resident, bytes);
      }
      for (u32 i = 0; i + 1 < fill; ++i) writer->remove(keyOf(i), removed); // the last row moves
      loop().dispatch();
      ASSERT_GT(writer->writerCounters().slotShrinks, shrinks) << "tide " << tide;
      ASSERT_EQ(writer->capacity(), writer->minSize()) << "tide " << tide;
   }
   EXPECT_TRUE(settled([&] {
      // Changes go on: the queue needs some to get rid of the compactions' entries.
      for (u32 i = 0; i < 50; ++i) writer->write(R::make(keyOf(rows - 1), i), true);
      return blocksOf(testRoot() + "/tides") < bytes / 8 && writer->queue().tesselWriter.corralStart() == 0;
   }));
   EXPECT_TRUE(settled(quiesced));
   EXPECT_LT(residentFiles(), bytes / 8);
   EXPECT_LT(shared->resident, bytes / 8);
   shared->stop = true;
   EXPECT_EQ(follower.wait(), 0);
   EXPECT_TRUE(writer->validate());
}

} // namespace
} // namespace Test
