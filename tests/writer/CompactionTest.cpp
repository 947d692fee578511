// SPDX-License-Identifier: Apache-2.0
// A table that gives memory back: sizes, words, memory, what is refused meanwhile, and damage that it meets.
// That readers don't mind is shown by the campaigns on crashes and schedules.
#include "Fixture.h"

#include "Lomi/TaskSchedulerRoot.h"
#include "Mem/Page.h"

namespace Test {
namespace {

using R = Row<10>; // slots of 64 bytes: 32 in the first page
using Writer = WriterOf<R>;

Mirak::MapDescriptor descriptor(bool shrinkSlots = true) {
   Mirak::MapDescriptor d(1024);
   d.shrinkSlots = shrinkSlots;
   return d;
}
Key row(u32 i) { return {i, i}; }

/// Rows `from` to 1023 of a table of 1024 slots, each in the slot of its number.
struct Sparse {
   explicit Sparse(std::string name, u32 from)
      : name_(std::move(name)) {
      std::filesystem::remove_all(testRoot() + "/" + name_);
      auto full = open<R>(name_, descriptor(false), quiet());
      for (u32 i = 0; i < 1024; ++i) full->write(R::make(row(i), i + 1), true);
      R removed;
      for (u32 i = 0; i < from; ++i) full->remove(row(i), removed);
      for (u32 i = from; i < 1024; ++i) content[row(i)] = i + 1;
      for (u32 i = 0; i < 1024; ++i) keys.push_back(row(i));
      EXPECT_EQ(full->capacity(), 1024u);
      full.reset();
      writer = open<R>(name_, descriptor(), handler);
      handler.maskIs(0x7f);
   }
   void removes(u32 i) {
      R removed;
      ASSERT_TRUE(writer->remove(row(i), removed));
      content.erase(row(i));
   }
   std::string difference() { return Test::difference(*writer, content, keys); }

