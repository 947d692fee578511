// SPDX-License-Identifier: Apache-2.0
// hoflow top: its figures once, as JSON, against tables whose figures are known; and its screen.
#include "StatusWriter.h"

#include <csignal>
#include <map>

namespace ToolTest {
namespace {

using namespace FlowTracking;

class Top : public Root {
protected:
   /// By the last component of the tables' names.
   std::map<std::string, json> look() const {
      std::map<std::string, json> tables;
      for (json const& object : run({"top", "-j", "-i", "0.05"}).objects()) {
         std::string const name = object["table"];
         tables[name.substr(name.rfind('/') + 1)] = object;
      }
      return tables;
   }
};

TEST_F(Top, FiguresOfEachKindOfTable) {
   StatusWriter status(statusName);
   status.put(1, 10, HoFlowState::offloaded);
   status.put(1, 5, HoFlowState::rejected);
   Writer<HosStateCounterEntry> states("t/hosStateIpCounter");
   HosStateCounterEntry entry{HosStateCounterKey(HoFlowState::offloaded)};
   entry.hoFlowsIs(5);
   states.put(entry);
   Running watch = start({"watch", statusName});
   EXPECT_EQ(watch.line().substr(0, 20), "synchronised 10 rows");

   std::map<std::string, json> tables;
   for (int attempt = 0; attempt < 600; ++attempt) { // until the follower has been let in
      tables = look();
      if (tables["hoIpFlowStatus"]["queue"]["followers"] == 1) break;
   }
   json const table = tables["hoIpFlowStatus"];
   json whole = table;
   whole.update(json::parse(R"({"rows":10,"writerAlive":true,"rowsPerSecond":0,"changesPerSecond":0})"));
   whole["queue"].update(json::parse(R"({"sequence":15,"held":15,"followers":1,"resyncs":0})"));
   EXPECT_EQ(whole, table);
   EXPECT_EQ(tables["hosStateIpCounter"]["states"], json({{"offloaded", 5}}));
   EXPECT_FALSE(tables["hosStateIpCounter"].contains("queue"));

   EXPECT_EQ(watch.end(SIGINT), 0);
   json followers = 1;
   for (int attempt = 0; attempt < 600 && followers != 0; ++attempt)
      followers = look()["hoIpFlowStatus"]["queue"]["followers"];
   EXPECT_EQ(followers, 0);
   status.kill();
   EXPECT_EQ(look()["hoIpFlowStatus"]["writerAlive"], false);
   auto const text = run({"top", "-1", "-i", "0.05"});
   EXPECT_NE(text.out.find("offloaded=5"), std::string::npos) << text.out;
   refuses({"top", "nosuch", "-1", "-i", "0.05"}, 1);
   refuses({"top"}, 2); // no terminal
}

TEST_F(Top, TheScreenTakesKeysAndGoes) {
   Writer<HoIpFlowCounter> writer(counterName);
   writer.put(counter4(1));
   Running top = start({"top"}, {.terminal = true});
   top.says("by name");
   top.says("hoIpFlowCounter"); // the last of the first picture
   top.type('s');
   top.says("rows"); // only what changed is drawn
   top.type('q');
   EXPECT_EQ(top.end(), 0);
}

} // namespace
} // namespace ToolTest
