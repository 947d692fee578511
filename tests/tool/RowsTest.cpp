// SPDX-License-Identifier: Apache-2.0
// The tool on sound tables: what each command says of them, in both forms, and how people name tables, keys
// and fields. Every key that dump prints is typed back into get, so printing and parsing can't drift apart.
#include "Support.h"

#include <fmt/ranges.h>

namespace ToolTest {
namespace {

using namespace FlowTracking;

/// One table of each type, two rows in each.
class AllTypes : public Root {
protected:
   AllTypes() {
      make<HoIpFlowCounter>("t/counter/hoIpFlowCounter", counter4(0), counter4(1), false);
      make<HoIp6FlowCounter>("t/counter/hoIp6FlowCounter", counter6(0), counter6(1), false);
      HosStateCounterEntry state{HosStateCounterKey(HoFlowState::offloaded)};
      state.hoFlowsIs(7);
      make<HosStateCounterEntry>("t/counter/hosStateCounter", state,
                                 HosStateCounterEntry{HosStateCounterKey(static_cast<HoFlowState>(200))},
                                 false);
      makeFlows<HoIpFlowConfig, HoIpFlowStatus>("IpFlow", HoIpFlowKey(key4(5), Nimbet::IntfId(7)),
                                                HoIpFlowKey(key4(5), Nimbet::IntfId()));
      makeFlows<HoIp6FlowConfig, HoIp6FlowStatus>("Ip6Flow", HoIp6FlowKey(key6(5), Nimbet::IntfId(7, 2)),
                                                  HoIp6FlowKey(key6(6), Nimbet::IntfId(8)));
   }

   template <class Record> void make(std::string const& name, Record const& a, Record const& b, bool queue) {
      Writer<Record> writer(name);
      writer.put(a);
      writer.put(b);
      names.push_back(name);
      queues.push_back(queue);
   }
   template <class Config, class Status, class Key>
   void makeFlows(std::string const& family, Key const& one, Key const& two) {
      Config config(one);
      config.createTimeIs(1);
      config.srcEthAddrIs(Nimbet::EthAddr({0, 0x1c, 0x73, 0, 0, 0x99}));
      config.dot1qVlanTagIs(Ovie::VlanTag(0x6000 | 42, 0x88a8));
      config.cachedIntfIdIs(Nimbet::IntfId(9));
      make<Config>("t/config/ho" + family + "Config", config, Config(two), true);
      Status status(one);
      status.hoFlowStateIs(HoFlowState::rejected);
      make<Status>("t/status/ho" + family + "Status", status, Status(two), true);
   }
   void SetUp() override {
      for (std::size_t i = 0; i < names.size(); ++i)
         if (queues[i]) claimQueue(names[i]);
   }

   std::vector<std::string> names;
   std::vector<bool> queues;
};

TEST_F(AllTypes, EachRowPrintedCanBeAskedFor) {
   ASSERT_EQ(names.size(), 7u);
   for (std::string const& name : names) {
      SCOPED_TRACE(name);
      auto const rows = run({"dump", name, "-j"}).objects();
      ASSERT_EQ(rows.size(), 2u);
      for (json const& row : rows) {
         EXPECT_EQ(object({"get", name, row["key"].dump()}), row);
         // The columns hold the same fields as words without blanks, and the words are a key, too.
         auto const text = run({"get", name, row.dump()});
         std::vector<std::string> words{"get", name};
         for (std::string const& line : text.lines()) {
            std::istringstream in(line);
            std::string field, word, more;
            EXPECT_TRUE(in >> field >> word && !(in >> more)) << line;
            if (row["key"].contains(field)) words.push_back(field + "=" + word);
         }
         EXPECT_EQ(object(words), row);
      }
      EXPECT_EQ(run({"count", name}).out, "2\n");
      EXPECT_EQ(run({"check", name}).status, 0);
      EXPECT_EQ(object({"stat", name})["rows"], 2);
      auto const show = object({"show", name});
      EXPECT_EQ(show["rows"], 2);
      EXPECT_EQ(show["state"], "ok");
      EXPECT_EQ(show["writerAlive"], false);
   }
}

TEST_F(AllTypes, RowsAsJson) {
   struct {
      char const *table, *test, *row; ///< the fields named here, at least
   } const all[] = {
       {"hoIpFlowCounter", "src=10.1.0.1",
        R"({"key":{"vrfId":0,"vlanId":0,"srcAddr":"10.1.0.1","dstAddr":"10.2.0.1",
         "ipProtocol":"TCP","ipProtocolNumber":6,"srcPort":1000,"dstPort":443,"direction":0},"intfId":null,"packets":2,
         "bytes":1099511627777,"createTime":"2025-01-02T03:04:05.250000Z","updateTime":"2025-01-02T03:04:06.250000Z",
         "hosEntries":0})"},
       {"hoIp6FlowCounter", "packets=2", R"({"key":{"srcAddr":"2001:db8::1"}})"},
       {"hosStateCounter", "hoFlows=7", R"({"key":{"key":"offloaded"},"hoFlows":7})"},
       {"hoIpFlowConfig", "createTime>0",
        R"({"srcEthAddr":"00:1c:73:00:00:99","dot1qVlanTag":{"vlanId":42,"priority":3,
         "dropEligible":false,"protocolId":"0x88a8","depth":0},"dot1qCustomerVlanTag":null,"cachedIntfId":"if9",
         "createTime":"1970-01-01T00:00:01.000000Z"})"},
       {"hoIp6FlowStatus", "state=rejected", R"({"key":{"intfId":"if7.2"},"hoFlowState":"rejected"})"},
   };
   for (auto const& [table, test, row] : all) {
      json const found = object({"get", table, test});
      json whole = found;
      whole.update(json::parse(row), true); // changes nothing
      EXPECT_EQ(whole, found);
   }
}

