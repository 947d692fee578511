// SPDX-License-Identifier: Apache-2.0
// A reader here, its writer in another process that comes, dies, takes its files up again, formats them anew,
// cleans up, and damages them. Only inotify can tell the reader (the poll is an hour away).
#include "Support.h"

using namespace Test;

namespace {

struct Processes : testing::Test {
   Processes()
      : table("processes/" + std::string(testing::UnitTest::GetInstance()->current_test_info()->name()))
      , writer(table)
      , reader(table) {}
   void init() { reader.init(settings(MirakType::reader)); }
   bool attaches() {
      return runUntil([&] { return reader.mounted(); });
   }
   bool leaves() {
      return runUntil([&] { return !reader.mounted(); });
   }
   /// Makes the writer's next start format the files anew.
   void spoil() { fs::remove(fileOf(table, "buckets")); }
   /// Overwrites the index behind its header and its first word, so that no chain leads to a row.
   void damage() {
      std::string const bytes(2048, '\x55');
      Mem::Descriptor const file(::open(fileOf(table, "buckets").c_str(), O_WRONLY | O_CLOEXEC));
      ASSERT_EQ(::pwrite(file.get(), bytes.data(), bytes.size(), 24), ssize_t(bytes.size()));
   }
   /// Reads until the damage is met. Which keys lead there depends on the hash.
   void meetDamage() {
      for (u32 number = 0; number < 4096; ++number) reader.get(number);
   }

   NoPoll const noPoll;
   Traces const traces{2};
   std::string const table;
   WriterProcess writer;
   Client<QueuedOps> reader;
};

} // namespace

TEST_F(Processes, AWriterThatComesDiesAndComesBack) {
   init();
   settle();
   EXPECT_TRUE(reader.heard().empty());
   writer.start(); // makes the directories, too
   ASSERT_TRUE(attaches());
   EXPECT_EQ(reader.heard(), mountedLog);
   writer.ask('w', 1);
   EXPECT_EQ(reader.get(1), 1u);
   EXPECT_EQ(reader.owner(), fmt::format("{}:{}", Mem::WriterLock::processName(writer.process().pid()),
                                         writer.process().pid()));
   auto const kestor = reader.kestorId();

   // A dead writer leaves the table; the next one carries on with it.
   writer.kill();
   settle();
   EXPECT_EQ(reader.get(1), 1u);
   EXPECT_EQ(reader.owner(), ":0");
   writer.start();
   writer.ask('w', 2);
   settle();
   EXPECT_EQ(reader.get(2), 2u);
   EXPECT_TRUE(reader.heard().empty());
   EXPECT_EQ(reader.kestorId(), kestor);

   // Formatted anew under the reader: it loses the old table before it sees the new one.
   writer.ask('d');
   auto const changes = reader.backChanges();
   spoil();
   writer.ask('i');
   EXPECT_EQ(reader.get(1), 0u) << "before the sentry has looked";
   EXPECT_EQ(traces.count("corruption detected"), 0u) << "that is no damage";
   ASSERT_TRUE(runUntil([&] { return reader.mounted() && reader.kestorId() != kestor; }));
   EXPECT_FALSE(fs::exists(fileOf(table, "corruption-detected")));
   EXPECT_EQ(reader.heard(), (Log{"not quiesced", "status 0", "quiesced", "status 1"}));
   EXPECT_GT(reader.backChanges(), changes);
   EXPECT_EQ(reader.get(1), 0u);

   // Killed in the middle of a format: there is no table until the next start.
   writer.kill();
   fs::remove(fileOf(table, "kestor"));
   ASSERT_TRUE(leaves());
   EXPECT_EQ(reader.heard(), detachedLog);
   writer.start();
   ASSERT_TRUE(attaches());
   EXPECT_EQ(reader.heard(), mountedLog);

   // The end of the table, and another one in its place.
   writer.ask('c');
   ASSERT_TRUE(leaves());
   EXPECT_EQ(reader.heard(), detachedLog);
   writer.ask('i');
   writer.ask('w', 3);
   ASSERT_TRUE(attaches());
   EXPECT_EQ(reader.get(3), 3u);

   // The directory goes, with its parents, and comes again.
   writer.kill();
   fs::remove_all(testRoot() + "/processes");
   ASSERT_TRUE(leaves());
   writer.start();
   ASSERT_TRUE(attaches());
   reader.controlDetach();
}

