// SPDX-License-Identifier: Apache-2.0
// hoflow watch: what it says of rows and of the table as a whole, with writers in processes of their own that
// come, die and go. That nothing else is said shows in the next line being the one that is waited for.
#include "StatusWriter.h"

#include <csignal>
#include <map>

namespace ToolTest {
namespace {

using namespace FlowTracking;

class Watch : public Root {};

std::string stateOf(json const& object, char const* side) {
   return object.contains(side) ? object[side]["hoFlowState"].get<std::string>() : "-";
}

/// "EVENT", with the row's states before and after.
std::string brief(json const& object) {
   std::string const event = object.value("event", "?");
   if (!object.contains("was") && !object.contains("is")) return event;
   return event + " " + stateOf(object, "was") + " " + stateOf(object, "is");
}

TEST_F(Watch, AWriterComesChangesDiesComesBackAndGoes) {
   Running watch = start({"watch", "hoIpFlowStatus", "-j"});
   watch.says("waiting for it", true);
   auto writer = std::make_unique<StatusWriter>(statusName);
   json const first = watch.object();
   EXPECT_EQ(brief(first), "synchronised");
   EXPECT_EQ(first["rows"], 0);
   writer->put(1, HoFlowState::pending);
   json const row = watch.object();
   EXPECT_EQ(brief(row), "new - pending");
   EXPECT_EQ(row["is"], run({"dump", statusName, "-j"}).objects().at(0));
   writer->put(1, HoFlowState::offloaded);
   json const changed = watch.object();
   EXPECT_EQ(brief(changed), "changed pending offloaded");
   EXPECT_EQ(changed["was"], row["is"]);
   writer->put(1, HoFlowState::offloaded); // no change
   writer->put(2, HoFlowState::rejected);
   EXPECT_EQ(brief(watch.object()), "new - rejected");
   writer->remove(1);
   json const removed = watch.object();
   EXPECT_EQ(brief(removed), "removed offloaded -");
   EXPECT_EQ(removed["was"], changed["is"]);

   writer->kill();
   EXPECT_EQ(brief(watch.object()), "disconnected");
   writer = std::make_unique<StatusWriter>(statusName); // adopts
   EXPECT_EQ(brief(watch.object()), "reconnected");
   writer->put(2, HoFlowState::offloaded);
   EXPECT_EQ(brief(watch.object()), "changed rejected offloaded");

   writer->cleanup();
   json next = watch.object();
   if (brief(next) == "disconnected") next = watch.object();
   EXPECT_EQ(brief(next), "detached");
   EXPECT_EQ(brief(watch.object()), "removed offloaded -");
   writer = std::make_unique<StatusWriter>(statusName); // a new table
   EXPECT_EQ(brief(watch.object()), "synchronised");
   writer->put(2, HoFlowState::offloaded);
   EXPECT_EQ(brief(watch.object()), "new - offloaded");
   EXPECT_EQ(watch.end(SIGINT), 0);
}

TEST_F(Watch, FiltersCountsAndEnds) {
   refuses({"watch", "hoIpFlowStatus", "-t", "0.1"}, 3);
   StatusWriter writer(statusName);
   writer.put(1, HoFlowState::offloaded);
   writer.put(2, HoFlowState::pending);
   EXPECT_EQ(run({"watch", "hoIpFlowStatus", "-t", "0.1"}).status, 1);
   refuses({"watch", "hoIpFlowStatus", "nosuch=1"}, 2);
   Running watch = start({"watch", "hoIpFlowStatus", "state=offloaded", "-a", "-n", "3"});
   EXPECT_EQ(watch.line().substr(0, 4), "new "); // not one of the three
   EXPECT_EQ(watch.line().substr(0, 20), "synchronised 2 rows,");
   writer.put(2, HoFlowState::offloaded); // begins to pass
   EXPECT_EQ(watch.line().substr(0, 4), "new ");
   writer.put(1, HoFlowState::rejected); // ceases to
   writer.remove(1);
   std::string const ceased = watch.line();
   EXPECT_EQ(ceased.substr(0, 8), "removed ");
   EXPECT_NE(ceased.find("srcAddr=10.1.0.1 "), std::string::npos) << ceased;
   writer.put(3, HoFlowState::offloaded);
   EXPECT_EQ(watch.line().substr(0, 4), "new ");
   EXPECT_EQ(watch.end(), 0);
}

// Nobody reads for a while, and the table fills and empties meanwhile, so that the queue drops entries that
// the tool hasn't seen: the writer isn't held up, and each row's lines add up to what it has.
TEST_F(Watch, ASlowReaderOfItsOutputMissesNoLastValue) {
   constexpr u32 rows = 2000, last = rows - 1, gone = 7;
   StatusWriter writer(statusName);
   Running watch = start({"watch", statusName, "-j"});
   EXPECT_EQ(brief(watch.object()), "synchronised");
   for (int round = 0; round < 20; ++round)
      writer.put(0, last, round % 2 ? HoFlowState::offloaded : HoFlowState::pending); // 1 MB of lines a round
   for (int round = 0; round < 3; ++round) {
      writer.put(rows, 20000, HoFlowState::pending);
      writer.remove(rows, 20000);
   }
   writer.put(0, last, HoFlowState::rejected);
   writer.remove(gone);
   std::map<std::string, json> told;
   std::size_t lines = 0, done = 0, resyncs = 0;
   while (done != last || told.size() != last) {
      json const object = watch.object();
      if (object.empty()) break;
      ++lines;
      if (object["event"] == "resynchronised") {
         EXPECT_EQ(object["number"], ++resyncs);
         continue;
      }
      if (!object.contains("is") && !object.contains("was")) continue;
      std::string const key = object[object.contains("is") ? "is" : "was"]["key"].dump();
      if (object.contains("was")) {
         EXPECT_EQ(told[key], object["was"]);
         done -= stateOf(object, "was") == "rejected";
         told.erase(key);
      }
      if (object.contains("is")) {
         done += stateOf(object, "is") == "rejected";
         told[key] = object["is"];
      }
   }
   EXPECT_LT(lines, 20 * rows) << "each change was told: nothing held the tool up";
   if (resyncs == 0) {
      EXPECT_EQ(brief(watch.object()), "resynchronised");
   }
   // A signal ends it while it waits for its reader, too, behind a whole line.
   Result const cut =
       run({"watch", statusName, "-j", "-a"}, {.whileBlocked = [](int pid) { kill(pid, SIGTERM); }});
   EXPECT_EQ(cut.status, 0);
   EXPECT_LT(cut.objects().size(), last);
}

TEST_F(Watch, ATableWithoutAQueueIsWalked) {
   auto writer = std::make_unique<Writer<HoIpFlowCounter>>(counterName);
   writer->put(counter4(1));
   Running watch = start({"watch", counterName, "-j", "-i", "0.05"});
   EXPECT_EQ(brief(watch.object()), "synchronised");
   watch.says("no change queue", true);
   auto const next = [&] { return watch.object().value("event", "?"); };
   writer->put(counter4(2));
   EXPECT_EQ(next(), "new");
   HoIpFlowCounter more = counter4(2);
   more.packetsInc(1);
   writer->put(more);
   EXPECT_EQ(next(), "changed");
   writer->remove(key4(2));
   EXPECT_EQ(next(), "removed");
   writer.reset();
   EXPECT_EQ(next(), "disconnected");
   poke(file(counterName, "slots"), offsetof(Mirak::SlotTableHeader, maxSlots), u32{7}); // formats it anew
   writer = std::make_unique<Writer<HoIpFlowCounter>>(counterName);
   // Row 1 is gone, seen as gone in the new table, or with the old one while there was none.
   std::string events;
   for (std::string event; event != "synchronised" && event != "resynchronised" && events.size() < 200;)
      events += (event = next()) + " ";
   EXPECT_NE(events.find("removed "), std::string::npos) << events;
   writer->put(counter4(1));
   json last = watch.object();
   if (last.value("event", "?") == "reconnected") last = watch.object();
   EXPECT_EQ(last.value("event", "?"), "new");
   EXPECT_EQ(watch.end(SIGTERM), 0);
}

} // namespace
} // namespace ToolTest
