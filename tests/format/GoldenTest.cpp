// SPDX-License-Identifier: Apache-2.0
// The files of yesterday are read and adopted by the code of today: copies of the golden tables, which an
// earlier build wrote, must give their rows to a reader, and a writer must adopt them with the same
// generation. If this fails after a deliberate change of the format, the format's version has to be raised,
// and the golden files made anew.
#include "FlowTracking/Tables.h"
#include "Mem/Paths.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <set>

namespace {

namespace fs = std::filesystem;

struct GoldenTest : testing::Test {
   fs::path root = fs::temp_directory_path() / ("hoflow-golden." + std::to_string(::getpid()));
   std::shared_ptr<Lomi::Platform::DebugHandler> handler = Lomi::Platform::getDebugHandler("golden", true);

   GoldenTest() {
      fs::remove_all(root);
      fs::copy(HOFLOW_GOLDEN, root, fs::copy_options::recursive);
      Mem::RootPath::set(root.string());
   }
   ~GoldenTest() override { fs::remove_all(root); }

   template <class Table> std::multiset<unsigned long long> counts(Table const& table) {
      std::multiset<unsigned long long> found;
      typename Table::Value value;
      Mirak::IterHint hint;
      for (bool more = table.first(value, hint); more; more = table.next(value.fwkKey(), value, hint))
         found.insert(value.packets() * 10000 + value.bytes());
      return found;
   }

   template <class Ops> void check(char const* name, std::multiset<unsigned long long> const& wanted) {
      Parcel::KestorId generation;
      {
         Mirak::MirakReader<Ops> reader(*handler, name, Ops());
         ASSERT_TRUE(reader.initialize("golden")) << reader.initializeError();
         EXPECT_EQ(counts(reader), wanted);
         generation = reader.kestorId();
      }
      Mirak::MirakWriter<Ops> writer(*handler, name, Mirak::MapDescriptor(1u << 20));
      writer.initialize("golden");
      EXPECT_EQ(writer.kestorId(), generation) << "formatted anew instead of adopted";
      EXPECT_EQ(counts(writer), wanted);
   }
};

TEST_F(GoldenTest, Ip4TableIsReadAndAdopted) {
   check<FlowTracking::HoIpFlowCounterOps>("hoIpFlowCounter", {10080, 10092, 10228, 20100, 30420});
}

TEST_F(GoldenTest, Ip6TableIsReadAndAdopted) {
   check<FlowTracking::HoIp6FlowCounterOps>("hoIp6FlowCounter", {10078, 20720});
}

} // namespace