TEST_F(Processes, FilesOfTheSameGenerationAreOtherFiles) {
   writer.start();
   writer.ask('w', 1);
   writer.ask('d');
   init();
   ASSERT_TRUE(attaches());
   auto const kestor = reader.kestorId();
   reader.heard();
   // A copy in the table's place: same generation, other rows later on.
   std::string const here = testRoot() + "/" + table;
   fs::copy(here, here + "-copy");
   fs::rename(here, here + "-old");
   fs::rename(here + "-copy", here);
   ASSERT_TRUE(runUntil([&] { return reader.log.size() >= 4; }));
   EXPECT_EQ(reader.heard(), (Log{"not quiesced", "status 0", "quiesced", "status 1"}));
   EXPECT_EQ(reader.kestorId(), kestor);
   writer.ask('i');
   writer.ask('w', 2);
   EXPECT_EQ(reader.get(2), 2u);
   reader.controlDetach();
}

TEST_F(Processes, DamageThatAReaderMeets) {
   writer.start();
   for (u32 number = 0; number < 90; ++number) writer.ask('w', number + 1);
   init();
   ASSERT_TRUE(attaches());
   reader.heard();
   damage();
   meetDamage();
   EXPECT_EQ(traces.count("corruption detected in " + table), 1u) << "told once, not for each read";
   EXPECT_TRUE(fs::exists(fileOf(table, "corruption-detected")));
   EXPECT_TRUE(reader.heard().empty()) << "not on the read's stack";
   ASSERT_TRUE(leaves());
   EXPECT_EQ(reader.heard(), detachedLog);
   EXPECT_EQ(reader.get(1), 0u);
   // The marker made the writer prove its table, which stopped it. The reader waits.
   EXPECT_EQ(writer.process().wait(), -SIGABRT);
   auto const attempts = [&] { return traces.count("attempting to attach"); };
   auto const before = attempts();
   for (int i = 0; i < 20; ++i) {
      fs::permissions(fileOf(table, "slots"), fs::perms::owner_read | fs::perms::owner_write);
      loop().run(0.5);
      settle();
      reader.tryAttach();
   }
   EXPECT_EQ(attempts(), before) << "it must not go round and round on a damaged table";
   writer.start(); // formats anew
   ASSERT_TRUE(attaches());
   EXPECT_EQ(reader.heard(), mountedLog);
   EXPECT_FALSE(fs::exists(fileOf(table, "corruption-detected")));
   reader.controlDetach();
}

TEST_F(Processes, DamageThatAReaderFindsAtItsStart) {
   writer.start();
   writer.ask('d');
   std::string const slots = fileOf(table, "slots");
   u32 const foreign = 0x12345678;
   Mem::Descriptor const file(::open(slots.c_str(), O_RDWR | O_CLOEXEC));
   char header[64];
   ASSERT_EQ(::pread(file.get(), header, sizeof header, 0), ssize_t(sizeof header));
   ASSERT_EQ(::pwrite(file.get(), &foreign, 4, 0), 4);
   init();
   EXPECT_FALSE(reader.mounted());
   EXPECT_EQ(traces.count("attempting to attach"), 1u);
   EXPECT_TRUE(fs::exists(fileOf(table, "corruption-detected")));
   loop().run(0.2);
   settle();
   EXPECT_EQ(traces.count("attempting to attach"), 1u);
   // Whoever repairs it takes the marker away.
   ASSERT_EQ(::pwrite(file.get(), header, sizeof header, 0), ssize_t(sizeof header));
   fs::remove(fileOf(table, "corruption-detected"));
   ASSERT_TRUE(attaches());
   reader.controlDetach();
}

TEST_F(Processes, WhatTheSystemRefusesIsTriedAgain) {
   writer.start();
   Mem::DirectoryWatch::pollPeriodIs(0.05);
   std::string const buckets = fileOf(table, "buckets");
   fs::rename(buckets, buckets + "-away");
   init();
   EXPECT_FALSE(reader.mounted());
   EXPECT_EQ(traces.count("initialize failed"), 1u);
   // Nothing happens in the directory; the reason may have been elsewhere.
   EXPECT_TRUE(runUntil([&] { return traces.count("initialize failed") >= 3; }));
   fs::rename(buckets + "-away", buckets);
   EXPECT_TRUE(attaches());
   reader.controlDetach();
}
