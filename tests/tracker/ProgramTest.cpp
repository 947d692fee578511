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

bool contains(std::string const& text, std::string const& part) {
   return text.find(part) != std::string::npos;
}

class TrackerProgram : public testing::Test {
protected:
   Program::Result run(std::vector<std::string> arguments) {
      return Program::run(folder_.path(), std::move(arguments));
   }
   Program::Result count(std::string const& capture, std::vector<std::string> more = {}) {
      std::vector<std::string> arguments{capture, "--root", root_, "-j"};
      arguments.insert(arguments.end(), more.begin(), more.end());
      return run(arguments);
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
   EXPECT_EQ(run({}).status, 2);
   EXPECT_EQ(run({"a", "b"}).status, 2);
   EXPECT_EQ(run({"a", "--unknown"}).status, 2);
   auto const path = run({"a", "--name", "../b"});
   EXPECT_EQ(path.status, 2);
   EXPECT_TRUE(contains(path.err, "can't be part of a table's path")) << path.err;
   for (auto const* pace : {"0", "nan", "inf", "x"}) EXPECT_EQ(run({"a", "--pace", pace}).status, 2) << pace;
   EXPECT_EQ(run({"a", "--root", ""}).status, 2);
   EXPECT_EQ(run({"a", "--name", "a\nb"}).status, 2);
   auto const help = run({"--help"});
   EXPECT_EQ(help.status, 0);
   for (auto const* part : {"--root", "--type", "--name", "Examples:", "Exit status:", "HOFLOW_ROOT"})
      EXPECT_TRUE(contains(help.out, part)) << part;
}

TEST_F(TrackerProgram, CannotOpen) {
   auto const absent = count(folder_.path("absent"));
   EXPECT_EQ(absent.status, 3);
   EXPECT_EQ(absent.err, "hoflow-tracker: " + folder_.path("absent") + ": No such file or directory\n");
   EXPECT_EQ(absent.out, "");
   EXPECT_EQ(count(folder_.path()).err, "hoflow-tracker: " + folder_.path() + ": Is a directory\n");
   auto const capture = folder_.write("traffic", traffic(10).bytes);
   auto const file = folder_.write("file", Bytes{1});
   auto const noRoot = run({capture, "--root", file + "/below"});
   EXPECT_EQ(noRoot.status, 3) << noRoot.err;
   EXPECT_TRUE(contains(noRoot.err, file)) << noRoot.err;
}

TEST_F(TrackerProgram, Figures) {
   Pcap pcap = traffic(90);
   pcap.add(ethernet(0x0806) + zeros(28));
   pcap.add(ethernet(0x0800) + Ip4{.versionAndLength = 0x44}.bytes());
   auto const result = count(folder_.write("traffic", pcap.bytes));
   ASSERT_EQ(result.status, 0) << result.err;
   EXPECT_EQ(result.err, "");
   auto const figures = json::parse(result.out);
   EXPECT_EQ(figures["packetsRead"], 92);
   EXPECT_EQ(figures["packets"], 90);
   EXPECT_EQ(figures["flows"], 90);
   EXPECT_EQ(figures["ip4"]["packets"], 60);
   EXPECT_EQ(figures["bytes"], 60 * 28 + 30 * 48);
   EXPECT_EQ(figures["notCounted"]["notIp"], 1);
   EXPECT_EQ(figures["notCounted"]["malformed"], 1);
   EXPECT_EQ(figures["complete"], true);
   EXPECT_EQ(rows().size(), 90u);
   auto const text = run({folder_.path("traffic"), "--root", root_, "--name", "other"});
   EXPECT_TRUE(contains(text.out, "90 (60 IPv4, 30 IPv6)")) << text.out;
   EXPECT_EQ(rows("other"), rows());
}

TEST_F(TrackerProgram, DamagedCapture) {
   auto const good = folder_.write("good", traffic(30).bytes);
   ASSERT_EQ(count(good).status, 0);
   auto const before = rows();
   auto const empty = count(folder_.write("empty", {}));
   EXPECT_EQ(empty.status, 4);
   EXPECT_TRUE(contains(empty.err, folder_.path("empty"))) << empty.err;
   EXPECT_EQ(rows(), before) << "a file that is no capture changes no table";

   Pcap pcap = traffic(20);
   pcap.bytes.resize(pcap.starts[12] + 5);
   auto const cut = count(folder_.write("cut", pcap.bytes), {"--name", "cut"});
   EXPECT_EQ(cut.status, 4);
   EXPECT_TRUE(contains(cut.err, "packet 13 is damaged")) << cut.err;
   EXPECT_TRUE(contains(cut.err, "12 packets before it are counted")) << cut.err;
   auto const figures = json::parse(cut.out);
   EXPECT_EQ(figures["damage"]["packet"], 13);
   EXPECT_EQ(figures["packets"], 12);
   EXPECT_EQ(rows("cut").size(), 12u);
   EXPECT_EQ(count(folder_.path("cut"), {"--name", "cut"}).status, 4) << "also when all is counted already";
   EXPECT_EQ(rows("cut").size(), 12u);
}

TEST_F(TrackerProgram, LinkTypeNotSupported) {
   ASSERT_EQ(count(folder_.write("good", traffic(30).bytes)).status, 0);
   auto const before = rows();
   Pcap pcap(105);
   pcap.add(zeros(60));
   auto const result = count(folder_.write("wifi", pcap.bytes));
   EXPECT_EQ(result.status, 5);
   EXPECT_TRUE(contains(result.err, "IEEE802_11 (105)")) << result.err;
   EXPECT_EQ(json::parse(result.out)["notCounted"]["linkType"], 1);
   EXPECT_EQ(rows(), before) << "a capture of which nothing can be counted changes no table";
}

TEST_F(TrackerProgram, OutputNotWritten) {
   auto const capture = folder_.write("traffic", traffic(30).bytes);
   Program::Tracker tracker(folder_.path(), {capture, "--root", root_}, "full", "/dev/null", "/dev/full");
   auto const result = tracker.wait();
   EXPECT_EQ(result.status, 5);
   EXPECT_TRUE(contains(result.err, "standard output can't be written")) << result.err;
   EXPECT_EQ(rows().size(), 30u);
}

TEST_F(TrackerProgram, StoppedWhileItWaitsForPackets) {
   auto const pipe = folder_.path("pipe");
   ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
   int const end =
       open(pipe.c_str(), O_RDWR | O_CLOEXEC); // held open, so that there is never an end of the file
   Program::Tracker tracker(folder_.path(), {"-", "--root", root_}, "run", pipe);
   auto const bytes = traffic(500).bytes;
   ASSERT_EQ(write(end, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
   auto const table = root_ + "/flowtracking/default/hwOffload/counter/capture/hoIp6FlowCounter";
   while (!std::filesystem::exists(table + "/kestor"))
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   tracker.signal(SIGTERM);
   auto const result = tracker.wait();
   close(end);
   EXPECT_EQ(result.status, 5) << result.err;
   EXPECT_TRUE(contains(result.err, "stopped after packet")) << result.err;
   EXPECT_FALSE(contains(result.err, "damaged")) << result.err;
}

TEST_F(TrackerProgram, TablesThatCannotBeTakenOver) {
   auto const capture = folder_.write("traffic", traffic(90).bytes);
   ASSERT_EQ(count(capture).status, 0);
   auto const wanted = rows();
   auto const owner = root_ + "/flowtracking/default/hwOffload/counter/capture/hoIpFlowCounter/owner";
   std::filesystem::resize_file(owner, 50);
   auto const anew = count(capture);
   EXPECT_EQ(anew.status, 0);
   EXPECT_TRUE(contains(anew.err, "hoIpFlowCounter: what is there can't be taken over (")) << anew.err;
   EXPECT_TRUE(contains(anew.err, "bad owner size:50")) << anew.err;
   EXPECT_EQ(std::count(anew.err.begin(), anew.err.end(), '\n'), 1) << anew.err;
   EXPECT_EQ(rows(), wanted);

   std::filesystem::remove(owner);
   std::filesystem::create_directory(owner);
   auto const refused = count(capture);
   EXPECT_EQ(refused.status, 3);
   EXPECT_TRUE(contains(refused.err, owner)) << refused.err;
}

TEST_F(TrackerProgram, AnotherCaptureUnderTheSameName) {
   ASSERT_EQ(count(folder_.write("one", traffic(100).bytes)).status, 0);
   Pcap other;
   for (unsigned i = 0; i < 9; ++i) other.add(ethernet(0x0800) + Ip4{}.bytes());
   auto const result = count(folder_.write("other", other.bytes));
   EXPECT_EQ(result.status, 0);
   EXPECT_TRUE(contains(result.err, "hoIpFlowCounter held 66 rows")) << result.err;
   EXPECT_EQ(rows(), (std::multiset<std::string>{"4\t0\t6\t10.0.0.1\t10.0.0.2\t1234\t80\t9\t360"}));
}

TEST_F(TrackerProgram, OneTrackerATable) {
   auto const capture = folder_.write("traffic", traffic(500).bytes);
   Program::Tracker first(folder_.path(), {capture, "--root", root_, "--pace", "50"}, "first");
   while (!std::filesystem::exists(
       root_ + "/flowtracking/default/hwOffload/counter/status/hosStateIp6Counter/kestor"))
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   auto const second = count(capture);
   EXPECT_EQ(second.status, 3) << second.err;
   EXPECT_TRUE(contains(second.err, "the tables can't be opened")) << second.err;
   auto const other = count(capture, {"--name", "other"}); // has tables of its own, but for one
   EXPECT_EQ(other.status, 0) << other.err;
   EXPECT_TRUE(contains(other.err, "the counts by state are not kept")) << other.err;
   EXPECT_EQ(rows("other").size(), 500u);
   first.signal(SIGTERM);
   auto const stopped = first.wait();
   EXPECT_EQ(stopped.status, 5) << stopped.err;
   EXPECT_TRUE(contains(stopped.err, "stopped after packet")) << stopped.err;
   auto const rest = count(capture);
   ASSERT_EQ(rest.status, 0) << rest.err;
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
