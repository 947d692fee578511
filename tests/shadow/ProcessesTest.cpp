// SPDX-License-Identifier: Apache-2.0
// A writer and its shadows in processes of their own, killed and stopped at any moment: a quiet while later
// each copy is the table, and what its client was told adds up to the same.
#include "../tessel/Dice.h"
#include "Support.h"

namespace Test {
namespace {

struct Report {
   std::atomic<u32> phase{0};   ///< odd: the writer works; even: it is quiet
   std::atomic<u32> written{0}; ///< the phase in which the writer is quiet
   std::atomic<u32> equal[2]{}; ///< the phase in which that shadow has compared
   std::atomic<u64> changes{0}, resyncs{0}, told{0};
   Complaint complaint;
};

void write(Report& report, u64 seed) {
   Dice dice(seed);
   Lomi::Platform::defaultMaskIs(0);
   auto writer = newWriter("followed", 20'000);
   u32 generation = static_cast<u32>(seed % 1000) * 1'000'000;
   u32 mood = 0;
   for (;;) {
      u32 const phase = report.phase;
      if (phase % 2 == 0) {
         report.written = phase;
         loop().run(0.005);
         continue;
      }
      if (dice.oneIn(20)) mood = dice.below(3);
      for (u32 n = 0; n < 200; ++n) {
         Key const key = keyOf(dice.below(mood == 2 ? 50 : 20'000));
         R removed;
         if (dice.below(10) < (mood == 1 ? 1u : 7u))
            writer->write(R::make(key, ++generation), true);
         else
            writer->remove(key, removed);
      }
      report.changes += 200;
      loop().run(0);
   }
}

void follow(Report& report, u32 which) {
   Lomi::Platform::defaultMaskIs(0);
   Client client("followed");
   client.init(shadowSettings(which == 1));
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
   testRoot();
   std::filesystem::remove_all(testRoot() + "/followed");
   SharedReport<Report> report;
   Dice dice(setting("HOFLOW_SHADOW_SEED", static_cast<u64>(now() * 1e6)));
   std::unique_ptr<Child> writer, shadows[2];
   u64 seed = 1;
   auto const startWriter = [&] {
      writer = std::make_unique<Child>([&] { write(*report, seed); });
      ++seed;
   };
   auto const startShadow = [&](u32 which) {
      shadows[which] = std::make_unique<Child>([&, which] { follow(*report, which); });
   };
   startWriter();
   startShadow(0);
   startShadow(1);
   for (u64 round = 0, rounds = setting("HOFLOW_SHADOW_ROUNDS", 12 / std::min<u64>(slow, 3)); round < rounds;
        ++round) {
      ++report->phase;
      pause(0.01 * (1 + dice.below(20)));
      u32 const hit = dice.below(3);
      switch (dice.below(3)) {
      case 0:
         writer->kill();
         startWriter();
         break;
      case 1:
         if (hit < 2) {
            shadows[hit]->kill();
            startShadow(hit);
         }
         break;
      case 2:
         shadows[hit % 2]->signal(SIGSTOP);
         pause(0.1);
         shadows[hit % 2]->signal(SIGCONT);
         break;
      }
      pause(0.01 * (1 + dice.below(10)));
      u32 const quiet = ++report->phase;
      for (double const end = now() + 60; report->equal[0] != quiet || report->equal[1] != quiet;) {
         ASSERT_LT(now(), end) << "round " << round << ": no rest, shadows at " << report->equal[0] << " and "
                               << report->equal[1] << " of " << quiet;
         ASSERT_EQ(report->complaint.count, 0) << report->complaint.text;
         ASSERT_FALSE(writer->ended());
         pause(0.005);
      }
   }
   ASSERT_EQ(report->complaint.count, 0) << report->complaint.text;
   fmt::print("changes {} told {} resyncs {}\n", report->changes.load(), report->told.load(),
              report->resyncs.load());
   EXPECT_GT(report->told, 1000u);
}

} // namespace
} // namespace Test
