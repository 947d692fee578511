// SPDX-License-Identifier: Apache-2.0
// A writer and a reader as two threads of one process, on one and the same mapping: every access of one side
// that could race with the other's has the same address on both. The operations are those of the stress test,
// growth and halving of the bucket table included. With the argument "race" the writer also changes a row
// past Mem/SharedWords.h, as a careless writer would: a race detector must say so, or it sees nothing at all
// here.
//
// Direct mode is left out: its caller fills a place with plain stores that a late reader may still be
// copying, and that reader throws its copy away.
#include "Judge.h"
#include "TestTable.h"

#include <atomic>
#include <filesystem>
#include <thread>
#include <unistd.h>

using namespace Test;
using R = Row<7>;
using Writer = Mirak::MirakWriter<OpsOf<R>>;
using Reader = Mirak::MirakReader<OpsOf<R>>;

namespace {

// A writer's bases stay where they are: it holds the address space for all of its growth.
char *slotBase = nullptr, *bucketBase = nullptr;
char* baseOf(std::string const& path) { return path.ends_with("/slots") ? slotBase : bucketBase; }

Key stayingKey(u32 i) { return {i % 4 == 0 ? 0x33u : i * 0x9e3779b1u, i}; }
constexpr u32 staying = 40, tide = 400;

} // namespace

int main(int argc, char**) {
   bool const race = argc > 1;
   std::string const root = "/dev/shm/hoflow-race-" + std::to_string(::getpid());
   std::filesystem::create_directories(root);
   Mem::RootPath::set(root);
   Writer table(quiet(), "race", Mirak::MapDescriptor(300));
   table.initialize("test");
   slotBase = table.slotTable().wrapper().base();
   bucketBase = table.hashMap().buckets().wrapper().base();
   for (u32 i = 0; i < staying; ++i) table.write(R::make(stayingKey(i), 1), true);

   Mem::ParcelWrapper::sharedBase = baseOf;
   std::atomic<bool> stop{false};
   std::atomic<u64> wrong{0}, reads{0};
   u64 resizes = 0;
   std::thread reading([&] {
      Reader reader(quiet(), "race", {});
      if (!reader.initialize("test")) ++wrong;
      while (!stop) {
         for (u32 i = 0; i < staying; ++i) {
            bool found = false;
            R row;
            reader.lookup(stayingKey(i), found, &row);
            if (!found || !row.sound()) ++wrong;
         }
         u32 seen = 0;
         for (R const& row : walkAll<R>(reader)) {
            if (!row.sound()) ++wrong;
            seen += row.key().number < staying;
         }
         if (seen != staying) ++wrong;
         ++reads;
      }
      resizes = reader.readerCounters().buckets.resizes;
   });
   u32 generation = 1;
   for (u32 round = 0; round < 100 || reads < 200; ++round) {
      for (u32 i = 0; i < tide; ++i) {
         table.write(R::make({i * 77777u, 1000 + i}, ++generation), true);
         table.write(R::make(stayingKey(i % staying), ++generation), true);
      }
      if (race) {
         bool found = false;
         R const* const row = table.lookup(stayingKey(3), found, nullptr);
         *const_cast<u32 volatile*>(&row->words[1]) = row->words[1];
      }
      R removed;
      for (u32 i = 0; i < tide; ++i) table.remove({i * 77777u, 1000 + i}, removed);
   }
   stop = true;
   reading.join();
   std::filesystem::remove_all(root);
   if (slotBase != table.slotTable().wrapper().base() ||
       bucketBase != table.hashMap().buckets().wrapper().base()) {
      fmt::print("a base moved: the reader looked elsewhere\n");
      return 1;
   }
   fmt::print("{} rounds of the reader, {} wrong, {} bucket resizes followed\n", reads.load(), wrong.load(),
              resizes);
   return wrong != 0 || resizes == 0;
}
