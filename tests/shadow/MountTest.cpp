// SPDX-License-Identifier: Apache-2.0
// A mounted shadow's states, and what its client hears in which order: the first sweep, the writer's end and
// return, a re-format, a flush, a client that lets go in any of its callbacks.
#include "Support.h"

#include <limits>
#include <optional>

namespace Test {
namespace {

using testing::ElementsAre;

class ShadowMount : public testing::TestWithParam<bool> {
protected:
   ShadowMount() {
      std::filesystem::remove_all(testRoot() + "/shadowed");
      writer = newWriter("shadowed");
      client = std::make_unique<Client>("shadowed");
   }
   ~ShadowMount() override {
      client->inCall = {};
      client->controlDetach();
      settle();
   }
   void put(u32 number, u32 generation) { writer->write(R::make(keyOf(number), generation), true); }
   void fill(u32 rows) {
      for (u32 number = 0; number < rows; ++number) put(number, 1);
   }
   MapDescriptor wanted(bool tellFlush = true, bool synchronous = true) const {
      return shadowSettings(GetParam(), tellFlush, synchronous);
   }
   bool quiet() const {
      return client->mountStatus() == Mem::MountStatus::synchronised && client->quiesced() &&
             client->connected();
   }
   /// Everything that was written has come.
   void expectTable() {
      ASSERT_TRUE(runUntil([&] { return quiet() && difference(client->heard, contentOf(*writer)).empty(); }))
          << difference(client->heard, contentOf(*writer));
      EXPECT_EQ(difference(contentOf(client->back()), contentOf(*writer)), "");
      EXPECT_EQ(client->complaint, "");
   }
   void mount(MapDescriptor const& descriptor) {
      client->init(descriptor);
      ASSERT_TRUE(runUntil([&] { return quiet(); }));
   }
   /// The other callbacks, without those that say once more what the one before has said.
   Log heardOnce() {
      Log log = client->takeLog();
      log.erase(std::unique(log.begin(), log.end()), log.end());
      return log;
   }
   /// As after a crash in the middle of a change: the next writer formats the table anew.
   void killWriter(bool damaged) {
      writer.reset();
      if (damaged) interrupt("shadowed");
   }

