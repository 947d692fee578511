// SPDX-License-Identifier: Apache-2.0
// The stress test's writer and reader as two threads of one process, on one and the same mapping: every
// access of one side that could race with the other's has the same address on both. With the argument "race"
// the writer also changes a row past Mem/SharedWords.h, as a careless writer would: a race detector must say
// so, or it sees nothing at all here. With the argument "shadow" the other side is a
// mounted shadow, which follows the change queue and is woken through the socket.
//
// Direct mode is left out: its caller fills a place with plain stores that a late reader may still be
// copying, and that reader throws its copy away.
#include "Lomi/TaskSchedulerRoot.h"
#include "Mirak/MirakMap.h"
#include "TestRoot.h"
#include "Workload.h"

#include <fstream>
#include <string_view>
#include <thread>

using namespace Test::Workload;
using Test::u32;
using Test::u64;

namespace {

// Where the writer has mapped a file. Its bases stay where they are: it holds the address space for all of
// its growth.
char* baseOf(std::string const& path) {
   std::ifstream maps("/proc/self/maps");
   for (std::string line; std::getline(maps, line);)
      if (line.ends_with(" " + path) && line.find(" rw-s ") != std::string::npos)
         return reinterpret_cast<char*>(std::stoull(line, nullptr, 16));
   return nullptr;
}

int readBesideWriter(bool race) {
   constexpr u32 tides = 1000;
   Shared shared;
   Table table;
   std::string const slots = table.slotTable().wrapper().getFilename();
   std::string const buckets = table.hashMap().buckets().wrapper().getFilename();
   char* const bases[] = {baseOf(slots), baseOf(buckets)};
   std::thread reading([&] { read(shared, 1, tides); });
   std::atomic<int> highTides{0};
   std::thread ending([&] {
      auto const wait = [&](auto const& until) {
         while (!until() && shared.complaint.count == 0) Test::pause(0.01);
      };
      // Resizes are there to be followed, and a whole walk follows them.
      wait([&] { return highTides >= 3; });
      u64 const enough = std::max<u64>(200, shared.walks + 2);
      wait([&] { return shared.walks >= enough; });
      shared.stop = true;
   });
   write(table, shared, 1, tides, [&] {
      ++highTides;
      if (!race) return;
      bool found = false;
      R const* const row = table.lookup(stayingKey(3), found, nullptr);
      *const_cast<u32 volatile*>(&row->words[1]) = row->words[1];
   });
   reading.join();
   ending.join();
   if (bases[0] != baseOf(slots) || bases[1] != baseOf(buckets))
      shared.complaint.say("a base moved: the reader looked elsewhere");
   fmt::print("{} walks, {} bucket resizes followed. {}\n", shared.walks.load(), shared.bucketResizes.load(),
              shared.complaint.text);
   return shared.complaint.count != 0 || shared.bucketResizes == 0;
}

using Followed = Test::Row<7, true>;
using FollowedOps = Test::OpsOf<Followed>;
using FollowedWriter = Mirak::MirakWriter<FollowedOps>;

// The rows that stay are others each time, so that compactions have to move them.
template <class More> void changeWhile(FollowedWriter& writer, More const& more) {
   u32 generation = 0;
   Followed removed;
   auto const key = [](u32 i) { return Test::Key{i * 0x9e3779b1u, i}; };
   for (u32 tide = 0; tide < 40 || more(); ++tide) {
      for (u32 i = 0; i < 600; ++i) {
         writer.write(Followed::make(key(i), ++generation), true);
         if (i % 100 == 0) Lomi::TaskSchedulerRoot::root().run(0);
      }
      u32 const from = tide % 2 ? 0 : 580;
      for (u32 i = 0; i < 600; ++i)
         if (i - from >= 20) writer.remove(key(i), removed);
   }
}

struct Shadow : Mirak::MirakMap<FollowedOps> {
   explicit Shadow(std::string const& table)
      : MirakMap(table) {
      notify.changeFn = [this](Followed const& row) { heard[row.key()] = row.generation(); };
      notify.keyDelFn = [this](Test::Key const& key) { heard.erase(key); };
      backIs(createDefaultLocalWriter(*debugHandler));
   }
   Test::Content heard;
};

int shadowBesideWriter() {
   FollowedWriter writer(Test::quiet(), "shadowed", Mirak::MapDescriptor(500));
   writer.initialize("test");
   std::atomic<bool> done{false}, ended{false};
   std::atomic<u64> moved{0};
   Test::Content heard, rows;
   std::thread following([&] {
      auto& loop = Lomi::TaskSchedulerRoot::root();
      Shadow shadow("shadowed");
      Mirak::MapDescriptor descriptor(0);
      descriptor.type = Mirak::MirakType::shadow;
      shadow.init(descriptor);
      for (bool last = false; !last;) {
         last = done;
         loop.run(0.01);
         moved = shadow.readerCounters().shadowKeyMoves;
         last = last && shadow.mountStatus() == Mem::MountStatus::synchronised && shadow.quiesced();
      }
      heard = shadow.heard;
      ended = true;
      shadow.controlDetach();
   });
   changeWhile(writer, [&] { return moved == 0; });
   done = true;
   while (!ended) Lomi::TaskSchedulerRoot::root().run(0.01);
   following.join();
   Followed row;
   Mirak::IterHint hint;
   for (bool more = writer.first(row, hint); more; more = writer.next(row.key(), row, hint))
      rows[row.key()] = row.generation();
   fmt::print("{} rows, {} turns, {} moves met by the shadow\n", rows.size(),
              writer.writerCounters().queueTurns, moved.load());
   return heard != rows || rows.size() != 20;
}

} // namespace

int main(int argc, char** argv) {
   std::string_view const mode = argc > 1 ? argv[1] : "";
   Test::testRoot();
   Mem::ParcelWrapper::sharedBase = baseOf;
   if (mode == "shadow") return shadowBesideWriter();
   return readBesideWriter(mode == "race");
}