TEST_F(AllTypes, List) {
   auto const list = run({"list", "-j"}).objects();
   ASSERT_EQ(list.size(), 7u);
   for (json const& table : list) EXPECT_EQ(table["state"], "ok") << table;
   EXPECT_EQ(run({"list", "--names", "*Counter"}).out,
             "t/counter/hoIp6FlowCounter\nt/counter/hoIpFlowCounter\nt/counter/hosStateCounter\n");
   auto const text = run({"list", "Status"});
   ASSERT_EQ(text.lines().size(), 3u); // names of the columns first
   EXPECT_NE(text.lines()[1].find("HoIp6FlowStatus"), std::string::npos);
   refuses({"list", "nothing"}, 1, {"matches \"nothing\""});
   refuses({"help", "dump"}, 2, {"\"help\""});
}

class Rows : public Root {
protected:
   static constexpr u32 rows = 3000;
   Rows() {
      Writer<HoIpFlowCounter> writer(counterName, 100);
      for (u32 n = 0; n < rows; ++n) writer.put(counter4(n));
      Writer<HoIp6FlowCounter> writer6(counter6Name, 100);
      writer6.put(counter6(1));
   }
};

TEST_F(Rows, GetTakesKeysAsPeopleWriteThem) {
   std::vector<std::vector<std::string>> const spellings = {
       {"src=10.1.0.1", "dst=10.2.0.1", "proto=tcp", "sport=1000", "dport=443"},
       {"srcAddr=10.1.0.1", "dstAddr=10.2.0.1", "ipProtocol=6", "srcPort=1000", "dstPort=443", "vlanId=0",
        "vrf=0"},
       {"TCP", "10.1.0.1:1000", "10.2.0.1:443"},
       {"vrf 0 vlan 0 TCP 10.1.0.1:1000 -> 10.2.0.1:443"},
       {"proto=Tcp", "src=10.1.0.1:1000", "dst=10.2.0.1:443", "dir=unspecified"},
       {"key.srcAddr=10.1.0.1", "10.2.0.1", "ipProtocolNumber=6", "sport=1000", "dport=443"},
   };
   for (auto const& words : spellings) {
      std::vector<std::string> arguments{"get", counterName};
      arguments.insert(arguments.end(), words.begin(), words.end());
      EXPECT_EQ(object(arguments)["packets"], 2) << words[0];
   }
   EXPECT_EQ(
       object({"get", "hoIp6FlowCounter", "udp", "[2001:db8::1]:1000", "[2001:db8:100::]:53"})["packets"], 2);
   // The same flow in a VLAN is another row.
   refuses({"get", counterName, "TCP", "10.1.0.1:1000", "10.2.0.1:443", "vlan=42"}, 1, {"vlanId=42"});
}