   Silence const silence;
   std::unique_ptr<Writer> writer;
   std::unique_ptr<Client> client;
};

TEST_P(ShadowMount, FillsItsCopyAndFollows) {
   fill(500);
   client->yieldTimeIs(GetParam() ? 0 : std::numeric_limits<double>::quiet_NaN()); // a slot a step
   client->init(wanted());
   EXPECT_EQ(client->mountStatus(), Mem::MountStatus::mounted);
   EXPECT_THAT(client->takeLog(), ElementsAre("status 1"));
   EXPECT_EQ(client->calls(), 0u) << "the sweep begins in the loop";
   loop().run(0);
   put(1000, 1); // between two steps
   ASSERT_TRUE(runUntil([&] { return client->changes >= 300; }));
   EXPECT_LT(client->changes, 400u) << "the loop's other work comes between the steps";
   ASSERT_TRUE(runUntil([&] { return quiet(); }));
   EXPECT_THAT(heardOnce(), ElementsAre("status 1", "status 2", "not quiesced", "quiesced"));
   expectTable();
   EXPECT_EQ(client->readerCounters().members, 501u);
   EXPECT_EQ(client->readerCounters().nextSlowPath, 0u) << "a walk goes by its hints";
   client->notifyingIs(false);
   for (u32 n = 0; n < 4000; ++n) put(n, 2);
   client->notifyingIs(true);
   u64 most = 0, before = client->changes, last = before + 4000;
   Lomi::Task other;
   std::function<void()> const look = [&] {
      most = std::max(most, client->changes - std::exchange(before, client->changes));
      other = loop().deferredTask(look);
   };
   look();
   EXPECT_TRUE(runUntil([&] { return client->changes >= last; }));
   other.cancel();
   EXPECT_LT(most, 4000u) << "nor does a walk of the queue keep the loop from its other work";
   expectTable();
   client->takeLog();
   for (u32 n = 0; n < 50'000; ++n) {
      put(n % 700, 3 + n);
      if (n % 100 == 0) loop().run(0);
   }
   expectTable();
   Log const log = client->takeLog();
   EXPECT_LT(log.size(), 200u);
   EXPECT_TRUE(log.empty() || log.back() == "quiesced");
   EXPECT_EQ(client->readerCounters().resyncs, 0u);
}

TEST_P(ShadowMount, AnAsynchronousOneTellsNoRowBeforeItIsComplete) {
   fill(300);
   std::vector<u64> callsAt;
   client->inCall = [&](std::string const& what) {
      if (what == "status 2") callsAt.push_back(client->calls());
   };
   mount(wanted(true, false));
   EXPECT_THAT(callsAt, testing::AllOf(testing::Not(testing::IsEmpty()), testing::Each(0u)));
   EXPECT_EQ(client->calls(), 0u);
   EXPECT_EQ(difference(contentOf(client->back()), contentOf(*writer)), "");
   put(5, 7);
   ASSERT_TRUE(runUntil([&] { return client->changes == 1; }));
   // Let go before the copy is complete, and mounted again: the callbacks are not lost.
   client->controlDetach();
   client->heard.clear();
   client->init(wanted(true, false));
   client->controlDetach();
   client->heard.clear();
   mount(wanted(true, false));
   u64 const before = client->calls();
   put(6, 8);
   ASSERT_TRUE(runUntil([&] { return client->calls() == before + 1; }));
}

TEST_P(ShadowMount, TheWritersReturnTellsNothingOfRowsThatStayed) {
   fill(200);
   mount(wanted());
   u64 const calls = client->calls();
   auto const kestor = client->kestorId();
   for (u32 restart = 1; restart <= 20; ++restart) {
      client->takeLog();
      killWriter(false);
      ASSERT_TRUE(runUntil([&] { return !client->connected(); }));
      EXPECT_EQ(client->mountStatus(), Mem::MountStatus::synchronised) << "the copy is kept";
      EXPECT_THAT(client->takeLog(),
                  testing::AllOf(testing::Not(testing::IsEmpty()), testing::Each("status 2")))
          << "the loss is told";
      EXPECT_EQ(contentOf(client->back()).size(), GetParam() ? 200u : 200u);
      writer = newWriter("shadowed");
      if (restart % 4 == 0) put(restart, 100 + restart);
      ASSERT_TRUE(runUntil([&] { return quiet(); }));
      Log const log = client->takeLog();
      EXPECT_THAT(log, testing::Contains("status 2")) << "the return is told, too";
      EXPECT_THAT(log, testing::Not(testing::Contains("status 0")));
   }
   expectTable();
   EXPECT_EQ(client->kestorId(), kestor);
   EXPECT_EQ(client->calls(), calls + 5);
   EXPECT_EQ(client->readerCounters().resyncs, 0u);
}

TEST_P(ShadowMount, AReformatIsToldAsRemovalsBeforeTheFirstNewRow) {
   fill(100);
   mount(wanted());
   for (u32 round = 2; round < 12; ++round) {
      bool newSeen = false, removedLate = false;
      client->inCall = [&](std::string const& what) {
         newSeen |= what.starts_with("row");
         removedLate |= newSeen && what.starts_with("removed");
      };
      auto const before = client->kestorId();
      u64 const removals = client->removals;
      killWriter(true);
      writer = newWriter("shadowed");
      for (u32 number = 50; number < 150; ++number) put(number, round);
      ASSERT_TRUE(runUntil([&] { return client->kestorId() != before && quiet(); }));
      expectTable();
      EXPECT_EQ(client->removals - removals, 100u);
      EXPECT_FALSE(removedLate);
      client->inCall = {};
   }
   // Without the option the mount status alone says it.
   client->controlDetach();
   mount(wanted(false));
   u64 const removals = client->removals;
   killWriter(true);
   writer = newWriter("shadowed");
   put(1, 50);
   ASSERT_TRUE(runUntil([&] { return quiet() && client->heard[keyOf(1)] == 50; }));
   EXPECT_EQ(client->removals, removals);
   EXPECT_EQ(difference(contentOf(client->back()), contentOf(*writer)), "");
}

TEST_P(ShadowMount, AFlushGoesInStepsAndCanBeForced) {
   fill(300);
   mount(wanted());
   client->yieldTimeIs(0);
   client->takeLog();
   client->detach(false);
   EXPECT_EQ(client->mountStatus(), Mem::MountStatus::flushing);
   EXPECT_FALSE(client->back().initialized());
   EXPECT_EQ(client->removals, 0u);
   ASSERT_TRUE(runUntil([&] { return client->removals > 100; }));
   EXPECT_LT(client->removals, 200u);
   bool found = true;
   R row;
   client->safeLookup(keyOf(299), found, &row);
   EXPECT_EQ(found, !GetParam()) << "a keyshadow has let the table go";
   put(7, 2); // not heard of any more
   u64 const changes = client->changes;
   client->controlDetach();
   EXPECT_EQ(client->removals, 300u);
   EXPECT_EQ(client->mountStatus(), Mem::MountStatus::notMounted);
   settle();
   EXPECT_EQ(client->changes, changes);
   EXPECT_TRUE(client->heard.empty());
   EXPECT_THAT(heardOnce(), ElementsAre("not quiesced", "status 3", "status 0", "not quiesced", "status 0"));

   // Left to itself, it ends, and the sentry attaches the table again.
   mount(wanted());
   client->takeLog();
   client->detach(false);
   ASSERT_TRUE(runUntil([&] { return quiet(); }));
   expectTable();
   EXPECT_THAT(heardOnce(), testing::IsSupersetOf({"status 3", "status 0", "status 1", "status 2"}));
   // An attach in the middle of one: all removals come before the first row.
   client->yieldTimeIs(0);
   client->detach(false);
   loop().run(0);
   client->attach(Mirak::MirakMapBase::eventTryAttach_);
   EXPECT_TRUE(client->heard.empty());
   EXPECT_EQ(client->mountStatus(), Mem::MountStatus::mounted);
   expectTable();
   EXPECT_EQ(client->log.back(), "quiesced");
   // In a callback of a change: none of the others that wait is told.
   client->inCall = [&](std::string const& what) {
      if (what.starts_with("row") && client->initialized() && client->back().initialized())
         client->detach(false);
   };
   u64 const before = client->changes;
   for (u32 number = 0; number < 50; ++number) put(number, 9);
   ASSERT_TRUE(runUntil([&] { return client->mountStatus() == Mem::MountStatus::flushing; }));
   EXPECT_EQ(client->changes, before + 1);
   client->inCall = {};
   expectTable();
   // In a callback of the sweep that it replaces: it begins with the first slot, also if the callback throws.
   for (bool const throws : {false, true}) {
      client->controlDetach();
      bool begun = false;
      std::optional<std::size_t> left;
      client->inCall = [&](std::string const& what) {
         if (what == "status 0" && begun) left = client->heard.size();
         if (!what.starts_with("row") || std::exchange(begun, true)) return;
         client->detach(false);
         if (throws) throw std::runtime_error("in the sweep");
      };
      client->init(wanted());
      try {
         runUntil([&] { return begun; });
      } catch (std::runtime_error const&) {
      }
      ASSERT_TRUE(runUntil([&] { return left.has_value(); }));
      EXPECT_EQ(*left, 0u) << throws;
      client->inCall = {};
      expectTable();
   }
   // One that finds no table any more: the sentry waits for the next.
   client->detach(false);
   writer.reset();
   std::filesystem::remove_all(testRoot() + "/shadowed");
   client->attach(Mirak::MirakMapBase::eventTryAttach_);
   EXPECT_TRUE(client->heard.empty());
   EXPECT_EQ(client->mountStatus(), Mem::MountStatus::notMounted);
   writer = newWriter("shadowed");
   fill(20);
   expectTable();
}

TEST_P(ShadowMount, AClientThatThrowsMissesNothing) {
   struct Thrown {};
   fill(50);
   for (std::string const callback : {"row", "status 2", "not quiesced", "quiesced", "removed", "status 3"}) {
      client->init(wanted());
      bool thrown = false;
      client->inCall = [&](std::string const& what) {
         // Each removal; a row's key each time; all else once.
         bool const always = callback == "removed" || what == "row " + keyOf(3).str();
         if (what.starts_with(callback) && (!std::exchange(thrown, true) || always)) throw Thrown();
      };
      auto const turns = [&](auto done) {
         for (double const end = now() + 60; !done() && now() < end;) {
            try {
               loop().run(0.1);
            } catch (Thrown const&) {
            }
         }
         return done();
      };
      ASSERT_TRUE(turns([&] { return quiet(); })) << callback;
      put(1, static_cast<u32>(client->calls()) + 2);
      R removed;
      writer->remove(keyOf(2), removed);
      ASSERT_TRUE(turns([&] { return difference(client->heard, contentOf(*writer)).empty(); })) << callback;
      try {
         client->controlDetach();
      } catch (Thrown const&) {
      }
      EXPECT_TRUE(client->heard.empty());
      EXPECT_TRUE(thrown || callback == "status 3");
      put(2, 1);
   }
}

TEST_P(ShadowMount, ItsClientLetsGoInAnyCallback) {
   fill(50);
   for (std::string const callback : {"status 1", "row", "status 2", "not quiesced", "quiesced", "removed"}) {
      bool letGo = false;
      u64 after = 0;
      client->inCall = [&](std::string const& what) {
         if (letGo && client->initialized() == false && !what.starts_with("removed")) ++after;
         if (letGo || !what.starts_with(callback)) return;
         letGo = true;
         client->controlDetach();
         after = 0;
      };
      client->init(wanted(true));
      auto const gone = [&] { return letGo; };
      if (callback == "removed") {
         ASSERT_TRUE(runUntil([&] { return quiet(); }));
         client->detach(false);
      }
      ASSERT_TRUE(runUntil(gone)) << callback;
      settle();
      put(1, 77);
      settle();
      EXPECT_EQ(after, 0u) << callback;
      EXPECT_EQ(client->mountStatus(), Mem::MountStatus::notMounted) << callback;
      EXPECT_TRUE(client->heard.empty()) << callback;
      client->heard.clear();
      client->inCall = {};
   }
   mount(wanted());
   expectTable();
}

TEST_P(ShadowMount, WaitsWhileItsClientWantsNoNotifications) {
   fill(40);
   client->notifyingIs(false);
   client->init(wanted());
   settle();
   EXPECT_EQ(client->calls(), 0u);
   client->inCall = [&](std::string const& what) {
      if (what.starts_with("row")) client->notifyingIs(false);
   };
   client->notifyingIs(true);
   ASSERT_TRUE(runUntil([&] { return client->calls() != 0; }));
   settle();
   EXPECT_EQ(client->calls(), 1u);
   client->inCall = {};
   client->notifyingIs(true);
   ASSERT_TRUE(runUntil([&] { return quiet(); }));
   client->notifyingIs(false);
   u64 const calls = client->calls();
   for (u32 n = 0; n < 1000; ++n) put(n % 90, n + 2);
   settle();
   EXPECT_EQ(client->calls(), calls);
   client->notifyingIs(true);
   expectTable();
   // In a callback: that was the last one.
   client->inCall = [&](std::string const&) { client->notifyingIs(false); };
   u64 const before = client->calls();
   for (u32 n = 0; n < 90; ++n) put(n, 5000 + n);
   ASSERT_TRUE(runUntil([&] { return client->calls() != before; }));
   settle();
   EXPECT_EQ(client->calls(), before + 1);
   client->inCall = {};
   client->detach(false); // a flush doesn't wait
   ASSERT_TRUE(runUntil([&] { return client->heard.empty(); }));
   client->notifyingIs(true);
   expectTable();
}

/// It has fallen behind a compaction whose entries are gone.
TEST_P(ShadowMount, ASecondSweepTellsWhatChanged) {
   fill(300);
   mount(wanted());
   client->notifyingIs(false);
   R removed;
   for (u32 tide = 0; tide < 3; ++tide) {
      for (u32 number = 20; number < 300; ++number) put(number, 2 + tide);
      for (u32 number = 20; number < 300; ++number) writer->remove(keyOf(number), removed);
   }
   put(3, 9);
   u64 const changes = client->changes, removals = client->removals;
   client->notifyingIs(true);
   expectTable();
   EXPECT_EQ(client->readerCounters().resyncs, 1u);
   EXPECT_EQ(client->changes - changes, GetParam() ? 20u : 1u) << "a keyshadow can't tell what is the same";
   EXPECT_EQ(client->removals - removals, 280u);
}

/// Met by a read, by the walk of the queue, by a sweep.
TEST_P(ShadowMount, DamageTakesTheTableAwayAndLeavesAMarker) {
   std::string const table = testRoot() + "/shadowed";
   for (std::string const where : {"read", "walk", "sweep"}) {
      fill(40);
      client->init(wanted());
      ASSERT_TRUE(runUntil([&] { return where == "sweep" || quiet(); }));
      if (where == "walk") {
         client->notifyingIs(false);
         put(1, 2);
         poke("shadowed/tessel", offsetof(Tessel::QueueHeader, next), u64{1});
         client->notifyingIs(true);
      } else {
         // A version that has moved on, and an impossible count.
         poke("shadowed/slots", offsetof(Mirak::SlotTableHeader, numSlots), u64{0x7fffffff40000001});
      }
      if (where == "read") {
         bool found = true;
         try {
            client->back().directLookup(keyOf(1), found, nullptr);
            ADD_FAILURE() << "the damage isn't met";
         } catch (Lomi::CorruptionDetectedException const& e) {
            client->doCorruptionDetected(e.msg());
         }
      }
      ASSERT_TRUE(runUntil([&] { return client->mountStatus() == Mem::MountStatus::notMounted; })) << where;
      EXPECT_TRUE(std::filesystem::exists(table + "/corruption-detected")) << where;
      EXPECT_TRUE(client->heard.empty()) << "each row that went away was told";
      client->controlDetach();
      writer.reset();
      std::filesystem::remove_all(table);
      writer = newWriter("shadowed");
   }
}

/// It may meet a row at its old place, at its new one, or at both.
TEST_P(ShadowMount, SweepsBetweenAnyTwoStoresOfACompaction) {
   struct Amid final : Mem::Seam::Observer {
      std::function<bool()> begun;
      std::function<void()> act;
      u32 left = 0; // stores before `act`
      void beforeStore(void*, void const*, std::size_t) override {
         if (!begun() || left-- != 0) return;
         Mem::Seam::observer = nullptr;
         act();
      }
   } amid;
   bool swept = true;
   amid.begun = [&] { return writer->queue().tesselWriter.corralStart() != 0; };
   amid.act = [&] {
      client->init(wanted());
      swept = runUntil([&] { return client->mountStatus() == Mem::MountStatus::synchronised; });
   };
   u32 store = 0;
   for (; swept; ++store) {
      client->controlDetach();
      writer.reset();
      std::filesystem::remove_all(testRoot() + "/shadowed");
      writer = newWriter("shadowed");
      fill(34);
      R removed;
      for (u32 number = 0; number < 18; ++number) writer->remove(keyOf(number), removed);
      ASSERT_EQ(writer->capacity(), 64u);
      swept = false;
      amid.left = store;
      Mem::Seam::observer = &amid;
      writer->remove(keyOf(18), removed);
      Mem::Seam::observer = nullptr;
      ASSERT_EQ(writer->capacity(), 32u);
      if (!swept) break;
      expectTable();
      ASSERT_FALSE(HasFailure()) << store;
   }
   EXPECT_GT(store, 20u);
}

INSTANTIATE_TEST_SUITE_P(Both, ShadowMount, testing::Bool(),
                         [](auto const& variant) { return variant.param ? "keyshadow" : "shadow"; });

} // namespace
} // namespace Test
