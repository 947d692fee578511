// SPDX-License-Identifier: Apache-2.0
// Mounting thousands of times, and a writer that restarts under a mounted reader: descriptors, mappings,
// memory, watches and files are afterwards as they were after the first few rounds.
#include "Support.h"

#include <fstream>
#include <malloc.h>

using namespace Test;

namespace {

std::size_t lines(std::string const& path, std::string_view start = "") {
   std::ifstream in(path);
   std::size_t count = 0;
   for (std::string line; std::getline(in, line);) count += line.starts_with(start);
   return count;
}

struct Usage {
   std::size_t descriptors = 0, watches = 0, mappings = 0, heap = 0, files = 0;

   static Usage now() {
      Usage usage;
      for (auto const& entry : fs::directory_iterator("/proc/self/fd")) {
         ++usage.descriptors;
         usage.watches += lines("/proc/self/fdinfo/" + entry.path().filename().string(), "inotify wd");
      }
      usage.mappings = lines("/proc/self/maps");
      usage.heap = ::mallinfo2().uordblks; // 0 where a sanitizer has replaced malloc
      // A killed writer's socket keeps its name for ten seconds and a next writer's start.
      for (auto const& entry : fs::recursive_directory_iterator(testRoot()))
         usage.files += !entry.is_socket();
      return usage;
   }
};

void expectSame(Usage const& before, Usage const& after) {
   EXPECT_EQ(after.descriptors, before.descriptors);
   EXPECT_EQ(after.watches, before.watches);
   EXPECT_EQ(after.files, before.files);
   // The heap and the kernel may arrange themselves a little differently; a leak of a few bytes a round is
   // more.
   EXPECT_LE(after.mappings, before.mappings + 8);
   EXPECT_LE(after.heap, before.heap + 16384);
}

/// Runs `round` so often, and compares the usage after the first tenth with that at the end. What a round
/// leaves depends on its number, modulo 12 at most.
template <class Round> void repeat(u64 wanted, Round round) {
   u64 const rounds = (wanted + 23) / 12 * 12, warm = (rounds / 120 + 1) * 12;
   for (u64 i = 0; i < warm; ++i) round(i);
   Usage const before = Usage::now();
   for (u64 i = warm; i < rounds && !testing::Test::HasFailure(); ++i) round(i);
   expectSame(before, Usage::now());
}

} // namespace

TEST(Repeat, MountsAndUnmounts) {
   NoPoll const noPoll;
   Traces const traces(0, false);
   Client<QueuedOps> writer("repeat/mounts"), reader("repeat/mounts"), early("repeat/mounts");
   early.init(settings(MirakType::reader)); // is there all the time
   repeat(setting("HOFLOW_MOUNTS", 1000 / slow), [&](u64 i) {
      if (i % 3 == 0) reader.init(settings(MirakType::reader));
      writer.init(settings(MirakType::writer));
      writer.put(1, static_cast<u32>(i) + 1);
      if (i % 3 != 0) reader.init(settings(MirakType::reader));
      ASSERT_TRUE(runUntil([&] { return reader.mounted() && early.mounted(); })) << i;
      ASSERT_EQ(reader.get(1), i + 1);
      if (i % 2)
         writer.cleanupAndDetach();
      else
         writer.controlDetach();
      reader.controlDetach();
      ASSERT_TRUE(runUntil([&] { return early.mounted() == (i % 2 == 0); })) << i;
      settle();
      writer.heard(), reader.heard(), early.heard();
   });
   early.controlDetach();
}

TEST(Repeat, WriterRestartsUnderAMountedReader) {
   NoPoll const noPoll;
   Traces const traces(0, false);
   std::string const table = "repeat/restarts";
   WriterProcess writer(table);
   Client<QueuedOps> reader(table);
   reader.init(settings(MirakType::reader));
   repeat(setting("HOFLOW_RESTARTS", 100 / slow), [&](u64 i) {
      bool const anew = i % 4 == 3; // else it takes up what the killed one left
      auto const kestor = reader.kestorId();
      if (anew) fs::remove(fileOf(table, "buckets"));
      writer.start();
      writer.ask('w', static_cast<u32>(i) + 1);
      ASSERT_TRUE(runUntil([&] { return reader.mounted() && (!anew || reader.kestorId() != kestor); })) << i;
      ASSERT_EQ(reader.get(static_cast<u32>(i) + 1), i + 1);
      ASSERT_EQ(reader.get(static_cast<u32>(i)), anew ? 0 : i) << "the last one's row";
      if (i > 0 && !anew) {
         EXPECT_TRUE(reader.heard().empty()) << i << ": nothing has changed for the client";
      }
      reader.heard();
      writer.kill();
   });
   reader.controlDetach();
}
