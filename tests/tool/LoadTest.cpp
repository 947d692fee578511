// SPDX-License-Identifier: Apache-2.0
// Text forms out of one table and into another, and what the tool knows of types without a table.
#include "Support.h"

#include "FlowTracking/TableTypes.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <unistd.h>

namespace ToolTest {
namespace {

using namespace FlowTracking;
namespace fs = std::filesystem;

class Load : public Root {
protected:
   static constexpr u32 rows = 300;

   Load() {
      {
         Writer<HoIpFlowCounter> writer(counterName);
         for (u32 n = 0; n < rows; ++n) writer.put(counter4(n));
      }
      dumpTo(counterName, "rows");
   }
   std::string at(std::string const& name) const { return root + "/" + name; }
   void dumpTo(std::string const& table, std::string const& file) {
      auto const dump = run({"dump", table, "--strep"});
      EXPECT_EQ(dump.status, 0) << dump.err;
      write(at(file), {dump.out.begin(), dump.out.end()});
   }
   /// The rows of a table in an order that doesn't depend on its hash seed.
   std::multiset<std::string> rowsOf(std::string const& table) {
      auto const lines = run({"dump", table, "--strep"}).lines();
      return {lines.begin(), lines.end()};
   }
   void edit(std::string const& from, std::string const& to, std::string const& part,
             std::string const& instead) {
      auto const bytes = read(at(from));
      std::string text(bytes.begin(), bytes.end());
      auto const place = text.find(part);
      ASSERT_NE(place, std::string::npos) << part;
      text.replace(place, part.size(), instead);
      write(at(to), {text.begin(), text.end()});
   }
};

template <class Record> class LoadedTable : public Load {};
using Records = testing::Types<HoIpFlowConfig, HoIp6FlowConfig, HoIpFlowStatus, HoIp6FlowStatus,
                               HoIpFlowCounter, HoIp6FlowCounter, HosStateCounterEntry>;
TYPED_TEST_SUITE(LoadedTable, Records);

/// A row all of whose bytes differ from row to row; times stay numbers, so that rows can be compared.
template <class Record> Record rowOf(u32 n) {
   Record row;
   auto* const bytes = reinterpret_cast<unsigned char*>(&row);
   for (std::size_t i = 0; i < sizeof row; ++i) bytes[i] = static_cast<unsigned char>(n * 31 + i * 7 % 64);
   return row;
}

TYPED_TEST(LoadedTable, EqualsTheDumpedOne) {
   {
      Writer<TypeParam> writer("from", 100);
      for (u32 n = 0; n < 250; ++n) writer.put(rowOf<TypeParam>(n));
   }
   if (FlowTracking::tableTypeNamed(TypeParam::typeName)->hasChangeQueue) this->claimQueue("from");
   this->dumpTo("from", "file");
   auto const load = this->object({"load", "new/to", this->at("file")});
   EXPECT_EQ(load["rows"], load["loaded"]);
   auto const wanted = this->rowsOf("from");
   EXPECT_GT(wanted.size(), 200u);
   EXPECT_EQ(this->rowsOf("new/to"), wanted);
   EXPECT_EQ(this->run({"check", "new/to"}).status, 0);
   EXPECT_EQ(this->object({"show", "new/to"})["owner"]["typeName"], TypeParam::typeName);
}

TEST_F(Load, AnExistingTableGetsTheFilesRows) {
   auto const wanted = rowsOf(counterName);
   {
      Writer<HoIpFlowCounter> writer(counterName);
      auto changed = counter4(1);
      changed.packetsIs(99);
      writer.put(changed);
      writer.remove(key4(2));
      writer.put(counter4(rows + 5));
   }
   EXPECT_EQ(object({"load", counterName, at("rows"), "--keep"})["rows"], rows + 1);
   auto const loaded = object({"load", "hoIpFlowCounter", at("rows")});
   EXPECT_EQ(loaded["rows"], rows);
   EXPECT_EQ(loaded["removed"], 1);
   EXPECT_EQ(loaded["table"], counterName);
   EXPECT_EQ(rowsOf(counterName), wanted);
   // An empty file empties a table, but says nothing of the type of a new one.
   write(at("empty"), {});
   EXPECT_EQ(run({"load", "other", at("empty")}).status, 2);
   EXPECT_EQ(run({"load", "other", at("empty"), "--type", "hosStateCounterEntry"}).status, 0);
   EXPECT_EQ(object({"list", "other"})["valueType"], "FlowTracking::HosStateCounterEntry");
   EXPECT_EQ(run({"load", counterName, at("empty")}).status, 0);
   EXPECT_EQ(run({"count", counterName}).out, "0\n");
}

TEST_F(Load, ALineThatDoesntParseChangesNothing) {
   std::string const before = snapshot();
   struct Bad {
      char const *part, *instead;
      std::vector<std::string> says;
   };
   Bad const all[] = {
       {"'srcPort': 1000",
        "'srcPort': 70000",
        {":1: key.srcPort: expected a number from 0 to 65535", "1 of 300"}},
       {"\n", "\n\n", {":2: expected \"Value('FlowTracking::HoIpFlowCounter'", "found the end", "1 of 301"}},
       {"\n", "\r\n", {":1: expected the end"}},
       {"HoIpFlowCounter",
        "HoIpFlowConfig",
        {":1: a row of FlowTracking::HoIpFlowConfig; the table holds FlowTracking::HoIpFlowCounter"}},
   };
   for (auto const& [part, instead, says] : all) {
      edit("rows", "bad", part, instead);
      refuses({"load", counterName, at("bad")}, 4, says);
      fs::remove(at("bad"));
   }
   auto lines = run({"dump", counterName, "--strep", "-n", "1"}).out;
   lines += lines;
   write(at("twice"), {lines.begin(), lines.end()});
   refuses({"load", "new", at("twice")}, 4, {"twice:2: the row of line 1 has this key, too"});
   fs::remove(at("twice"));
   EXPECT_EQ(snapshot(), before);
}

TEST_F(Load, RefusesWhatItMustNotWrite) {
   write(at("state"), {});
   refuses({"load", counterName, at("state"), "--type", "FlowTracking::HosStateCounterEntry"}, 3,
           {"holds FlowTracking::HoIpFlowCounter"});
   refuses({"load", counterName, at("absent")}, 3);
   refuses({"load", counterName, root}, 3, {"is a directory"});
   refuses({"load", "../x", at("rows")}, 2);
   Writer<HoIpFlowCounter> const alive(counterName);
   std::string const before = snapshot();
   refuses({"load", counterName, at("rows")}, 3, {fmt::format("its writer, process {}, lives", getpid())});
   EXPECT_EQ(snapshot(), before);
}

TEST_F(Load, TypesAndSchemas) {
   auto const types = hoflow({"types", "-j"}).objects();
   for (auto const& table : FlowTracking::tableTypes())
      EXPECT_EQ(
          std::count_if(types.begin(), types.end(),
                        [&](json const& j) { return j["type"] == table.valueType && j["sort"] == "row"; }),
          1)
          << table.valueType;
   EXPECT_EQ(hoflow({"types", "HosState", "-j"}).objects().at(0)["module"], "HoFlowStatus");
   refuses({"types", "nothing"}, 1);
   auto const schema = object({"schema", "hoipflowcounter"});
   EXPECT_EQ(schema["type"], "FlowTracking::HoIpFlowCounter");
   EXPECT_EQ(schema["attributes"][2],
             json::parse(
                 R"({"id":4,"name":"packets","kind":"field","type":"Zeb::U64","operations":["get","set"]})"));
   EXPECT_EQ(schema["default"].get<std::string>().rfind("Value('FlowTracking::HoIpFlowCounter'", 0), 0u);
   auto const text = hoflow({"schema", "HoIpFlowKey"});
   EXPECT_EQ(text.lines().size(), 15u) << text.out; // name, default, names of the columns, 12 attributes
   EXPECT_NE(text.out.find("vlanId"), std::string::npos);
}

TEST_F(Load, TheOwnerIsTyped) {
   auto const owner = object({"show", counterName})["owner"];
   EXPECT_EQ(owner["pid"], getpid());
   EXPECT_EQ(owner["typeName"], "FlowTracking::HoIpFlowCounter");
   EXPECT_EQ(owner["parcelType"], "mirak");
   EXPECT_EQ(owner["socketName"], nullptr);
   EXPECT_EQ(owner["startTime"].get<std::string>().back(), 'Z');
   poke(file(counterName, "owner"), 24, 1);
   auto const damaged = object({"show", counterName})["owner"];
   EXPECT_NE(damaged["problem"].get<std::string>().find("checksum"), std::string::npos) << damaged;
   fs::remove(file(counterName, "owner"));
   EXPECT_EQ(object({"show", counterName})["owner"], nullptr);
}

} // namespace
} // namespace ToolTest
