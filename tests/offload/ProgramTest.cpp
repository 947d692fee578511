// SPDX-License-Identifier: Apache-2.0
// hoflow-offload beside hoflow-tracker, as users run them: the counters that they leave are those of a
// tracker alone, whoever counted; slots, kills and stops; what is said when something is missing.
#include "Program.h"
#include "Packets.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <optional>

namespace {

using namespace Packets;
using nlohmann::json;
using Program::Tracker;

class OffloadProgram : public testing::Test {
protected:
   using Arguments = std::vector<std::string>;

   Arguments arguments(Arguments more) const {
      Arguments all{capture_, "--root", root_, "-j"};
      all.insert(all.end(), more.begin(), more.end());
      return all;
   }
   Tracker tracker(Arguments more = {}) const { return Tracker(folder_.path(), arguments(more), "tracker"); }
   Tracker offload(Arguments more = {}) const {
      return Tracker(folder_.path(), arguments(more), "offload", "/dev/null", {}, HOFLOW_OFFLOAD);
   }
   std::string table(std::string const& path) const {
      return root_ + "/flowtracking/default/hwOffload/" + path;
   }
   /// Whether it happens within a minute.
   static bool comes(std::function<bool()> const& condition) {
      auto const end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
      while (!condition()) {
         if (std::chrono::steady_clock::now() > end) return false;
         std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
      return true;
   }
   bool published(std::string const& path) const {
      return comes([&] { return std::filesystem::exists(table(path) + "/kestor"); });
   }
   std::multiset<std::string> rows() const { return Program::rows(root_); }
   /// The rows that a tracker alone counts.
   std::multiset<std::string> wanted() const {
      std::string const root = folder_.path("alone");
      EXPECT_EQ(Program::run(folder_.path(), {capture_, "--root", root}).status, 0);
      return Program::rows(root);
   }

   Folder folder_{"/dev/shm"};
   std::string root_ = folder_.path("root");
   std::string capture_ = [this] {
      Pcap pcap;
      for (unsigned i = 0; i < 900; ++i) {
         Bytes const payload = be16(i % 400) + be16(53) + zeros(i % 7);
         pcap.add(i % 3 ? ethernet(0x0800) + Ip4{.protocol = 17, .payload = payload}.bytes()
                        : ethernet(0x86dd) + Ip6{.nextHeader = 17, .payload = payload}.bytes(),
                  1700000000 + i);
      }
      return folder_.write("traffic", pcap.bytes);
   }();
};

TEST_F(OffloadProgram, CountsWhatTheTrackerChoseInAnyOrderOfTheirStarts) {
   auto const expected = wanted();
   for (bool const offloadFirst : {true, false}) {
      std::filesystem::remove_all(root_);
      std::optional<Tracker> first;
      if (offloadFirst) {
         first.emplace(offload());
         ASSERT_TRUE(published("counter/capture/hoIp6FlowCounter"));
      }
      auto const chose = tracker().wait();
      if (!offloadFirst) first.emplace(offload());
      auto const counted = first->wait();
      ASSERT_EQ(chose.status, 0) << chose.err;
      ASSERT_EQ(counted.status, 0) << counted.err;
      EXPECT_EQ(rows(), expected);
      auto const said = json::parse(chose.out), done = json::parse(counted.out);
      EXPECT_EQ(said["counted"], !offloadFirst);
      EXPECT_EQ(said["packets"], 900);
      EXPECT_EQ(said["offload"]["states"][offloadFirst ? "offloaded" : "unknown"], expected.size());
      EXPECT_EQ(done["packets"], 900);
      EXPECT_EQ(done["ip4"]["rowsStored"], offloadFirst ? 600 : 0)
          << "what the tracker counted is right as it is";
      EXPECT_EQ(done["states"]["offloaded"], expected.size());
   }
   auto const again = tracker().wait(); // and back: the tracker alone
   EXPECT_EQ(again.status, 0);
   EXPECT_EQ(again.err, "") << "it takes the rows over as its own";
   EXPECT_EQ(rows(), expected);
}

TEST_F(OffloadProgram, WhatDoesNotFitIsRejectedAndNotCounted) {
   auto const expected = wanted();
   auto agent = offload({"--slots", "100"});
   ASSERT_TRUE(published("counter/capture/hoIp6FlowCounter"));
   auto const chose = tracker({"--offload-after", "2"}).wait();
   auto const counted = agent.wait();
   ASSERT_EQ(chose.status, 0) << chose.err;
   ASSERT_EQ(counted.status, 0) << counted.err;
   auto const held = rows();
   EXPECT_EQ(held.size(), 100u);
   EXPECT_TRUE(std::includes(expected.begin(), expected.end(), held.begin(), held.end()));
   auto const states = json::parse(chose.out)["offload"]["states"];
   EXPECT_EQ(states["offloaded"], 100);
   EXPECT_EQ(states["rejected"], json::parse(chose.out)["offload"]["chosen"].get<unsigned>() - 100);
   auto const more = offload().wait(); // and now all fit
   ASSERT_EQ(more.status, 0) << more.err;
   EXPECT_EQ(rows().size(), states["offloaded"].get<unsigned>() + states["rejected"].get<unsigned>());
   ASSERT_EQ(tracker().wait().status, 0); // chooses all flows
   ASSERT_EQ(offload().wait().status, 0);
   EXPECT_EQ(rows(), expected);
}

TEST_F(OffloadProgram, ExactInSpiteOfKillsOfBoth) {
   auto const expected = wanted();
   std::optional<Tracker> agent(offload({"--pace", "1000"})),
       choosing(tracker({"--no-count", "--pace", "1000"}));
   unsigned killed = 0;
   for (unsigned round = 0; round < 6; ++round) {
      std::this_thread::sleep_for(std::chrono::milliseconds(40 + 35 * round));
      auto& victim = round % 2 ? agent : choosing;
      victim->signal(SIGKILL);
      killed += victim->wait().status == -SIGKILL;
      if (round % 2)
         agent.emplace(offload({"--pace", "1000"}));
      else
         choosing.emplace(tracker({"--no-count", "--pace", "1000"}));
   }
   auto const chose = choosing->wait();
   auto const counted = agent->wait();
   EXPECT_EQ(chose.status, 0) << chose.err;
   EXPECT_EQ(counted.status, 0) << counted.err;
   EXPECT_GT(killed, 0u);
   EXPECT_EQ(rows(), expected);
}

TEST_F(OffloadProgram, StopsAndRefusals) {
   auto waiting = offload(); // for a tracker that never comes
   ASSERT_TRUE(published("counter/capture/hoIp6FlowCounter"));
   auto const second = offload().wait();
   EXPECT_EQ(second.status, 3) << second.err;
   EXPECT_NE(second.err.find("the tables can't be opened"), std::string::npos) << second.err;
   waiting.signal(SIGTERM);
   auto const stopped = waiting.wait();
   EXPECT_EQ(stopped.status, 5) << stopped.err;
   EXPECT_NE(stopped.err.find("stopped before all was counted"), std::string::npos) << stopped.err;

   for (Arguments const& wrong : {Arguments{"--slots", "0"}, {"-i", "lo"}, {"--unknown"}, {"--name", "../b"}})
      EXPECT_EQ(offload(wrong).wait().status, 2) << wrong[0];
   std::filesystem::resize_file(capture_, std::filesystem::file_size(capture_) - 5);
   EXPECT_EQ(tracker().wait().status, 4);
   auto const damaged = offload().wait();
   EXPECT_EQ(damaged.status, 4) << damaged.err;
   EXPECT_NE(damaged.err.find("packet 900 is damaged"), std::string::npos) << damaged.err;
   EXPECT_EQ(json::parse(damaged.out)["packets"], 899);
   capture_ = folder_.write("none", {});
   EXPECT_EQ(offload().wait().status, 4);
   capture_ = folder_.path("absent");
   EXPECT_EQ(offload().wait().status, 3);
}

} // namespace
