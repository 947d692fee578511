// SPDX-License-Identifier: Apache-2.0
// A writer that fills and empties its table as fast as it can, and followers in processes of their own: one
// that keeps up, one that is stopped again and again, one that comes late, one that detaches and attaches. At
// rest each of them has the last state of every row, and the writer knows it. The table gives its memory back
// under them. HOFLOW_FOLLOWER_TIDES sets the length.
#include "Copy.h"
#include "Processes.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

namespace Test {
namespace {

using R = Row<29, true>; // slots of 144 bytes
using Writer = Mirak::MirakWriter<OpsOf<R>>;
constexpr u32 high = 3000, stays = 40;
enum Kind { prompt, stopped, late, leaving, kinds };

struct Shared {
   std::atomic<u32> tides{0};
   std::atomic<bool> done{false}, known{false};
   std::atomic<u32> ready{0};
   std::atomic<u64> changes{0}, slotShrinks{0}, slotsMoved{0}, turns{0}, wakes{0}, readers{0}, mapped{0},
       blocks{0};
   std::atomic<u64> sweeps[kinds], moved[kinds], attached[kinds], walks[kinds];
   Complaint complaint;
};

Key tideKey(u32 i) { return {i * 0x9e3779b1u, i}; }

void write(Shared& shared, u32 tides) {
   auto& loop = Lomi::TaskSchedulerRoot::root();
   Writer writer(quiet(), "followed", Mirak::MapDescriptor(500));
   writer.initialize("test");
   u32 generation = 0;
   R removed;
   auto const put = [&](u32 i) {
      writer.write(R::make(tideKey(i), ++generation), true);
      // The loop has its turn now and then; between them the writer does nothing but write.
      if (++shared.changes % 256 == 0) loop.dispatch();
   };
   auto const take = [&](u32 i) {
      writer.remove(tideKey(i), removed);
      if (++shared.changes % 256 == 0) loop.dispatch();
   };
   for (u32 tide = 0; tide < tides || shared.ready < kinds; ++tide) {
      for (u32 i = 0; i < high; ++i) {
         put(i);
         put(i * 7919 % (i + 1));
      }
      // The rows that stay are others each time, so that they lie high in the file and have to move.
      u32 const from = tide % 2 == 0 ? high - stays : 0;
      for (u32 i = 0; i < high; ++i) {
         if (i - from < stays) continue;
         take(i);
         put(from + i % stays);
      }
      shared.tides = tide + 1;
      if (shared.complaint.count) return;
   }
   shared.done = true;
   // Until every follower has said that it has taken in everything.
   for (int i = 0; i < 6000 && writer.clientQuiesced("copy") < kinds && !shared.complaint.count; ++i)
      loop.run(0.01);
   if (writer.clientQuiesced("copy") != kinds)
      shared.complaint.say("the writer doesn't hear of its followers");
   auto const counters = writer.writerCounters();
   shared.readers = counters.readers;
   shared.known = true;
   auto const& wrapper = writer.slotTable().wrapper();
   for (int i = 0; i < 1000 && wrapper.releasePending(); ++i) loop.run(0.02);
   shared.mapped = Mem::roundUpToPage(wrapper.mappedSize());
   shared.blocks = wrapper.blockBytes();
   shared.slotShrinks = counters.slotShrinks;
   shared.slotsMoved = counters.slotsMoved;
   shared.turns = counters.queueTurns;
   shared.wakes = counters.ruskCount;
   if (!writer.validate()) shared.complaint.say("the table is unsound in the end");
}

void follow(Shared& shared, Kind kind) {
   auto& loop = Lomi::TaskSchedulerRoot::root();
   while (kind == late && shared.tides < 2) pause(0.001);
   Copy<R> copy("followed");
   while (!copy.attach()) pause(0.001);
   ++shared.attached[kind];
   bool first = true;
   // The copy is compared when it has taken in everything; then it may sleep until the writer has heard of
   // it.
   while (!shared.known && !shared.complaint.count) {
      loop.run(0.01);
      if (first && copy.sweeps > 0) {
         ++shared.ready;
         first = false;
      }
      if (kind == leaving && !shared.done && shared.attached[kind] < 20) {
         copy.detach();
         pause(0.002);
         while (!copy.attach()) pause(0.001);
         ++shared.attached[kind];
      }
   }
   if (!copy.quiesced()) shared.complaint.say("said to have taken in everything, and hasn't");
   if (std::string const wrong = copy.difference(); !wrong.empty())
      shared.complaint.say(fmt::format("follower {}: {}", static_cast<int>(kind), wrong));
   shared.sweeps[kind] = copy.sweeps;
   shared.moved[kind] = copy.moved;
   shared.walks[kind] = copy.walks;
}

TEST(Follower, HasTheLastStateOfEveryRow) {
   testRoot();
   auto const tides = static_cast<u32>(setting("HOFLOW_FOLLOWER_TIDES", 12 / slow + 2));
   SharedReport<Shared> shared;
   auto const complaining = [&](auto&& body) {
      return [&shared, body] {
         try {
            body();
         } catch (std::exception const& e) {
            shared->complaint.say(e.what());
         }
      };
   };
   std::vector<std::unique_ptr<Child>> followers;
   for (int kind = 0; kind < kinds; ++kind)
      followers.push_back(
          std::make_unique<Child>(complaining([&, kind] { follow(*shared, static_cast<Kind>(kind)); })));
   Child writer(complaining([&] { write(*shared, tides); }));
   while (!shared->done && !shared->complaint.count) {
      followers[stopped]->signal(SIGSTOP);
      pause(0.05);
      followers[stopped]->signal(SIGCONT);
      pause(0.02);
   }
   EXPECT_EQ(writer.wait(), 0);
   for (auto& follower : followers) EXPECT_EQ(follower->wait(), 0);
   EXPECT_STREQ(shared->complaint.text, "");
   fmt::print("{} changes, {} compactions moved {} rows, {} turns of the queue, {} wake-ups\n",
              shared->changes.load(), shared->slotShrinks.load(), shared->slotsMoved.load(),
              shared->turns.load(), shared->wakes.load());
   for (int kind = 0; kind < kinds; ++kind)
      fmt::print("follower {}: {} sweeps, {} walks, met {} moves, attached {} times\n", kind,
                 shared->sweeps[kind].load(), shared->walks[kind].load(), shared->moved[kind].load(),
                 shared->attached[kind].load());
   EXPECT_EQ(shared->readers, static_cast<u64>(kinds));
   EXPECT_GE(shared->slotShrinks, tides);
   EXPECT_GT(shared->slotsMoved, 0u);
   EXPECT_GT(shared->turns, 0u);
   EXPECT_GT(shared->wakes, 0u);
   EXPECT_LE(shared->blocks, shared->mapped) << "memory that was cut off is still held";
}

} // namespace
} // namespace Test
