// SPDX-License-Identifier: Apache-2.0
// One process writes as fast as it can, and others read (Workload.h).
#include "TestRoot.h"
#include "Workload.h"

#include <gtest/gtest.h>

namespace Test::Workload {
namespace {

TEST(Stress, ReadersBesideABusyWriter) {
   constexpr u32 tides = 6000, readers = 2;
   u64 const target = setting("HOFLOW_STRESS_READS", 40'000'000 / slow),
             seed = setting("HOFLOW_SEED", std::random_device{}());
   double const limit =
       static_cast<double>(setting("HOFLOW_STRESS_SECONDS", target > 40'000'000 ? 3600 : 120));
   fmt::print("HOFLOW_SEED={} HOFLOW_STRESS_READS={}\n", seed, target);
   testRoot();
   SharedReport<Shared> shared;
   double const begin = now();
   {
      std::vector<std::unique_ptr<Child>> children;
      for (u32 i = 0; i < readers; ++i)
         children.push_back(std::make_unique<Child>([&] { read(*shared, seed + i, tides); }));
      children.push_back(std::make_unique<Child>([&] {
         Table table;
         write(table, *shared, seed, tides);
         auto const counters = table.writerCounters();
         if (counters.bucketGrows == 0 || counters.bucketShrinks == 0)
            shared->complaint.say("the bucket table never changed");
         if (counters.slotShrinks == 0 || counters.slotsMoved == 0)
            shared->complaint.say("no slot was given back");
      }));
      while (shared->reads < target && shared->complaint.count == 0 && now() - begin < limit) pause(0.02);
      shared->stop = true;
      for (auto& child : children) EXPECT_EQ(child->wait(), 0);
   }
   EXPECT_STREQ(shared->complaint.text, "");
   EXPECT_GE(shared->reads, std::min<u64>(target, 1'000'000 / slow));
   EXPECT_GT(shared->retries, 0u);
   EXPECT_GT(shared->lookasideReads, 0u);
   EXPECT_GT(shared->slowSteps, 0u);
   EXPECT_GT(shared->wrapperRetries, 0u);
   EXPECT_GT(shared->slotResizes, readers); // the first one maps the table
   EXPECT_GT(shared->bucketResizes, 0u);
}

} // namespace
} // namespace Test::Workload
