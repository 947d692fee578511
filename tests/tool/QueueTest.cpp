// SPDX-License-Identifier: Apache-2.0
// The tool on tables whose change queue is damaged: rows can be read, but the next writer would not take the
// table over, and nobody can follow it.
#include "StatusWriter.h"

#include <atomic>
#include <filesystem>
#include <thread>

namespace ToolTest {
namespace {

namespace fs = std::filesystem;

class Queue : public Root {
protected:
   static constexpr u32 rows = 50;

   Queue() { makeTable(); }
   void makeTable() const {
      fs::remove_all(root + "/flowtracking");
      StatusWriter writer(statusName);
      writer.put(0, rows - 1, HoFlowState::pending);
      writer.kill();
   }
   std::string at(char const* name) const { return file(statusName, name); }
   template <class T> void header(std::size_t offset, T value) const { poke(at("tessel"), offset, value); }
   std::string current() const {
      return at(peek<Tessel::QueueHeader>(at("tessel"), 0).generation & 1 ? "tessel.1" : "tessel.0");
   }
};

#define AT(field) offsetof(Tessel::QueueHeader, field)

TEST_F(Queue, CheckNamesWhatTheNextWriterRefuses) {
   struct Damage {
      char const *file, *says;
      std::function<void()> store;
   };
   Damage const all[] = {
       {"tessel", "bad queue magic", [&] { header(AT(magic), std::uint16_t{0}); }},
       {"tessel", "bad queue kestor", [&] { header(AT(kestor), u32{1}); }},
       {"tessel", "bad queue hash", [&] { header(AT(hash), u32{1}); }},
       {"tessel", "bad queue floor", [&] { header(AT(floor), ~u64{0}); }},
       {"tessel", "unfinished compaction", [&] { header(AT(corralStart), u64{1}); }},
       {"tessel", "is missing", [&] { fs::remove(at("tessel")); }},
       {"tessel.0", "is missing", [&] { fs::remove(at("tessel.0")); }},
       {"tessel.1", "wanted", [&] { fs::resize_file(at("tessel.1"), 0); }},
       {"tessel.slots", "wanted", [&] { fs::resize_file(at("tessel.slots"), 4); }},
       {"tessel", "bad queue count", [&] { poke(current(), offsetof(Tessel::QueueTable, count), ~u32{0}); }},
   };
   for (Damage const& damage : all) {
      SCOPED_TRACE(damage.says);
      makeTable();
      auto const sound = run({"check", statusName});
      ASSERT_EQ(sound.status, 0) << sound.out << sound.err;
      damage.store();
      auto const check = run({"check", statusName});
      EXPECT_EQ(check.status, 4) << check.out << check.err;
      EXPECT_NE(check.out.find(at(damage.file) + ": "), std::string::npos) << check.out;
      EXPECT_NE(check.out.find(damage.says), std::string::npos) << check.out;
      EXPECT_NE(check.out.find("the next writer formats the table anew"), std::string::npos) << check.out;
      EXPECT_EQ(run({"count", statusName}).out, "50\n"); // no matter to readers
      StatusWriter const next(statusName);
      EXPECT_EQ(run({"count", statusName}).out, "0\n") << "the writer took it over";
   }
}

// Turns, growth and compactions of the queue under the check.
TEST_F(Queue, CheckIsQuietBesideAWriterAtWork) {
   StatusWriter writer(statusName);
   std::atomic<bool> stop{false};
   std::thread busy([&] {
      for (u32 round = 0; !stop; ++round) {
         writer.put(0, 3000, round % 2 ? HoFlowState::offloaded : HoFlowState::pending);
         writer.remove(100, 3000);
      }
   });
   auto const generation = [&] { return peek<Tessel::QueueHeader>(at("tessel"), 0).generation; };
   u32 const before = generation();
   for (int i = 0; i < 30; ++i) {
      auto const check = run({"check", statusName});
      EXPECT_EQ(check.status, 0) << check.out << check.err;
   }
   EXPECT_NE(generation(), before) << "the queue never turned: the test shows nothing";
   stop = true;
   busy.join();
}

TEST_F(Queue, LoadLosesNoRowsInSilence) {
   auto const dump = run({"dump", statusName, "--strep", "-n", "1"}).out;
   std::string const rowFile = root + "/rows";
   write(rowFile, {dump.begin(), dump.end()});
   header(AT(magic), std::uint16_t{0});
   std::string const before = snapshot();
   auto const kept = run({"load", "--keep", statusName, rowFile});
   EXPECT_EQ(kept.status, 4) << kept.err;
   EXPECT_NE(kept.err.find(at("tessel") + ": bad queue magic"), std::string::npos) << kept.err;
   EXPECT_EQ(snapshot(), before);
   auto const loaded = run({"load", statusName, rowFile});
   EXPECT_EQ(loaded.status, 0) << loaded.err;
   EXPECT_NE(loaded.err.find("can't be taken over; emptied"), std::string::npos) << loaded.err;
   auto const sound = run({"load", "--keep", statusName, rowFile});
   EXPECT_EQ(sound.status, 0);
   EXPECT_EQ(sound.err, "");
}

TEST_F(Queue, WatchSaysWhyItCantFollow) {
   header(AT(magic), std::uint16_t{0});
   auto const watch = run({"watch", statusName, "-t", "0.3"});
   EXPECT_EQ(watch.status, 4) << watch.err;
   std::string const why = "can't be followed: " + at("tessel") + ": bad queue magic";
   EXPECT_EQ(watch.err.find(why), watch.err.rfind(why)) << "said again: " << watch.err;
   EXPECT_NE(watch.err.find(why), std::string::npos) << watch.err;
   makeTable();
   EXPECT_EQ(run({"watch", statusName, "-t", "0.3"}).status, 1);
}

} // namespace
} // namespace ToolTest
