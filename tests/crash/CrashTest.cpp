// SPDX-License-Identifier: Apache-2.0
// Each store and each file call of each operation as the last one before a crash. The files of that moment
// go to
//
// 1. a reader, before anybody else: right answers of before or after the operation, or, only where a table
//    was just being opened, formatted or removed, a refusal;
//
// 2. the next writer: it adopts every row as it was before or after, under the generation that the kestor
//    file named, or it formats the table anew under one that was never published; then the table works;
//
// 3. where tables are opened and formatted, also a third writer, after the second one died, too.
//
// The last tests break the order of changes as a careless writer would, and expect complaints.
#include "Dice.h"
#include "Judge.h"
#include "Live.h"
#include "Scenarios.h"

#include <gtest/gtest.h>

namespace Test {
namespace {

/// Ends a reader that takes more loads than any walk of these tables needs.
class LoadLimit : public Mem::Seam::Observer {
public:
   LoadLimit()
      : outer_(Mem::Seam::observer) {
      Mem::Seam::observer = this;
   }
   ~LoadLimit() override { Mem::Seam::observer = outer_; }
   void beforeLoad(void const*, std::size_t) override {
      if (++loads > 200000) throw Endless("the reader doesn't end");
   }
   std::size_t loads = 0;

private:
   Mem::Seam::Observer* outer_;
};

struct Tally {
   std::string place; ///< where the writers died
   std::vector<std::string> violations;
   std::size_t adopted = 0;
   void expect(bool good, std::string const& what) {
      if (!good) violations.push_back(place + ": " + what);
   }
   void expectNone(std::string const& wrong) { expect(wrong.empty(), wrong); }
};

/// Where to cut twice: around each file call, and at every `step`th store.
std::vector<std::size_t> someCuts(Events const& events, std::size_t step) {
   std::vector<std::size_t> cuts;
   auto const call = [&](std::size_t i) { return i < events.size() && events[i].kind != Event::Kind::store; };
   for (std::size_t i = 0; i <= events.size(); ++i)
      if (i % step == 0 || i == events.size() || call(i) || (i > 0 && call(i - 1))) cuts.push_back(i);
   return cuts;
}

/// A reader on what a dead writer left.
template <class R>
void readerJudges(std::string const& table, Recording<R> const& recording, std::size_t at, bool mayRefuse,
                  Tally& tally) {
   LoadLimit const limit;
   Mirak::MirakReader<OpsOf<R>> reader(quiet(), table, {});
   auto const lowest = recording.lowest(at), highest = recording.highest(at);
   try {
      if (!reader.initialize("test")) return tally.expect(mayRefuse, reader.initializeError());
      Judge<R> const judge(recording.contents, lowest, highest, reader.headerCopy().hashSeed);
      for (Key key : keysOf(recording.contents)) {
         bool found = false;
         R row;
         R const seen = *reader.lookup(key, found, &row);
         tally.expectNone(judge.lookup(key, found, seen));
      }
      tally.expectNone(judge.walk(walkAll<R>(reader)));
   } catch (std::exception const& e) {
      tally.expect(false, std::string("an opened table must be readable: ") + e.what());
   }
}

/// What the files of a crash may become.
struct Rule {
   std::vector<Content> adoptable = {}; ///< under the generation `kestor`
   u32 kestor = 0;                      ///< as the kestor file named it
   std::set<u32> published = {};        ///< all that were ever valid
   bool keeps = false;                  ///< nothing else than adoption will do
   Image const* before = nullptr;       ///< of the time that a follower has taken in
};

/// A follower that knows the table as it was before: each slot that differs now has an entry behind its
/// place, or it will be told to look at all of them.
template <class R> std::string unannounced(Image const& before, Mirak::MirakWriter<OpsOf<R>>& writer) {
   auto const word = [&](char const* file, std::size_t at, auto& into) {
      auto const& bytes = before.files.at(file).bytes;
      if (at + sizeof into <= bytes.size()) std::memcpy(&into, bytes.data() + at, sizeof into);
   };
   if (!before.has("tessel") || !before.has("slots")) return {};
   using Table = Mirak::SlotTable<OpsOf<R>>;
   auto const& queue = writer.queue().tesselWriter;
   auto const* header = reinterpret_cast<Tessel::QueueHeader const*>(queue.wrappers()[0]->base());
   u64 next = 0;
   word("tessel", offsetof(Tessel::QueueHeader, next), next);
   if (Mem::loadShared(header->floor) >= next) return {};
   std::set<u32> announced;
   for (u32 pos = 0; pos < queue.count(); ++pos)
      if (auto const entry = queue.notification(pos); queue.baseSequence() + entry.offset >= next)
         announced.insert(entry.slot);
   Mirak::SlotTableHeader old{};
   word("slots", 0, old);
   for (u32 slot = 0; slot < std::max(writer.capacity(), old.numSlots.value); ++slot) {
      typename Table::Slot was{}, is{};
      if (slot < old.numSlots.value) word("slots", Table::headerSize + slot * Table::slotSize, was);
      if (slot < writer.capacity()) Mem::loadShared(&is, &writer.slotTable().slot(slot), sizeof is);
      bool const occupied = is.versionFlags & 1;
      bool const same = occupied == bool(was.versionFlags & 1) &&
                        (!occupied || std::memcmp(is.value, was.value, sizeof(R)) == 0);
      if (!same && !announced.count(slot)) return fmt::format("slot {} changed unannounced", slot);
   }
   return {};
}

/// The next start on the table's directory. @return its changes
template <class R>
Events startJudges(std::string const& table, Mirak::MapDescriptor const& descriptor, Rule const& rule,
                   Tally& tally) {
   Mirak::MirakWriter<OpsOf<R>> writer(quiet(), table.c_str(), descriptor);
   Recorder recorder(tableDirectory(table));
   recorder.watch(filesOf(writer));
   try {
      writer.initialize("test");
   } catch (std::exception const& e) {
      tally.expect(false, e.what());
      return recorder.events;
   }
   recorder.stop();
   u32 const kestor = writer.kestorId().value(), seed = Mem::loadShared(writer.slotTable().header().hashSeed);
   tally.expect(kestor != 0, "no generation");
   if (kestor == rule.kestor) {
      ++tally.adopted;
      std::string wrong = "nothing may be adopted here";
      for (Content const& content : rule.adoptable)
         if ((wrong = judgeAll<R>(writer, content, seed)).empty()) break;
      tally.expectNone(wrong.empty() ? wrong : "adopted: " + wrong);
      if constexpr (R::hasQueue)
         if (rule.before) tally.expectNone(unannounced<R>(*rule.before, writer));
   } else {
      tally.expect(!rule.keeps, "a sound table was formatted anew");
      tally.expectNone(judgeAll<R>(writer, {}, seed));
      tally.expect(!rule.published.count(kestor), "a generation that was valid before");
   }
   tally.expect(writer.validate(), "unsound after a start");
   tally.expect(!std::filesystem::exists(tableDirectory(table) + "/corruption-detected"),
                "still called corrupt");
   // And it works: one more row, or another one where the table is full.
   auto rows = walkAll<R>(writer);
   Key const fresh{3, 50};
   if (rows.size() >= descriptor.size) {
      R removed;
      tally.expect(writer.remove(rows.back().key(), removed), "a row can't be removed");
      rows.pop_back();
   }
   Content content{{fresh, 1000}};
   for (R const& row : rows) content[row.key()] = row.generation();
   writer.write(R::make(fresh, 1000), true);
   Mirak::MirakReader<OpsOf<R>> reader(quiet(), table, {});
   tally.expect(reader.initialize("test"), reader.initializeError());
   tally.expectNone(judgeAll<R>(reader, content, seed));
   return recorder.events;
}

template <class R>
Rule ruleAt(Scenario<R> const& scenario, Recording<R> const& recording, Image const& image, std::size_t at) {
   Rule rule{.kestor = kestorOf(image), .published = {kestorOf(recording.before), kestorOf(image)}};
   rule.keeps =
       scenario.name == "restart, adopt" || scenario.name == "detach" || scenario.name == "scratchpad";
   // Who follows a table learns of another generation, or of files made again, by that alone.
   if (rule.kestor == kestorOf(recording.before) && image.has("slots")) rule.before = &recording.before;
   auto const& contents = recording.contents;
   if (!scenario.restarts) {
      for (std::size_t i = recording.lowest(at); i <= recording.highest(at); ++i)
         rule.adoptable.push_back(contents[i]);
   } else if (!image.has("slots") && !image.has("buckets")) {
      rule.adoptable = {
          Content{}}; // removed; a new table may have the old one's generation, its files are others
   } else {
      // Under the old generation only the old rows; one that the operation itself published has what it left.
      rule.adoptable = {rule.kestor == kestorOf(recording.before) ? contents.front() : contents.back()};
   }
   return rule;
}

using Spoil = std::function<void(Events&)>;

/// The second start died, too, at some of its changes.
template <class R>
void crashAgain(Scenario<R> const& scenario, Rule const& rule, Image const& left, Events recovery,
                Spoil const& spoil, std::size_t step, Tally& tally) {
   spoil(recovery);
   Live live(tableDirectory("recovered"), left, recovery, true);
   for (std::size_t cut : someCuts(recovery, step)) {
      live.applyTo(cut);
      Image const image = live.image();
      image.store(tableDirectory("judged"));
      Rule next = rule;
      if (u32 const kestor = kestorOf(image); kestor != rule.kestor) {
         next.kestor = kestor;
         next.before = nullptr;
         next.published.insert(kestor);
         next.adoptable = {Content{}};
      }
      std::string const place = tally.place;
      tally.place += fmt::format(", the next one at {} of {}", cut, recovery.size());
      startJudges<R>("judged", scenario.descriptor, next, tally);
      tally.place = place;
   }
}

/// Every cut of a scenario; where `twice`, the second start is cut, too.
template <class R>
Tally crashEverywhere(
    Scenario<R> const& scenario, bool twice, Spoil const& spoil = [](Events&) {}) {
   Recording<R> recording = record(scenario, "recorded");
   spoil(recording.events);
   // HOFLOW_CRASH_STEP=1: every pair of crashes, for an hour's run.
   std::size_t const step = setting("HOFLOW_CRASH_STEP", 17 * slow);
   auto const secondCuts = someCuts(recording.events, step);
   Tally tally;
   Live live(tableDirectory("dying"), recording.before, recording.events, true);
   for (std::size_t at = 0; at <= recording.events.size() && tally.violations.empty(); ++at) {
      tally.place = fmt::format("{}: died at {} of {}", scenario.name, at, recording.events.size());
      live.applyTo(at);
      Image const image = live.image();
      image.store(tableDirectory("judged"));
      readerJudges(std::string("judged"), recording, at, scenario.restarts, tally);
      std::filesystem::remove(tableDirectory("judged") + "/corruption-detected");
      Rule const rule = ruleAt(scenario, recording, image, at);
      Events const recovery = startJudges<R>("judged", scenario.descriptor, rule, tally);
      if (twice && std::binary_search(secondCuts.begin(), secondCuts.end(), at))
         crashAgain(scenario, rule, image, recovery, spoil, std::max<std::size_t>(1, step - 2), tally);
   }
   return tally;
}

template <class R> void expectClean(std::vector<Scenario<R>> const& scenarios, bool twice = false) {
   for (auto const& scenario : scenarios) {
      Tally const tally = crashEverywhere(scenario, twice);
      for (auto const& violation : tally.violations) ADD_FAILURE() << violation;
      EXPECT_GT(tally.adopted, 0u) << scenario.name;
   }
}

TEST(Crash, InTablesWithAQueue) {
   SmallTables const small(4); // turns every few changes
   expectClean(chainScenarios<QueuedSmall>());
   expectClean(pairScenarios<QueuedSmall>());
   expectClean(turnScenarios());
   auto wide = compactionScenarios<QueuedWide>();
   wide.push_back(slotScenarios<QueuedWide>().back());
   wide.push_back(compactAndGrowAgain<QueuedWide>());
   wide.push_back(compactBesideAFollower());
   expectClean(wide);
}
TEST(Crash, InStartsAndEndsOfTablesWithAQueue) { expectClean(lifeScenarios<QueuedSmall>()); }

TEST(Crash, InChains) { expectClean(chainScenarios()); }
TEST(Crash, InBucketResizes) { expectClean(bucketScenarios()); }
TEST(Crash, InSlotGrowth) { expectClean(slotScenarios()); }
TEST(Crash, InCompactions) {
   auto scenarios = compactionScenarios();
   scenarios.push_back(compactAndGrowAgain());
   expectClean(scenarios);
}
TEST(Crash, BetweenOperations) { expectClean(pairScenarios()); }
TEST(Crash, InStartsAndEnds) { expectClean(lifeScenarios(), true); }

Scenario<Small> const& lifeScenario(std::string const& name) {
   static auto const all = lifeScenarios();
   return *std::find_if(all.begin(), all.end(), [&](auto const& scenario) { return scenario.name == name; });
}

void findsIt(Scenario<Small> const& scenario, bool twice, Spoil const& spoil) {
   Tally const tally = crashEverywhere(scenario, twice, spoil);
   EXPECT_FALSE(tally.violations.empty()) << scenario.name;
}

using Kind = Event::Kind;

/// Moves what makes and renames the kestor file to `to`.
void moveKestor(Events& events, std::size_t to) {
   Events kestor;
   auto const isKestor = [](Event const& e) {
      return e.kind != Kind::unlink && e.file.starts_with("kestor");
   };
   std::copy_if(events.begin(), events.end(), std::back_inserter(kestor), isKestor);
   std::erase_if(events, isKestor);
   events.insert(events.begin() + static_cast<long>(std::min(to, events.size())), kestor.begin(),
                 kestor.end());
}

TEST(CrashMutation, ReformatThatLeavesTheKestorFile) {
   // One crash leaves files that the next start formats under the old generation; a second one leaves
   // them so, without rows.
   findsIt(lifeScenario("re-format: died inside an operation"), true, [](Events& events) {
      std::erase_if(events, [](Event const& e) { return e.kind == Kind::unlink && e.file == "kestor"; });
   });
}
TEST(CrashMutation, KestorFileBeforeTheTableIsReady) {
   findsIt(lifeScenario("first start"), false,
           [](Events& events) { moveKestor(events, events.size() - 100); });
}
TEST(CrashMutation, KestorFileRewrittenInPlace) {
   findsIt(lifeScenario("restart, adopt"), false, [](Events& events) {
      moveKestor(events, events.size());
      Event write = *std::find_if(events.begin(), events.end(), [](Event const& e) {
         return e.kind == Kind::write && e.file.starts_with("kestor");
      });
      std::erase_if(events, [](Event const& e) { return e.file.starts_with("kestor"); });
      write.file = "kestor";
      events.push_back({.kind = Kind::truncate, .file = "kestor"});
      events.push_back(write);
   });
}
TEST(CrashMutation, SectionLeftBeforeTheLastStores) {
   // The walks find most of it; a value that is half stored they can't find.
   findsIt(chainScenarios()[4], false, [](Events& events) {
      Event const leave = events.back();
      events.pop_back();
      events.erase(events.begin() + 9); // and the word never shows that a store is under way
      events.erase(events.begin() + 5);
      events.insert(events.begin() + 6, leave);
   });
}

/// Of a table with a queue: the commit of a direct update that marks no section.
TEST(CrashMutation, ChangeThatIsNotMarked) {
   auto const all = chainScenarios<QueuedSmall>();
   auto const& update =
       *std::find_if(all.begin(), all.end(), [](auto& s) { return s.name == "direct update"; });
   Tally const tally = crashEverywhere<QueuedSmall>(update, false, [](Events& events) {
      std::erase_if(events, [](Event const& e) {
         return e.file == "slots" && e.offset == offsetof(Mirak::SlotTableHeader, runtimeFlags);
      });
   });
   ASSERT_FALSE(tally.violations.empty());
   EXPECT_NE(tally.violations[0].find("changed unannounced"), std::string::npos) << tally.violations[0];
}

} // namespace
} // namespace Test
