// SPDX-License-Identifier: Apache-2.0
// A tracker on real tables that dies before each single store into shared memory and before each call that
// changes a file, from the start on empty folders to the last packet, growth of slots and buckets included.
// Each time another tracker is started on what was left: it must end with exactly the capture's rows in both
// tables, those that the capture's second reading by plain maps gives. Each death is that of a forked process
// that ends without a word.
//
// What it can't see: stores that reach memory out of order, which x86 doesn't do between a process's death
// and the next process. Half a minute on a quiet machine.
#include "Capture.h"
#include "Lomi/Trace.h"
#include "Mem/Paths.h"
#include "Mem/Seam.h"
#include "MemoryStore.h"
#include "Packets.h"
#include "Tables.h"
#include "Track.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

namespace Tracker {
namespace {

using namespace Packets;
using Agents::Figures;
using FlowTracking::HoIp6FlowCounter;
using FlowTracking::HoIpFlowCounter;

/// Counts the places where a process may die, and dies at one of them.
class Death : public Mem::Seam::Observer {
public:
   explicit Death(std::uint64_t at)
      : at_(at) {
      Mem::Seam::observer = this;
   }
   ~Death() override { Mem::Seam::observer = nullptr; }
   void beforeStore(void*, void const*, std::size_t) override { pass(); }
   void beforeFileCall(Mem::Seam::FileCall const&) override { pass(); }
   std::uint64_t passed() const { return passed_; }

private:
   void pass() {
      if (passed_++ == at_) _exit(9);
   }
   std::uint64_t at_, passed_ = 0;
};

/// Enough flows of IPv4 for the slot file to grow beyond its first page and the buckets to double five times,
/// some of IPv6 in between, and flows that come again.
Pcap someTraffic() {
   Pcap pcap;
   for (unsigned i = 0; i < 54; ++i) {
      bool const ip6 = i % 6 == 5;
      unsigned const port = i % 11 == 10 ? i / 2 : i;
      Bytes const payload = be16(port) + be16(53) + zeros(i % 20);
      pcap.add(ip6 ? ethernet(0x86dd) + Ip6{.nextHeader = 17, .payload = payload}.bytes()
                   : ethernet(0x0800) + Ip4{.protocol = 17, .payload = payload}.bytes(),
               1700000000 + i);
   }
   return pcap;
}

Figures count(std::string const& path, Agents::RowStore<HoIpFlowCounter>& table4,
              Agents::RowStore<HoIp6FlowCounter>& table6) {
   Agents::Capture capture(path);
   return countAll(capture, table4, table6);
}

template <class Record> std::map<typename Record::Key, Record> rowsIn(Agents::RowStore<Record> const& table) {
   std::map<typename Record::Key, Record> rows;
   table.forEach([&](Record const& row) { rows.emplace(row.key(), row); });
   return rows;
}

class Kill : public testing::Test {
protected:
   Kill() {
      Lomi::Platform::defaultMaskIs(0); // half-done tables are what this is about
      path_ = folder_.write("traffic", someTraffic().bytes);
      count(path_, wanted4_, wanted6_);
   }

   void freshRoot() {
      std::filesystem::remove_all(folder_.path("root"));
      Mem::RootPath::set(folder_.path("root"));
   }

   /// A whole run in a process of its own that dies at place `at`. False if it got through alive.
   bool dies(std::uint64_t at) {
      pid_t const child = fork();
      if (child == 0) {
         Death const death(at);
         Agents::CounterTables tables("kill", "test");
         count(path_, tables.ip4, tables.ip6);
         _exit(0);
      }
      int status = 0;
      waitpid(child, &status, 0);
      EXPECT_TRUE(WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 9)) << status;
      return status != 0;
   }

   /// A whole run that nobody kills; then the tables must be right.
   Figures endsRight() {
      Agents::CounterTables tables("kill", "test");
      Figures const figures = count(path_, tables.ip4, tables.ip6);
      EXPECT_TRUE(rowsIn(tables.ip4) == wanted4_.content());
      EXPECT_TRUE(rowsIn(tables.ip6) == wanted6_.content());
      return figures;
   }

   Folder folder_{"/dev/shm"}; // files in memory, as in use, and quick
   std::string path_;
   MemoryStore<HoIpFlowCounter> wanted4_;
   MemoryStore<HoIp6FlowCounter> wanted6_;
};

TEST_F(Kill, AtEveryStore) {
   unsigned adopted = 0, anew = 0, oneOfTwo = 0;
   std::uint64_t at = 0;
   for (freshRoot(); dies(at); freshRoot(), ++at) {
      Figures const figures = endsRight();
      ASSERT_FALSE(HasFailure()) << "died at place " << at;
      bool const kept4 = figures.ip4.packetsKept != 0, kept6 = figures.ip6.packetsKept != 0;
      adopted += kept4 && kept6;
      anew += !kept4 && !kept6;
      oneOfTwo += kept4 != kept6;
   }
   // All that can happen did happen, often.
   EXPECT_GT(at, 1000u);
   EXPECT_GT(adopted, 20u);
   EXPECT_GT(anew, 100u);
   EXPECT_GT(oneOfTwo, 300u);
   RecordProperty("places", static_cast<int>(at));
}

} // namespace
} // namespace Tracker
