// SPDX-License-Identifier: Apache-2.0
// What the tool's tests stand on: the built program run as a user would run it, and tables of all seven types
// in a root of their own. Tables are made by real writers. Those of the types with a change queue are made
// without one, and get an empty one by hand: readers see no other difference.
#pragma once

#include "../seam/Running.h"
#include "FlowTracking/Tables.h"
#include "Mem/Paths.h"
#include "Mirak/MirakWriter.h"

#include <cstring>
#include <fmt/ranges.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace ToolTest {

using u32 = std::uint32_t;
using u64 = std::uint64_t;

using nlohmann::json;
using Test::Result, Test::Running, Test::Surroundings;

inline Result hoflow(std::vector<std::string> arguments, Surroundings const& around = {}) {
   return Running(HOFLOW_TOOL, std::move(arguments), around).wait();
}

/// The same types with a writer that feeds no queue.
template <class Record>
using PlainOps = typename FlowTracking::TablePolicy<Record, FlowTracking::NoQueue>::Ops;

Lomi::Platform::DebugHandler const& handler();

template <class Record> class Writer {
public:
   using Table = Mirak::MirakWriter<PlainOps<Record>>;

   /// Claims the table and lets readers in.
   explicit Writer(std::string name, u32 size = 100)
      : table(std::make_unique<Table>(handler(), name.c_str(), Mirak::MapDescriptor(size))) {
      table->initialize("test");
   }
   void put(Record const& record) { table->write(record, true); }
   void remove(typename Record::Key const& key) {
      typename PlainOps<Record>::Value removed;
      table->remove(key, removed);
   }
   u32 members() const { return table->members(); }

private:
   std::unique_ptr<Table> table;
};

/// A root directory of the test's own, and what it does to the files there.
class Root : public testing::Test {
protected:
   Root();
   ~Root() override;

   /// hoflow with --root.
   Result run(std::vector<std::string> arguments, Surroundings const& around = {}) const {
      return start(std::move(arguments), around).wait();
   }
   /// The same beside the test.
   Running start(std::vector<std::string> arguments, Surroundings const& around = {}) const {
      arguments.insert(arguments.begin(), {"--root", root});
      return Running(HOFLOW_TOOL, std::move(arguments), around);
   }
   /// Expects that hoflow ends so, with these words on stderr and nothing on stdout.
   void refuses(std::vector<std::string> const& arguments, int status,
                std::vector<std::string> const& says = {}) const {
      SCOPED_TRACE(fmt::format("{}", fmt::join(arguments, " ")));
      auto const result = run(arguments);
      result.is(status, says);
      EXPECT_EQ(result.out, "");
   }
   /// The only object that it prints.
   json object(std::vector<std::string> arguments, Surroundings const& around = {}) const {
      arguments.push_back("-j");
      return run(std::move(arguments), around).object();
   }
   std::string file(std::string const& table, char const* name) const {
      return root + "/" + table + "/" + name;
   }
   std::vector<char> read(std::string const& path) const;
   void write(std::string const& path, std::vector<char> const& bytes) const;
   /// Stores `value` at `offset` of a file.
   template <class T> void poke(std::string const& path, std::size_t offset, T value) const {
      store(path, offset, &value, sizeof value);
   }
   template <class T> T peek(std::string const& path, std::size_t offset) const {
      auto const bytes = read(path);
      T value{};
      if (offset + sizeof value <= bytes.size()) std::memcpy(&value, bytes.data() + offset, sizeof value);
      return value;
   }
   /// In place: the file may be mapped elsewhere.
   void store(std::string const& path, std::size_t offset, void const* from, std::size_t bytes) const;
   /// The checksum of a slot file's header, made right again.
   void sealHeader(std::string const& table) const;
   /// The table has an empty queue, as if its writer fed one.
   void claimQueue(std::string const& table) const;
   /// Names, lengths, times and contents of all files.
   std::string snapshot() const;

   std::string root;
};

// Rows with recognisable values, derived from a number.
FlowTracking::IpFlowKey key4(u32 n);
FlowTracking::Ip6FlowKey key6(u32 n);
FlowTracking::HoIpFlowCounter counter4(u32 n);
FlowTracking::HoIp6FlowCounter counter6(u32 n);

inline constexpr char const* counterName = "flowtracking/default/hwOffload/counter/capture/hoIpFlowCounter";
inline constexpr char const* counter6Name = "flowtracking/default/hwOffload/counter/capture/hoIp6FlowCounter";

} // namespace ToolTest
