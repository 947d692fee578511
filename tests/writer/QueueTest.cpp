// SPDX-License-Identifier: Apache-2.0
// A writer with a change queue: what of the queue lives through a restart, what the audit says of a queue
// that doesn't fit its table, and that a table gives memory back again and again, whoever follows it.
#include "Fixture.h"

#include "Poke.h"
#include "Processes.h"
#include "Scenarios.h"

#include "Lomi/TaskSchedulerRoot.h"
#include "Rusk/ReaderRuskSm.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

namespace Test {
namespace {

using R = QueuedSmall;
using Writer = WriterOf<R>;
using Tessel::QueueHeader;
using Tessel::QueueTable;

/// A table at rest, of six slots. Slot 0 and 2 hold rows; slot 1's was removed.
///   position  0       1          2       3
///   sequence  1       2          3       4
///   names     slot 0  tombstone  slot 2  slot 1
class AtRest : public testing::Test {
protected:
   void SetUp() override {
      std::filesystem::remove_all(directory());
      auto writer = open<R>("rest", fixedOf(6), quiet());
      for (u32 i = 0; i < 3; ++i) writer->write(R::make(key(i, i), 1), true);
      R removed;
      writer->remove(key(1, 1), removed);
      kestor_ = writer->kestorId();
      ASSERT_EQ(writer->sequence(), 4u);
   }
   static std::string directory() { return testRoot() + "/rest"; }
   template <class Word> static void poke(std::string const& file, std::size_t at, Word word) {
      ::Test::poke("rest/" + file, at, word);
   }
   /// The current table: the first one is of generation 1.
   static void entryIs(u32 pos, u32 slot) {
      poke("tessel.1", sizeof(QueueTable) + pos * sizeof(Tessel::QueueEntry) + 4, slot);
   }
   static void positionIs(u32 slot, u32 pos) { poke("tessel.slots", slot * 4, pos); }
   void startSays(std::string const& words) {
      Traces const traces;
      auto const writer = open<R>("rest", fixedOf(6));
      EXPECT_TRUE(traces.has(0, "validation failed: " + words)) << words << "\n" << traces.text();
      EXPECT_NE(writer->kestorId(), kestor_);
      EXPECT_EQ(writer->members(), 0u);
      EXPECT_TRUE(writer->validate());
   }
   Parcel::KestorId kestor_;
};

TEST_F(AtRest, IsAdoptedAndGoesOn) {
   auto const writer = open<R>("rest", fixedOf(6), quiet());
   EXPECT_EQ(writer->kestorId(), kestor_);
   EXPECT_EQ(writer->sequence(), 4u);
   auto const& queue = writer->queue().tesselWriter;
   EXPECT_EQ(queue.count(), 4u);
   EXPECT_EQ(queue.notification(1).slot, Tessel::tombstoneSlot);
   EXPECT_EQ(queue.notification(3).slot, 1u);
   writer->write(R::make(key(0, 0), 2), true);
   writer->write(R::make(key(0, 0), 2), true); // an equal row is a change, too
   writer->write(R::make(key(0, 0), 3), false);
   EXPECT_EQ(writer->sequence(), 6u);
   EXPECT_EQ(queue.tesselSlot(0), 5u);
   EXPECT_EQ(writer->writerCounters().queueBytesMapped, queue.mappedSize());
   EXPECT_EQ(writer->clientQuiesced(""), 0u);
   EXPECT_EQ(writer->clientQuiesced("nobody"), 0u);
   EXPECT_TRUE(writer->validateFiles());
}

TEST_F(AtRest, EachMisfitHasItsWords) {
   constexpr auto start = offsetof(QueueHeader, corralStart), end = offsetof(QueueHeader, corralEnd);
   std::pair<char const*, std::function<void()>> const misfits[] = {
       {"slot:0 bad tessel index:9 size:4", [] { positionIs(0, 9); }},
       {"slot:0 bad notification:2 slot:2", [] { positionIs(0, 2); }},
       {"slot index:1 has out of range tessel slot: 9", [] { positionIs(1, 9); }},
       {"slot index:1 has slot:2 with wrong tessel slot:2", [] { positionIs(1, 2); }},
       {"corral pos:0 seq:1 slot:0 tesselPos:0",
        [] { poke("tessel", start, u64{1}), poke("tessel", end, u64{2}); }},
       {"unfinished compaction corralStart:5", [] { poke("tessel", start, u64{5}); }},
       {"occupied slot:0 on deleted notification:1", [] { entryIs(1, 0); }}, // a second entry
       {"occupied slot:2 on deleted notification:2", [] { positionIs(2, Tessel::noPosition); }},
       {"tessel pos:1 has slot:1 seq:2 with wrong tesselSlot:3", [] { entryIs(1, 1); }},
       {"tessel pos:1 has slot:50 seq:2 with wrong tesselSlot:4294967295", // a slot that never was
        [] {
           poke("slots", offsetof(Mirak::SlotTableHeader, mostSlots), u32{60}); // or the queue would say so
           entryIs(1, 50);
        }},
       {"slot:6 beyond the table has bad tessel index:0 size:4", // as if cut off by a compaction
        [] { poke("tessel", offsetof(QueueHeader, slotsLength), u32{7}), positionIs(6, 0); }},
   };
   for (auto const& [words, spoil] : misfits) {
      SetUp();
      spoil();
      startSays(words);
   }
}
TEST_F(AtRest, CountBeyondTheTable) {
   poke("tessel.1", offsetof(QueueTable, count), u32{1000});
   Traces const traces;
   auto const writer = open<R>("rest", fixedOf(6));
   EXPECT_TRUE(traces.has(0, "bad queue count:1000")) << traces.text();
   EXPECT_EQ(writer->members(), 0u);
}
TEST_F(AtRest, OccupiedSlotsMayHaveNoEntry) {
   entryIs(0, Tessel::tombstoneSlot);
   positionIs(0, Tessel::noPosition);
   auto const writer = open<R>("rest", fixedOf(6), quiet());
   EXPECT_EQ(writer->kestorId(), kestor_);
   EXPECT_EQ(writer->members(), 2u);
}
TEST_F(AtRest, AFileOfTheQueueIsGone) {
   for (char const* file : {"tessel", "tessel.0", "tessel.1", "tessel.slots"}) {
      SetUp();
      std::filesystem::remove(directory() + "/" + file);
      auto const writer = open<R>("rest", fixedOf(6), quiet());
      EXPECT_NE(writer->kestorId(), kestor_) << file;
      EXPECT_EQ(writer->members(), 0u);
      EXPECT_TRUE(writer->validate());
   }
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
/// Connected, and never asleep.
class Awake final : public Rusk::Follower {
public:
   explicit Awake(Writer const& writer)
      : writer_(writer)
      , rusk_(quiet(), writer.rootPath(), *this, "awake") {
      rusk_.maybeConnect(); // and never told to walk
   }
   Rusk::Walked walk() override { return Rusk::Walked::stopped; }
   bool behind() const override { return true; }
   Rusk::Sequence last() const override { return 0; }
   Parcel::KestorId kestorId() const override { return writer_.kestorId(); }
   void handleDisconnect() override {}
   bool connected() const { return rusk_.connected(); }

private:
   Writer const& writer_;
   Rusk::ReaderRuskSm rusk_;
};

// In a process that may only exit: what a table's change costs with a follower that is awake.
TEST(Queue, ChangesCallNothing) {
   testRoot();
   Child child([] {
      auto const writer = open<R>("silent", fixedOf(2000), quiet());
      Awake const follower(*writer);
      for (int i = 0; i < 1000 && !follower.connected(); ++i) Lomi::TaskSchedulerRoot::root().run(0.01);
      if (!follower.connected()) return 2;
      R removed;
      auto const change = [&](u32 changes) {
         for (u32 n = 0; n < changes; ++n) {
            u32 const i = n * 7919 % 1900;
            writer->write(R::make(key(i, i), n), true);
            writer->write(R::make(key(i, i), n + 1), true);
            if (n % 3 == 0) writer->remove(key(i, i), removed);
            if (n % 7 == 0)
               *writer->directWrite(R{key(i, i)}) = R::make(key(i, i), n), writer->directCommit();
         }
      };
      change(20'000); // the tables are as large as they get
      u64 const turns = writer->writerCounters().queueTurns;
      sock_filter rules[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                             BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 0, 1),
                             BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
                             BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS)};
      sock_fprog const program{std::size(rules), rules};
      if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
          ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
         return 77;
      change(200'000);
      ::_exit(writer->writerCounters().queueTurns > turns + 20 ? 0 : 1);
   });
   int const status = child.wait();
   if (status == 77) GTEST_SKIP() << "no seccomp here";
   EXPECT_EQ(status, 0);
}

// Private memory runs out where the index of a local table would double. The row is refused, not left behind.
TEST(Queue, NoMemoryForMoreBuckets) {
   auto const child = [](bool heap) {
      Mirak::MapDescriptor local(1u << 20);
      local.local = true;
      local.heap = heap;
      auto const writer = open<R>("short", local, quiet());
      constexpr u32 rows = 1u << 15, early = 25000; // before anything is prepared
      for (u32 i = 0; i < early; ++i) writer->write(R::make(key(i, i), 1), true);
      std::ifstream statm("/proc/self/statm");
      u64 pages = 0;
      statm >> pages;
      rlimit const limit{pages * 4096 + (1u << 17), RLIM_INFINITY};
      ::setrlimit(RLIMIT_AS, &limit);
      for (u32 i = early; i < rows; ++i) writer->write(R::make(key(i, i), 1), true);
      std::string refused;
      try {
         writer->write(R::make(key(rows, rows), 1), true);
      } catch (Lomi::MemoryResourceException const& e) {
         refused = e.what();
      }
      bool found;
      writer->lookup(key(rows, rows), found, nullptr);
      bool const good = refused.find("buckets from 32768 to 65536 buckets") != refused.npos && !found &&
                        writer->members() == rows;
      fmt::print(stderr, "{} found:{} members:{}\n", refused, found, writer->members());
      ::_exit(good ? 0 : 1);
   };
   for (bool heap : {false, true})
      EXPECT_EXIT(child(heap), testing::ExitedWithCode(0), "") << "heap " << heap;
}
#endif

} // namespace
} // namespace Test
