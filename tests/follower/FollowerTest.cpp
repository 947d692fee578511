// SPDX-License-Identifier: Apache-2.0
// A writer that fills and empties its table as fast as it can, and 32 followers in processes of their own:
// some that keep up, some that are stopped again and again, some that come late, some that detach and attach.
// The queue's tables are as small as they come. At rest each follower has the last state of every row, and
// the writer knows it. The table gives its memory back under them. HOFLOW_FOLLOWER_TIDES sets the length.
#include "Copy.h"
#include "Loop.h"
#include "TestRoot.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace Test {
namespace {

using R = Row<29, true>; // slots of 144 bytes
using Writer = Mirak::MirakWriter<OpsOf<R>>;
constexpr u32 high = 3000, stays = 40;
enum Kind { prompt, stopped, late, leaving, kinds };
constexpr u32 followers = 32; // by turns of each kind

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
   Writer writer(quiet(), "followed", Mirak::MapDescriptor(500));
   writer.initialize("test");
   u32 generation = 0;
   R removed;
   auto const put = [&](u32 i) {
      writer.write(R::make(tideKey(i), ++generation), true);
      // The loop has its turn now and then; between them the writer does nothing but write.
      if (++shared.changes % 256 == 0) loop().dispatch();
   };
   auto const take = [&](u32 i) {
      writer.remove(tideKey(i), removed);
      if (++shared.changes % 256 == 0) loop().dispatch();
   };
   for (u32 tide = 0; tide < tides || shared.ready < followers; ++tide) {
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
   for (int i = 0; i < 6000 && writer.clientQuiesced("copy") < followers && !shared.complaint.count; ++i)
      loop().run(0.01);
   if (writer.clientQuiesced("copy") != followers)
      shared.complaint.say("the writer doesn't hear of its followers");
   auto const counters = writer.writerCounters();
   shared.readers = counters.readers;
   shared.known = true;
   auto const& wrapper = writer.slotTable().wrapper();
   for (int i = 0; i < 1000 && wrapper.releasePending(); ++i) loop().run(0.02);
   shared.mapped = Mem::roundUpToPage(wrapper.mappedSize());
   shared.blocks = wrapper.blockBytes();
   shared.slotShrinks = counters.slotShrinks;
   shared.slotsMoved = counters.slotsMoved;
   shared.turns = counters.queueTurns;
   shared.wakes = counters.ruskCount;
   if (!writer.validate()) shared.complaint.say("the table is unsound in the end");
}

void follow(Shared& shared, Kind kind) {
   while (kind == late && shared.tides < 2) pause(0.001);
   Copy<R> copy("followed");
   while (!copy.attach()) pause(0.001);
   u32 attached = 1;
   bool first = true;
   // The copy is compared when it has taken in everything; then it may sleep until the writer has heard of
   // it.
   while (!shared.known && !shared.complaint.count) {
      loop().run(0.01);
      if (first && copy.sweeps > 0) {
         ++shared.ready;
         first = false;
      }
      if (kind == leaving && !shared.done && attached < 20) {
         copy.detach();
         pause(0.002);
         while (!copy.attach()) pause(0.001);
         ++attached;
      }
   }
   if (!copy.quiesced()) shared.complaint.say("said to have taken in everything, and hasn't");
   if (std::string const wrong = copy.difference(); !wrong.empty())
      shared.complaint.say(fmt::format("follower {}: {}", static_cast<int>(kind), wrong));
   shared.sweeps[kind] += copy.sweeps;
   shared.moved[kind] += copy.moved;
   shared.walks[kind] += copy.walks;
   shared.attached[kind] += attached;
}

TEST(Follower, HasTheLastStateOfEveryRow) {
   testRoot();
   Tessel::leastEntries = 2;
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
   std::vector<std::unique_ptr<Child>> children;
   for (u32 n = 0; n < followers; ++n)
      children.push_back(
          std::make_unique<Child>(complaining([&, n] { follow(*shared, static_cast<Kind>(n % kinds)); })));
   Child writer(complaining([&] { write(*shared, tides); }));
   auto const signalStopped = [&](int number) {
      for (u32 n = stopped; n < followers; n += kinds) children[n]->signal(number);
   };
   while (!shared->done && !shared->complaint.count) {
      signalStopped(SIGSTOP);
      pause(0.05);
      signalStopped(SIGCONT);
      pause(0.02);
   }
   EXPECT_EQ(writer.wait(), 0);
   for (auto& child : children) EXPECT_EQ(child->wait(), 0);
   EXPECT_STREQ(shared->complaint.text, "");
   fmt::print("{} changes, {} compactions moved {} rows, {} turns of the queue, {} wake-ups\n",
              shared->changes.load(), shared->slotShrinks.load(), shared->slotsMoved.load(),
              shared->turns.load(), shared->wakes.load());
   for (int kind = 0; kind < kinds; ++kind)
      fmt::print("followers of kind {}: {} sweeps, {} walks, met {} moves, attached {} times\n", kind,
                 shared->sweeps[kind].load(), shared->walks[kind].load(), shared->moved[kind].load(),
                 shared->attached[kind].load());
   EXPECT_EQ(shared->readers, u64{followers});
   EXPECT_GE(shared->slotShrinks, tides);
   EXPECT_GT(shared->slotsMoved, 0u);
   EXPECT_GT(shared->turns, 0u);
   EXPECT_GT(shared->wakes, 0u);
   EXPECT_LE(shared->blocks, shared->mapped) << "memory that was cut off is still held";
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
// files' blocks, and what writer and follower have mapped of them.
TEST(Follower, TidesGiveTheMemoryBack) {
   struct Watched {
      std::atomic<u64> resident{0}, looks{0};
      std::atomic<bool> stop{false};
   };
   testRoot();
   SharedReport<Watched> shared;
   Mirak::MapDescriptor descriptor(20000);
   descriptor.pruneQueue = false; // a compaction's entries go because the follower has reported them
   Writer writer(quiet(), "tides", descriptor);
   writer.initialize("test");
   Child follower([&] {
      Copy<R> copy("tides");
      while (!copy.attach()) pause(0.001);
      while (!shared->stop) {
         loop().run(0.01);
         shared->resident = residentFiles();
         ++shared->looks;
      }
      return copy.quiesced() && copy.difference().empty() ? 0 : 1;
   });
   auto const settle = [&](auto done) {
      EXPECT_TRUE(runUntil(done));
      EXPECT_TRUE(runUntil([&, from = shared->looks.load()] { return shared->looks >= from + 2; }));
   };
   auto const quiesced = [&] { return writer.clientQuiesced("copy") == 1; };
   settle(quiesced);
   u64 const rows = 20000, bytes = rows * sizeof(Writer::Slot);
   R removed;
   for (u32 tide = 0; tide < 100; ++tide) {
      u32 const fill = tide == 99 ? rows : 300;
      u64 const shrinks = writer.writerCounters().slotShrinks;
      for (u32 i = 0; i < fill; ++i) writer.write(R::make(tideKey(i), tide), true);
      if (tide == 99) {
         settle(quiesced);
         EXPECT_GT(blocksOf(testRoot() + "/tides"), bytes);
         EXPECT_GT(residentFiles(), bytes);
         EXPECT_GT(shared->resident, bytes);
      }
      for (u32 i = 0; i + 1 < fill; ++i) writer.remove(tideKey(i), removed); // the last row moves
      loop().dispatch();
      ASSERT_GT(writer.writerCounters().slotShrinks, shrinks) << "tide " << tide;
      ASSERT_EQ(writer.capacity(), writer.minSize()) << "tide " << tide;
   }
   settle([&] {
      // Changes go on: the queue needs some to get rid of the compactions' entries.
      for (u32 i = 0; i < 50; ++i) writer.write(R::make(tideKey(rows - 1), i), true);
      return blocksOf(testRoot() + "/tides") < bytes / 8 && writer.queue().tesselWriter.corralStart() == 0;
   });
   settle(quiesced);
   EXPECT_LT(residentFiles(), bytes / 8);
   EXPECT_LT(shared->resident, bytes / 8);
   shared->stop = true;
   EXPECT_EQ(follower.wait(), 0);
   EXPECT_TRUE(writer.validate());
}

} // namespace
} // namespace Test