   std::string name_;
   Lomi::Platform::DebugHandler handler{"sparse"};
   std::unique_ptr<Writer> writer;
   Content content;
   std::vector<Key> keys;
};

TEST(Compaction, AtAQuarterOfThePowerOfTwo) {
   Sparse table("quarter", 768);
   Traces const traces;
   table.writer->shrink(); // 256 rows: not yet
   EXPECT_EQ(table.writer->capacity(), 1024u);
   table.removes(1000);
   EXPECT_EQ(table.writer->capacity(), 512u);
   EXPECT_TRUE(traces.has(5, "threshold:512 shrinkThreshold:512"));
   EXPECT_FALSE(traces.has(5, "SUPER"));
   EXPECT_TRUE(traces.has(2, "quarter from 1024 slots to 512"));
   EXPECT_TRUE(traces.has(5, "at threshold:512 done"));
   auto const counters = table.writer->writerCounters();
   EXPECT_EQ(counters.slotShrinks, 1u);
   EXPECT_EQ(counters.slotsMoved, 255u);
   EXPECT_EQ(Mem::loadShared(table.writer->slotTable().header().mostSlots), 1024u);
   EXPECT_EQ(table.difference(), "");

   // The length stays for readers that are late, the memory goes.
   auto& wrapper = table.writer->slotTable().wrapper();
   u64 const length = wrapper.fileSize(), blocks = wrapper.blockBytes();
   wrapper.releaseTailIfDue(true);
   EXPECT_EQ(wrapper.fileSize(), length);
   EXPECT_LT(wrapper.blockBytes(), blocks);
   EXPECT_LE(wrapper.blockBytes(), Mem::roundUpToPage(wrapper.mappedSize()));
}

TEST(Compaction, FarBelowAndDownToNothing) {
   Sparse table("far", 924);
   {
      Traces const traces;
      table.writer->shrink();
      EXPECT_TRUE(traces.has(5, "threshold:256 shrinkThreshold:512 SUPER SHRINK!"));
   }
   EXPECT_EQ(table.writer->capacity(), 256u);
   EXPECT_EQ(table.difference(), "");
   for (u32 i = 924; i < 1024; ++i) table.removes(i);
   EXPECT_EQ(table.writer->capacity(), table.writer->minSize());
   EXPECT_EQ(table.difference(), "");
   // And back: each slot is formatted anew.
   for (u32 i = 0; i < 300; ++i) table.writer->write(R::make(row(i), table.content[row(i)] = 7), true);
   EXPECT_EQ(table.difference(), "");
   table.writer.reset();
   table.writer = open<R>("far", descriptor(), quiet());
   EXPECT_EQ(table.difference(), "");
}

TEST(Compaction, NeverWhereItMayNot) {
   for (bool fixed : {false, true}) {
      std::filesystem::remove_all(testRoot() + "/never");
      auto settings = descriptor(fixed);
      settings.fixedSize = fixed;
      auto writer = open<R>("never", settings, quiet());
      R removed;
      for (u32 i = 0; i < 1024; ++i) writer->write(R::make(row(i), 1), true);
      for (u32 i = 0; i < 1024; ++i) writer->remove(row(i), removed);
      writer->shrink();
      EXPECT_EQ(writer->capacity(), 1024u);
   }
}

// A slot that was cut off and comes back begins to count anew, so its word may be the same as before.
TEST(Compaction, WhatWasHandedOutIsStale) {
   Sparse table("stale", 1000);
   bool found;
   ASSERT_EQ(table.writer->lookup(row(1010), found, nullptr)->generation(), 1011u);
   table.writer->validateVersionAnchor();
   table.writer->shrink();
   EXPECT_THROW(table.writer->validateVersionAnchor(), Mem::VersionMismatchException);
   for (u32 i = 0; i < 1000; ++i) table.writer->write(R::make(row(i), 1), true);
   EXPECT_THROW(table.writer->validateVersionAnchor(), Mem::VersionMismatchException);
}

// So also where the slot lies in the page in which the table ends, and for readers.
TEST(Compaction, WhatAReaderWasHandedIsStale) {
   u32 const slot = 36; // of 32 to 39, which share the page in which a table of 32 slots ends
   auto writer = open<R>("handed", descriptor(), quiet());
   for (u32 i = 0; i < 64; ++i) writer->write(R::make(row(i), 1), true);
   R removed;
   for (u32 i = 0; i < 63; ++i)
      if (i != slot && writer->members() > 16) writer->remove(row(i), removed);
   ASSERT_EQ(writer->capacity(), 64u);
   Mirak::MirakReader<OpsOf<R>> reader(quiet(), "handed", {});
   ASSERT_TRUE(reader.initialize("test"));
   bool found;
   reader.lookup(row(slot), found, nullptr);
   ASSERT_TRUE(found);
   writer->lookup(row(slot), found, nullptr);
   reader.validateVersionAnchor();
   writer->validateVersionAnchor();
   writer->remove(row(slot), removed); // fewer than a quarter of 64: cut to 32
   ASSERT_EQ(writer->capacity(), 32u);
   for (u32 i = 100; writer->members() < 40; ++i) writer->write(R::make(row(i), 1), true);
   ASSERT_EQ(writer->capacity(), 64u);
   EXPECT_THROW(reader.validateVersionAnchor(), Mem::VersionMismatchException);
}

/// Calls `task` at the first move of a compaction, once.
struct AtFirstMove {
   explicit AtFirstMove(std::function<void()> task) {
      Lomi::Platform::traceSinkIs(
          [task, done = false](unsigned, std::string_view, std::string_view, std::string_view text) mutable {
             if (done || text.find("moving fromSlot") == text.npos) return;
             done = true;
             task();
          });
   }
   ~AtFirstMove() { Lomi::Platform::traceSinkIs({}); }
};

TEST(Compaction, CriticalTasksRunMeanwhile) {
   Sparse table("critical", 1000);
   table.handler.maskIs(0x3ff);
   table.writer->criticalTaskCheckIs(true);
   bool ran = false;
   auto const task =
       Lomi::TaskSchedulerRoot::root().deferredTask([&] { ran = true; }, Lomi::TaskPriority::critical);
   AtFirstMove const slowly([] { ::usleep(11000); });
   table.writer->shrink();
   EXPECT_TRUE(ran);
}

/// A forked child has no mapping of its parent's files, so the table is made in it.
template <class Act> void dies(char const* words, Act&& act) {
   EXPECT_DEATH(
       {
          Sparse table("dies", 1000);
          table.handler.maskIs(0x200);
          act(table);
          table.writer->shrink();
       },
       words);
}

TEST(Compaction, NothingElseMayTouchTheTableMeanwhile) {
   static R value = R::make(row(1), 1);
   static Mirak::IterHint hint;
   static bool found;
   std::vector<void (*)(Writer&)> const touches = {
       [](Writer& w) { w.write(value, true); }, [](Writer& w) { w.remove(row(1001), value); },
       [](Writer& w) { w.directWrite(value); }, [](Writer& w) { w.directUpdate(row(1001)); },
       [](Writer& w) { w.directCommit(); },     [](Writer& w) { w.lookup(row(1001), found, nullptr); },
       [](Writer& w) { w.first(value, hint); }, [](Writer& w) { w.shrink(); },
       [](Writer& w) { w.validate(); },         [](Writer& w) { w.detach(false); }};
   for (auto const touch : touches)
      dies("Mirak reentrancy detected: .*dies", [=](Sparse& table) {
         static std::optional<AtFirstMove> now;
         now.emplace([&table, touch] { touch(*table.writer); });
      });
   dies("unbalanced directSlot:1001 .*Make sure the DirectIs/Commit",
        [](Sparse& table) { table.writer->directUpdate(row(1001)); });
}

TEST(Compaction, MeetsDamage) {
   auto const damaged = [](std::function<void(Mirak::SlotTableHeader&, Sparse&)> const& damage) {
      auto table = std::make_unique<Sparse>("damaged", 1000);
      damage(table->writer->slotTable().header(), *table);
      return table;
   };
   auto const message = [](Sparse& table) -> std::string {
      try {
         table.writer->shrink();
      } catch (Lomi::CorruptionDetectedException const& e) {
         return e.what();
      }
      return "nothing";
   };
   auto const head = [](Mirak::SlotTableHeader& header) { return Mem::loadShared(header.freeSlots); };
   EXPECT_EQ(message(*damaged([&](auto& header, Sparse& table) {
                auto const& slot = table.writer->slotTable().slot(head(header));
                Mem::storeShared(header.freeSlots, Mem::loadPair(slot.link).next);
             })),
             "numSlots mismatch, length of freeList: 999, occupiedSlots: 24 do not add up to numSlots: 1024");
   EXPECT_NE(message(*damaged([&](auto& header, Sparse& table) {
                auto& slot = table.writer->slotTable().slot(head(header));
                Mirak::publishLink(slot.link, head(header));
             })).find("numSlots mismatch, length of freeList: 1025"),
             std::string::npos);
   dies("free-list is empty",
        [](Sparse& table) { Mem::storeShared(table.writer->slotTable().header().freeSlots, Mirak::noSlot); });
   dies("fromSlot:999 key not found", [](Sparse& table) {
      // An occupied slot that no chain shows.
      auto& word = table.writer->slotTable().slot(999).versionFlags;
      Mem::storeShared(word, Mem::loadShared(word) | 1);
   });
}

} // namespace
} // namespace Test
