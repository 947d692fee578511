// SPDX-License-Identifier: Apache-2.0
// hoflow-offload beside hoflow-tracker, as users run them: the counters that they leave are those of a
// tracker alone, whoever counted; slots, kills and stops; what is said when something is missing.
#include "Program.h"
#include "Packets.h"

#include <gtest/gtest.h>
#include <optional>

namespace {

using namespace Packets;
using Program::Running;

class OffloadProgram : public testing::Test {
protected:
   using Arguments = std::vector<std::string>;

   Arguments arguments(Arguments more) const {
      Arguments all{capture_, "--root", root_, "-j"};
      all.insert(all.end(), more.begin(), more.end());
      return all;
   }
   Running tracker(Arguments more = {}) const { return Running(HOFLOW_TRACKER, arguments(more)); }
   Running offload(Arguments more = {}) const { return Running(HOFLOW_OFFLOAD, arguments(more)); }
   bool publishes() const { return Program::published(root_, "counter/capture/hoIp6FlowCounter"); }
   std::multiset<std::string> rows() const { return Program::rows(root_); }
   /// The rows that a tracker alone counts.
   std::multiset<std::string> wanted() const {
      std::string const root = folder_.path("alone");
      Program::run({capture_, "--root", root}).is(0);
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
      std::optional<Running> first;
      if (offloadFirst) {
         first.emplace(offload());
         ASSERT_TRUE(publishes());
      }
      auto const chose = tracker().wait();
      if (!offloadFirst) first.emplace(offload());
      auto const counted = first->wait();
      chose.is(0);
      counted.is(0);
      EXPECT_EQ(rows(), expected);
      auto const said = chose.object(), done = counted.object();
      EXPECT_EQ(said["counted"], !offloadFirst);
      EXPECT_EQ(said["packets"], 900);
      EXPECT_EQ(said["offload"]["states"][offloadFirst ? "offloaded" : "unknown"], expected.size());
      EXPECT_EQ(done["packets"], 900);
      EXPECT_EQ(done["ip4"]["rowsStored"], offloadFirst ? 600 : 0)
          << "what the tracker counted is right as it is";
      EXPECT_EQ(done["states"]["offloaded"], expected.size());
   }
   auto const again = tracker().wait(); // and back: the tracker alone
   again.is(0);
   EXPECT_EQ(again.err, "") << "it takes the rows over as its own";
   EXPECT_EQ(rows(), expected);
}

TEST_F(OffloadProgram, WhatDoesNotFitIsRejectedAndNotCounted) {
   auto const expected = wanted();
   auto agent = offload({"--slots", "100"});
   ASSERT_TRUE(publishes());
   auto const chose = tracker({"--offload-after", "2"}).wait();
   auto const counted = agent.wait();
   chose.is(0);
   counted.is(0);
   auto const held = rows();
   EXPECT_EQ(held.size(), 100u);
   EXPECT_TRUE(std::includes(expected.begin(), expected.end(), held.begin(), held.end()));
   auto const said = chose.object()["offload"];
   unsigned const chosen = said["chosen"];
   EXPECT_EQ(said["states"]["offloaded"], 100);
   EXPECT_EQ(said["states"]["rejected"], chosen - 100);
   offload().wait().is(0); // and now all fit
   EXPECT_EQ(rows().size(), chosen);
   tracker().wait().is(0); // chooses all flows
   offload().wait().is(0);
   EXPECT_EQ(rows(), expected);
}

TEST_F(OffloadProgram, ExactInSpiteOfKillsOfBoth) {
   auto const expected = wanted();
   std::optional<Running> agent(offload({"--pace", "1000"})),
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
   choosing->wait().is(0);
   agent->wait().is(0);
   EXPECT_GT(killed, 0u);
   EXPECT_EQ(rows(), expected);
}

TEST_F(OffloadProgram, StopsAndRefusals) {
   auto waiting = offload(); // for a tracker that never comes
   ASSERT_TRUE(publishes());
   offload().wait().is(3, {"the tables can't be opened"});
   waiting.signal(SIGTERM);
   waiting.wait().is(5, {"stopped before all was counted"});

   for (Arguments const& wrong : {Arguments{"--slots", "0"}, {"-i", "lo"}, {"--unknown"}, {"--name", "../b"}})
      offload(wrong).wait().is(2);
   std::filesystem::resize_file(capture_, std::filesystem::file_size(capture_) - 5);
   tracker().wait().is(4);
   auto const damaged = offload().wait();
   damaged.is(4, {"packet 900 is damaged"});
   EXPECT_EQ(damaged.object()["packets"], 899);
   capture_ = folder_.write("none", {});
   offload().wait().is(4);
   capture_ = folder_.path("absent");
   offload().wait().is(3);
}

} // namespace