TEST_F(Rows, BadWordsAreNamed) {
   struct Bad {
      std::vector<std::string> arguments;
      char const* says;
   };
   std::vector<std::string> const get{"get", counterName, "tcp", "10.1.0.1:1000"};
   auto const with = [&](char const* word) {
      auto arguments = get;
      arguments.push_back(word);
      return arguments;
   };
   Bad const all[] = {
       {get, "lacks dstAddr"},
       {with("dst=10.2.0"), "\"dst=10.2.0\": dstAddr expects an IPv4 address"},
       {with("dst=2001:db8::1"), "expects an IPv4 address"},
       {with("10.2.0.1:65536"), "dstPort expects a number from 0 to 65535"},
       {with("sport=5"), "srcPort is given twice"},
       {with("proto=tpc"), "expects a protocol"},
       {with("vlan=-1"), "vlanId expects a number from 0 to 65535"},
       {with("colour=red"), "no field \"colour\""},
       {with("packets=5"), "lacks dstAddr"},
       {{"get", counterName, "colour=red"}, "they have: vrfId vlanId srcAddr"},
       {{"get", counterName, "vlan=42", "packets>x"}, "\"packets>x\": packets expects a number"},
       {{"get", counterName}, "takes a key or tests"},
       {{"dump", counterName, "direction=up"}, "unspecified, ingress, egress"},
       {{"dump", counterName, "--strep", "-j"}, "exclude each other"},
       {{"schema", "HoIpFlowCount"}, "FlowTracking::HoIpFlowCounter"},
       {with("hello"), "\"hello\" says nothing about a key"},
       {with("{\"dstAddr\":"), "expected a JSON object"},
       {{"dump", counterName, "-w", "packets>x"}, "\"packets>x\": packets expects a number"},
       {{"dump", counterName, "-w", "nothing=1"}, "no field \"nothing\""},
       {{"dump", counterName, "-w", "packets"}, "expected FIELD=VALUE"},
       {{"dump", counterName, "-w", "src=10.0.0.0/33"}, "a prefix length from 0 to 32"},
       {{"dump", counterName, "-w", "updateTime<yesterday"}, "a time like 2025"},
       {{"dump", counterName, "-c", "bites"}, "\"bites\" is no column"},
       {{"dump", counterName, "-n", "-1"}, "\"-1\": expected a number above 0"},
       {{"frobnicate"}, "no command \"frobnicate\"\n  commands are: list show"},
       {{"dump"}, "TABLE"},
       {{"show", "../x"}, "../x"},
   };
   for (auto const& [arguments, says] : all) refuses(arguments, arguments.back() == "../x" ? 3 : 2, {says});
}

TEST_F(Rows, Filters) {
   struct {
      std::vector<std::string> tests;
      u32 rows;
   } const all[] = {
       {{"proto=tcp"}, rows / 2},
       {{"proto!=tcp"}, rows / 2},
       {{"proto=tcp", "vlan=42"}, rows / 6},
       {{"packets<=10"}, 10},
       {{"packets>10"}, rows - 10},
       {{"packets=0"}, 0},
       {{"src=10.1.1.0/24"}, 256},
       {{"src!=10.1.1.0/24"}, rows - 256},
       {{"src<10.1.1.0"}, 256},
       {{"src=0.0.0.0/0"}, rows},
       {{"updateTime<2025-01-02T03:04:07"}, 2},
       {{"updateTime>=1735787047"}, rows - 2},
       {{"intfId=none"}, rows},
       {{"srcPort=1000", "packets>2990", "src=10.0.0.0/8", "proto=tcp"}, 5},
       {{"tcp", "10.1.0.1:1000", "10.2.0.1:443", "packets<3"}, 1}, // a key, too
       {{"tcp", "10.1.0.1:1000", "10.2.0.1:443", "packets>=3"}, 0},
   };
   for (auto const& [tests, wanted] : all) {
      SCOPED_TRACE(fmt::format("{}", fmt::join(tests, " ")));
      std::vector<std::string> count{"count", counterName}, get{"get", counterName, "-j"};
      get.insert(get.end(), tests.begin(), tests.end()); // plain words
      EXPECT_EQ(run(get).objects().size(), wanted);
      EXPECT_EQ(run(get).status, wanted ? 0 : 1);
      if (tests[0] == "tcp") continue;
      for (auto const& test : tests) count.insert(count.end(), {"--where", test});
      EXPECT_EQ(std::stoul("0" + run(count).out), wanted);
      count[0] = "dump";
      EXPECT_EQ(run(count).status, wanted ? 0 : 1);
   }
   EXPECT_EQ(run({"dump", counter6Name, "-w", "src=2001:db8::/127"}).status, 0);
   EXPECT_EQ(run({"dump", counter6Name, "-w", "src=2001:db8::/128"}).status, 1);
}

