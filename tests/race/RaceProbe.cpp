// SPDX-License-Identifier: Apache-2.0
// The stress test's writer and reader as two threads of one process, on one and the same mapping: every
// access of one side that could race with the other's has the same address on both. With the argument "race"
// the writer also changes a row past Mem/SharedWords.h, as a careless writer would: a race detector must say
// so, or it sees nothing at all here.
//
// Direct mode is left out: its caller fills a place with plain stores that a late reader may still be
// copying, and that reader throws its copy away.
#include "TestRoot.h"
#include "Workload.h"

#include <thread>

using namespace Test::Workload;

namespace {

// A writer's bases stay where they are: it holds the address space for all of its growth.
char *slotBase = nullptr, *bucketBase = nullptr;
char* baseOf(std::string const& path) { return path.ends_with("/slots") ? slotBase : bucketBase; }

} // namespace

int main(int argc, char**) {
   constexpr Test::u32 tides = 1000;
   bool const race = argc > 1;
   Test::testRoot();
   Shared shared;
   Table table;
   slotBase = table.slotTable().wrapper().base();
   bucketBase = table.hashMap().buckets().wrapper().base();
   Mem::ParcelWrapper::sharedBase = baseOf;
   std::thread reading([&] { read(shared, 1, tides); });
   std::atomic<int> highTides{0};
   std::thread ending([&] {
      auto const wait = [&](auto const& until) {
         while (!until() && shared.complaint.count == 0) Test::pause(0.01);
      };
      // Resizes are there to be followed, and a whole walk follows them.
      wait([&] { return highTides >= 3; });
      Test::u64 const enough = std::max<Test::u64>(200, shared.walks + 2);
      wait([&] { return shared.walks >= enough; });
      shared.stop = true;
   });
   write(table, shared, 1, tides, [&] {
      ++highTides;
      if (!race) return;
      bool found = false;
      R const* const row = table.lookup(stayingKey(3), found, nullptr);
      *const_cast<Test::u32 volatile*>(&row->words[1]) = row->words[1];
   });
   reading.join();
   ending.join();
   if (slotBase != table.slotTable().wrapper().base() ||
       bucketBase != table.hashMap().buckets().wrapper().base())
      shared.complaint.say("a base moved: the reader looked elsewhere");
   fmt::print("{} walks, {} bucket resizes followed. {}\n", shared.walks.load(), shared.bucketResizes.load(),
              shared.complaint.text);
   return shared.complaint.count != 0 || shared.bucketResizes == 0;
}
