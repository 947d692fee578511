// SPDX-License-Identifier: Apache-2.0
// What the tool's tests stand on: the built program run as a user would run it, and tables of all seven types
// in a root of their own. Tables are made by real writers. Those of the types with a change queue are made
// without one, and get an empty one by hand: readers see no other difference.
#pragma once

#include "FlowTracking/Tables.h"
#include "Mem/Paths.h"
#include "Mirak/MirakWriter.h"

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace ToolTest {

using nlohmann::json;
using u32 = std::uint32_t;
using u64 = std::uint64_t;

struct Result {
   int status = -1; ///< exit status, 128 + n if signal n ended it
   std::string out, err;

   std::vector<std::string> lines() const;
   /// stdout as one JSON object a line. Fails the test if it is none.
   std::vector<json> objects() const;
};

/// How a program is run beside its arguments.
struct Surroundings {
   std::vector<std::string> environment = {}; ///< NAME=VALUE; nothing else is set
   unsigned uid = 0;                          ///< another user; needs root
   bool terminal = false;                     ///< stdout is a terminal
   bool closedPipe = false;                   ///< stdout is a pipe that nobody reads
   std::string intoFile = {};                 ///< stdout is this file
   std::function<void(int pid)> whileBlocked =
       {}; ///< called when the pipe of stdout is full, before it is read
};

/// Runs `hoflow` with the arguments; ended after a minute.
Result hoflow(std::vector<std::string> const& arguments, Surroundings const& around = {});

/// A `hoflow` that runs beside the test, in the test's root. Ended with it.
class Running {
public:
   /// @param terminal stdin and stdout are one
   explicit Running(std::vector<std::string> arguments, bool terminal = false);
   Running(Running const&) = delete;
   Running& operator=(Running const&) = delete;
   ~Running();

   /// The next line of stdout. Fails the test, and is empty, where none comes in a minute.
   std::string line();
   /// The next line as an object.
   json object();
   /// Waits until stdout, or stderr, says this. What was said up to there isn't looked at again.
   void says(std::string const& text, bool error = false);
   void type(char key) const;
   /// Sends a signal, if any, and waits for the end, also without reading. @return as Result::status
   int end(int signal = 0);

private:
   bool more();
   int pid_ = -1, out_ = -1, err_ = -1;
   std::string said_, complained_;
};

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
   Result run(std::vector<std::string> arguments, Surroundings const& around = {}) const;
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
