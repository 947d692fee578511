// SPDX-License-Identifier: Apache-2.0
// hoflow-tracker from outside: exit statuses, words, figures, signals, and what stands in the tables
// afterwards.
#include "Program.h"
#include "FlowTracking/HosStateCounter.h"
#include "Packets.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace Packets;
using nlohmann::json;
using Program::run;

class TrackerProgram : public testing::Test {
protected:
   Program::Result count(std::string const& capture, std::vector<std::string> more = {}) {
      more.insert(more.begin(), {capture, "--root", root_, "-j"});
      return run(more);
   }
   std::multiset<std::string> rows(std::string const& name = "capture") { return Program::rows(root_, name); }

   /// `packets` packets of both families; each port occurs in several.
   static Pcap traffic(unsigned packets) {
      Pcap pcap;
      for (unsigned i = 0; i < packets; ++i) {
         Bytes const payload = be16(i % 700) + be16(53) + zeros(4);
         pcap.add(i % 3 ? ethernet(0x0800) + Ip4{.protocol = 17, .payload = payload}.bytes()
                        : ethernet(0x86dd) + Ip6{.nextHeader = 17, .payload = payload}.bytes());
      }
      return pcap;
   }

   Folder folder_;
   std::string root_ = folder_.path("root");
};

TEST_F(TrackerProgram, WrongUse) {
   using Arguments = std::vector<std::string>;
   for (Arguments const& wrong : {Arguments{},
                                  {"a", "b"},
                                  {"a", "--unknown"},
                                  {"a", "--pace", "0"},
                                  {"a", "--pace", "nan"},
                                  {"a", "--pace", "inf"},
                                  {"a", "--pace", "x"},
                                  {"a", "--root", ""},
                                  {"a", "--name", "a\nb"}})
      run(wrong).is(2);
   run({"a", "--name", "../b"}).is(2, {"can't be part of a table's path"});
   auto const help = run({"--help"});
   help.is(0);
   for (auto const* part : {"--root", "--type", "--name", "Examples:", "Exit status:", "HOFLOW_ROOT"})
      EXPECT_NE(help.out.find(part), std::string::npos) << part;
}

TEST_F(TrackerProgram, CannotOpen) {
   auto const absent = count(folder_.path("absent"));
   absent.is(3);
   EXPECT_EQ(absent.err, "hoflow-tracker: " + folder_.path("absent") + ": No such file or directory\n");
   EXPECT_EQ(absent.out, "");
   EXPECT_EQ(count(folder_.path()).err, "hoflow-tracker: " + folder_.path() + ": Is a directory\n");
   auto const capture = folder_.write("traffic", traffic(10).bytes);
   auto const file = folder_.write("file", Bytes{1});
   run({capture, "--root", file + "/below"}).is(3, {file});
}

TEST_F(TrackerProgram, Figures) {
   Pcap pcap = traffic(90);
   pcap.add(ethernet(0x0806) + zeros(28));
   pcap.add(ethernet(0x0800) + Ip4{.versionAndLength = 0x44}.bytes());
   auto const result = count(folder_.write("traffic", pcap.bytes));
   result.is(0);
   EXPECT_EQ(result.err, "");
   auto const figures = result.object();
   auto whole = figures;
   whole.update(json::parse(R"({"packetsRead":92,"packets":90,"flows":90,"ip4":{"packets":60},"bytes":3120,
      "notCounted":{"notIp":1,"malformed":1},"complete":true})"),
                true);
   EXPECT_EQ(whole, figures);
   EXPECT_EQ(rows().size(), 90u);
   auto const text = run({folder_.path("traffic"), "--root", root_, "--name", "other"});
   EXPECT_NE(text.out.find("90 (60 IPv4, 30 IPv6)"), std::string::npos) << text.out;
   EXPECT_EQ(rows("other"), rows());
}

TEST_F(TrackerProgram, ACaptureOfWhichNothingCanBeCountedChangesNoTable) {
   count(folder_.write("good", traffic(30).bytes)).is(0);
   auto const before = rows();
   count(folder_.write("empty", {})).is(4, {folder_.path("empty")});
   EXPECT_EQ(rows(), before);
   Pcap pcap(105);
   pcap.add(zeros(60));
   auto const result = count(folder_.write("wifi", pcap.bytes));
   result.is(5, {"IEEE802_11 (105)"});
   EXPECT_EQ(result.object()["notCounted"]["linkType"], 1);
   EXPECT_EQ(rows(), before);
}