TEST_F(Rows, Columns) {
   auto const all = run({"dump", counterName}).lines();
   ASSERT_EQ(all.size(), rows + 1);
   std::istringstream names(all[0]);
   std::string name;
   std::size_t columns = 0, most = 0;
   while (names >> name) ++columns;
   for (std::string const& line : all) {
      std::istringstream in(line);
      std::size_t words = 0;
      while (in >> name) ++words;
      EXPECT_EQ(words, columns) << line;
      most = std::max(most, line.size());
   }
   EXPECT_EQ(all[0].size(), most); // aligned: the last column's name is its widest word
   auto const chosen =
       run({"dump", counterName, "--columns", "srcAddr,packets", "--no-header", "--limit", "3"}).lines();
   ASSERT_EQ(chosen.size(), 3u);
   EXPECT_EQ(chosen[0].rfind("10.1.", 0), 0u);
}

TEST_F(Rows, TablesAreNamedAsPeopleDo) {
   std::string const rowCount = std::to_string(rows) + "\n";
   for (auto const& name : {std::string("hoIpFlowCounter"), std::string("capture/hoIpFlowCounter"),
                            root + "/" + counterName + "/", std::string("*/hoIpFlow*")})
      EXPECT_EQ(run({"count", name}).out, rowCount) << name;
   EXPECT_EQ(run({"count", "*"}).lines().size(), 2u);
   refuses({"dump", "*"}, 2);
   refuses({"count", "/elsewhere/x"}, 2);
   refuses({"count", "hoIpFlowCountr"}, 3, {"did you mean", counterName});
   refuses({"count", "completelyElse"}, 3, {counterName});
   Writer<HoIpFlowCounter> other("flowtracking/other/hoIpFlowCounter");
   refuses({"count", "hoIpFlowCounter"}, 2, {"flowtracking/other/hoIpFlowCounter"});
}

TEST_F(Rows, OptionsStandAnywhere) {
   std::string const expected = fmt::format("{{\"table\":\"{}\",\"rows\":{}}}\n", counterName, rows);
   EXPECT_EQ(hoflow({"-j", "--root", root, "count", counterName}).out, expected);
   EXPECT_EQ(hoflow({"count", counterName, "--json", "--root=" + root}).out, expected);
   EXPECT_EQ(hoflow({"count", "-j", counterName}, {.environment = {"HOFLOW_ROOT=" + root}}).out, expected);
   EXPECT_EQ(
       hoflow({"count", "-j", "--root", root, counterName}, {.environment = {"HOFLOW_ROOT=/nowhere"}}).out,
       expected);
   EXPECT_EQ(hoflow({"list"}, {.environment = {"HOFLOW_ROOT=/nowhere"}}).status, 3);
}

TEST_F(Rows, HelpTeaches) {
   auto const alone = run({});
   EXPECT_EQ(alone.status, 0);
   EXPECT_NE(alone.out.find(counterName), std::string::npos);
   EXPECT_EQ(hoflow({}, {.environment = {"HOFLOW_ROOT=/nowhere"}}).status, 0);
   for (char const* command :
        {"list", "show", "header", "get", "dump", "load", "count", "check", "stat", "types", "schema"}) {
      auto const help = run({command, "--help"});
      EXPECT_EQ(help.status, 0);
      EXPECT_NE(help.out.find(std::string("  hoflow ") + command), std::string::npos) << help.out;
      EXPECT_NE(run({"--help"}).out.find(command), std::string::npos);
   }
}

TEST_F(Rows, ColourOnlyOnATerminal) {
   auto const colour = [](Result const& result) { return result.out.find("\033[") != std::string::npos; };
   EXPECT_TRUE(colour(run({"list"}, {.terminal = true})));
   EXPECT_FALSE(colour(run({"list"}, {.environment = {"NO_COLOR=1"}, .terminal = true})));
   EXPECT_FALSE(colour(run({"list"})));
}

} // namespace
} // namespace ToolTest