TEST_F(TrackerProgram, DamagedCapture) {
   Pcap pcap = traffic(20);
   pcap.bytes.resize(pcap.starts[12] + 5);
   folder_.write("cut", pcap.bytes);
   for (int run = 0; run < 2; ++run) { // also when all is counted already
      auto const cut = count(folder_.path("cut"));
      cut.is(4, {"packet 13 is damaged", "12 packets before it are counted"});
      EXPECT_EQ(cut.object()["damage"]["packet"], 13);
      EXPECT_EQ(cut.object()["packets"], 12);
      EXPECT_EQ(rows().size(), 12u);
   }
}

TEST_F(TrackerProgram, OutputNotWritten) {
   auto const capture = folder_.write("traffic", traffic(30).bytes);
   run({capture, "--root", root_}, {.intoFile = "/dev/full"}).is(5, {"standard output can't be written"});
   EXPECT_EQ(rows().size(), 30u);
}

TEST_F(TrackerProgram, StoppedWhileItWaitsForPackets) {
   auto const pipe = folder_.path("pipe");
   ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
   int const end = open(pipe.c_str(), O_RDWR | O_CLOEXEC); // held open: there is never an end of the file
   Program::Running tracker(HOFLOW_TRACKER, {"-", "--root", root_}, {.fromFile = pipe});
   auto const bytes = traffic(500).bytes;
   ASSERT_EQ(write(end, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
   EXPECT_TRUE(Program::published(root_, "counter/capture/hoIp6FlowCounter"));
   tracker.signal(SIGTERM);
   auto const result = tracker.wait();
   close(end);
   result.is(5, {"stopped after packet"});
   EXPECT_EQ(result.err.find("damaged"), std::string::npos) << result.err;
}

TEST_F(TrackerProgram, TablesThatCannotBeTakenOver) {
   auto const capture = folder_.write("traffic", traffic(90).bytes);
   count(capture).is(0);
   auto const wanted = rows();
   auto const owner = root_ + "/flowtracking/default/hwOffload/counter/capture/hoIpFlowCounter/owner";
   std::filesystem::resize_file(owner, 50);
   auto const anew = count(capture);
   anew.is(0, {"hoIpFlowCounter: what is there can't be taken over (", "bad owner size:50"});
   EXPECT_EQ(std::count(anew.err.begin(), anew.err.end(), '\n'), 1) << anew.err;
   EXPECT_EQ(rows(), wanted);
   std::filesystem::remove(owner);
   std::filesystem::create_directory(owner);
   count(capture).is(3, {owner});
}

TEST_F(TrackerProgram, AnotherCaptureUnderTheSameName) {
   count(folder_.write("one", traffic(100).bytes)).is(0);
   Pcap other;
   for (unsigned i = 0; i < 9; ++i) other.add(ethernet(0x0800) + Ip4{}.bytes());
   count(folder_.write("other", other.bytes)).is(0, {"hoIpFlowCounter held 66 rows"});
   EXPECT_EQ(rows(), (std::multiset<std::string>{"4\t0\t6\t10.0.0.1\t10.0.0.2\t1234\t80\t9\t360"}));
}

TEST_F(TrackerProgram, OneTrackerATable) {
   auto const capture = folder_.write("traffic", traffic(500).bytes);
   Program::Running first(HOFLOW_TRACKER, {capture, "--root", root_, "--pace", "50"});
   ASSERT_TRUE(Program::published(root_, "counter/status/hosStateIp6Counter"));
   count(capture).is(3, {"the tables can't be opened"});
   count(capture, {"--name", "other"})
       .is(0, {"the counts by state are not kept"}); // tables of its own, but for one
   EXPECT_EQ(rows("other").size(), 500u);
   first.signal(SIGTERM);
   first.wait().is(5, {"stopped after packet"});
   count(capture).is(0);
   EXPECT_EQ(rows().size(), 500u);

   Mem::RootPath::set(root_);
   auto const tree = Zeb::Dir::DirIs("");
   auto const states = FlowTracking::hosStateCounterFactory("status");
   tree->entityIs(FlowTracking::HosStateCounter::mountPath("default"), states);
   Mirak::MapDescriptor reader(0);
   reader.type = Mirak::MirakType::reader;
   states->hosStateIpCounterControl()->init(reader);
   states->hosStateIp6CounterControl()->init(reader);
   EXPECT_EQ(states->hosStateIpCounter(FlowTracking::HoFlowState::unknown).hoFlows(), 333u);
   EXPECT_EQ(states->hosStateIp6Counter(FlowTracking::HoFlowState::unknown).hoFlows(), 167u);
}

} // namespace
