// SPDX-License-Identifier: Apache-2.0
// A collection's states and the steps between them, one collection at a time: what its client is told, in
// which order, what it can do in each state, and every way in which a mount is refused.
#include "Support.h"

#include "Mem/VersionMismatchException.h"

#include <fstream>
#include <sys/resource.h>

using namespace Test;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

/// What an exception says, empty if there is none.
template <class Exception> std::string said(auto const& operation) {
   try {
      operation();
   } catch (Exception const& e) {
      return e.msg();
   }
   return "";
}
std::string refusal(auto& map, MapDescriptor const& descriptor) {
   return said<Lomi::InvalidInitializeException>([&] { map.init(descriptor); });
}
std::string readOnlyText(auto const& operation) { return said<Lomi::NoPermissionException>(operation); }

} // namespace

TEST(Mount, WriterFromItsPrivateTableToItsEnd) {
   Traces const traces(0);
   Client<QueuedOps> map("mount/writer");
   EXPECT_FALSE(map.initialized());
   EXPECT_EQ(map.maxSize(), 100u) << "the private table";
   EXPECT_TRUE(map.put(1, 1));
   EXPECT_EQ(map.mountStatus(), Mem::MountStatus::notMounted);
   EXPECT_TRUE(map.heard().empty());

   auto const wanted = settings(MirakType::writer);
   auto const changes = map.backChanges();
   map.init(wanted);
   EXPECT_EQ(map.heard(), mountedLog);
   EXPECT_GT(map.backChanges(), changes);
   EXPECT_EQ(map.get(1), 0u) << "the private rows are gone";
   EXPECT_TRUE(map.put(2, 7) && map.ready() && map.exists() && map.quiesced());
   EXPECT_THAT(map.owner(), testing::EndsWith(fmt::format(":{}", ::getpid())));
   EXPECT_THAT(map.owner(), testing::Not(testing::StartsWith(":")));
   map.init(wanted); // once more
   map.tryAttach();
   EXPECT_TRUE(map.heard().empty());
   EXPECT_EQ(
       refusal(map, settings(MirakType::writer, 101)),
       "name:mount/writer already initialized, old size:100 type:writer shrinkSlots shrinkBuckets pruneQueue "
       "synchronous, new size:101 type:writer shrinkSlots shrinkBuckets pruneQueue synchronous");
   EXPECT_EQ(map.get(2), 7u);
   auto clean = wanted;
   clean.cleanupOnInit = true;
   EXPECT_THAT(refusal(map, clean), HasSubstr("already initialized"));
   EXPECT_FALSE(fs::exists(fileOf("mount/writer", "slots"))) << "the files go first";
   EXPECT_EQ(map.get(2), 7u) << "and the writer goes on in them";

   map.controlDetach();
   EXPECT_EQ(map.heard(), detachedLog);
   EXPECT_FALSE(map.initialized());
   EXPECT_EQ(map.owner(), ":0");
   EXPECT_EQ(map.get(2), 0u);
   map.init(wanted);
   map.put(3, 9);
   map.controlDetach();
   map.controlDetach(); // placeholders don't pile up: what is behind is still reached
   EXPECT_TRUE(fs::exists(fileOf("mount/writer", "slots")));
   map.cleanup();
   EXPECT_FALSE(fs::exists(fileOf("mount/writer", "slots")));

   map.init(wanted);
   EXPECT_EQ(map.get(3), 0u);
   map.heard();
   map.cleanupAndDetach();
   EXPECT_EQ(map.heard(), detachedLog);
   EXPECT_FALSE(map.exists());
   EXPECT_DEATH(map.cleanupAndDetach(), "mount/writer trying to cleanup uninitialized mirak.");
}

TEST(Mount, ReaderWaitsIsAttachedAndLetGo) {
   NoPoll const noPoll;
   Traces const traces(0);
   Client<QueuedOps> reader("mount/reader"), writer("mount/reader");
   reader.init(settings(MirakType::reader, 0));
   EXPECT_TRUE(reader.initialized() && !reader.exists() && !reader.ready());
   EXPECT_EQ(reader.capacity(), 0u);
   EXPECT_EQ(reader.get(1), 0u);
   EXPECT_EQ(reader.owner(), ":0");
   reader.tryAttach();
   reader.notifyingIs(true);
   settle();
   EXPECT_TRUE(reader.heard().empty());
   EXPECT_EQ(readOnlyText([&] { reader.put(1, 1); }), "write to read-only Mirak table");

   writer.init(settings(MirakType::writer));
   writer.put(1, 5);
   reader.tryAttach(); // at once
   EXPECT_EQ(reader.heard(), mountedLog);
   reader.tryAttach();
   settle();
   EXPECT_TRUE(reader.heard().empty());
   EXPECT_EQ(reader.get(1), 5u);
   EXPECT_EQ(reader.kestorId(), writer.kestorId());
   reader.validateVersionAnchor();
   auto const cached = reader.getCacheVersionAnchor();
   EXPECT_TRUE(reader.compareVersionAnchor(cached));
   writer.put(1, 6);
   EXPECT_THROW(reader.validateVersionAnchor(), Mem::VersionMismatchException);
   EXPECT_EQ(reader.get(1), 6u);
   EXPECT_FALSE(reader.compareVersionAnchor(cached));
   EXPECT_EQ(readOnlyText([&] { reader.put(1, 1); }), "write to read-only Mirak table");
   Client<QueuedOps>::Value removed;
   EXPECT_EQ(readOnlyText([&] { reader.safeRemove({1, 1}, removed); }), "remove to read-only Mirak table");

   // Counts are kept over back ends.
   auto const lookups = reader.readerCounters().lookups;
   EXPECT_GE(lookups, 2u);
   reader.controlDetach();
   EXPECT_EQ(reader.heard(), detachedLog);
   EXPECT_EQ(reader.get(1), 0u);
   EXPECT_EQ(reader.readerCounters().lookups, lookups);
   EXPECT_EQ(reader.readerCounters().slotBytesMapped, 0u);
   writer.put(2, 2);
   settle();
   EXPECT_TRUE(reader.heard().empty()) << "nothing attaches it by itself";
   reader.init(settings(MirakType::reader)); // the table is there: mounted on return
   EXPECT_EQ(reader.heard(), mountedLog);
   EXPECT_EQ(reader.get(2), 2u);
   EXPECT_GT(reader.readerCounters().lookups, lookups);
   EXPECT_GE(writer.writerCounters().slotsAllocated, 2u);
}

TEST(Mount, RefusalsChangeNothing) {
   Traces const traces(0);
   Client<QueuedOps> map("mount/refused");
   map.put(1, 1);
   auto refused = [&](auto change, char const* words) {
      auto wanted = settings(MirakType::writer);
      change(wanted);
      EXPECT_EQ(refusal(map, wanted), words);
      EXPECT_EQ(map.get(1), 1u);
      EXPECT_FALSE(map.initialized() || map.mounter_);
   };
   refused([](auto& d) { d.heap = true; },
           "cannot initialize collection mount/refused heap allocation in non-local mode not allowed");
   refused([](auto& d) { d.size = 0; },
           "0 is not a valid initialization size for collection mount/refused in writer mode");
   EXPECT_THROW(map.init(Mem::CollectionDescriptor()), std::bad_cast);
   {
      Client<QueuedOps> other("mount/refused");
      other.init(settings(MirakType::writer));
      auto const words =
          fmt::format("table {} already has a writer: process {}", testRoot() + "/mount/refused", ::getpid());
      refused([](auto&) {}, words.c_str());
   }
   map.init(settings(MirakType::writer)); // and now it is free
   EXPECT_EQ(map.heard(), mountedLog);

   // A table without a queue can't be followed, also not locally. Callbacks that were to wait still work.
   Client<PlainOps> plain("mount/refused-plain");
   for (bool local : {true, false}) {
      auto wanted = settings(MirakType::shadow);
      wanted.synchronous = wanted.local = local;
      EXPECT_EQ(refusal(plain, wanted),
                "cannot initialize collection mount/refused-plain with DummyTesselWriter "
                "not supported in shadow mode");
      EXPECT_TRUE(plain.notify.notifyLive);
   }
   plain.init(MirakType::writer, true, 10);
   EXPECT_TRUE(plain.localMem() && plain.put(1, 1) && plain.exists() && !plain.mounter_);
   EXPECT_EQ(plain.heard(), mountedLog);
   plain.controlDetach();
}

TEST(Mount, AShadowWaitsOnItsPlaceholder) {
   Traces const traces(0);
   Client<QueuedOps> map("mount/shadow");
   auto wanted = settings(MirakType::shadow);
   wanted.synchronous = false;
   map.init(wanted);
   settle();
   EXPECT_TRUE(map.initialized() && map.heard().empty() && !map.notify.notifyLive);
   // Its callbacks wait, over mounts of its own kind too, and come back with one that doesn't make them wait.
   map.controlDetach();
   map.init(wanted);
   map.notify.deferredKeyDelFn({1, 1});
   EXPECT_EQ(map.heard(), (Log{"not quiesced", "status 0", "removed 0x1/1"}));
   EXPECT_DEATH(map.notifyingIs(false), "not allowed at this time, initialized:true keyNotifications:false");
   map.controlDetach();
   map.heard();
   wanted.local = true;
   map.init(wanted);
   EXPECT_TRUE(map.notify.notifyLive && !map.mounter_ && map.put(1, 1));
   map.notify.keyDelFn({1, 1});
   EXPECT_EQ(map.heard(), Log{"removed 0x1/1"}) << "a local table of another type than writer tells nothing";
}

TEST(Mount, BrokenPromisesStopTheProcess) {
   Client<QueuedOps> map("mount/promises");
   auto wanted = settings(MirakType::shadow);
   wanted.synchronous = false;
   map.notifyingIs(false);
   EXPECT_DEATH(map.init(wanted),
                "notifications unexpectedly disabled prior to initialization with asynchronous mode");
   map.notifyingIs(true);
   EXPECT_DEATH(map.init(static_cast<MirakType>(9), false, 10), "not a valid reader type:9");
   wanted.prevValue = true;
   EXPECT_DEATH(map.init(wanted),
                "prevValue mount-time option enabled without prevValueSupport ZEBO attribute enabled");
   EXPECT_DEATH(map.attach("x"), "invoked for a writer");
   EXPECT_DEATH(
       {
          map.init(settings(MirakType::reader));
          map.controlDetach();
          map.mounter_ = std::make_unique<Mem::ReaderSentry>(quiet(), map.rootPath(), &map);
          map.init(settings(MirakType::reader));
       },
       "Mirak mounter should not exist");
   EXPECT_DEATH(map.doCorruptionDetected("the words"), "corruption detected in mount/promises: the words");
   EXPECT_DEATH(Mirak::MirakMap<QueuedOps>("x").capacity(), "collection x has no back end yet");
   // An orphan whose owner wants nobody to touch it.
   map.init(settings(MirakType::writer));
   map.assertOnOrphanAccess = true;
   map.heard();
   map.controlDetach();
   EXPECT_EQ(map.heard(), detachedLog);
   map.cleanup(); // the teardown itself is allowed
   EXPECT_FALSE(fs::exists(fileOf("mount/promises", "slots")));
   EXPECT_FALSE(map.quiesced());
   EXPECT_DEATH(map.get(1), "you're trying to operate on an orphan mirak entity");
   EXPECT_DEATH(map.init(settings(MirakType::writer)),
                "Re-initializing a collection that has already become an orphan");
}

TEST(Mount, AClientMayLetGoInAnyCallback) {
   NoPoll const noPoll;
   Traces const traces(0);
   Client<QueuedOps> writer("mount/callback");
   for (auto const* word : {"quiesced", "status 1", "not quiesced", "status 0"})
      for (bool again : {false, true}) {
         SCOPED_TRACE(std::string(word) + (again ? ", and mounts again" : ""));
         for (auto type : {MirakType::writer, MirakType::reader}) {
            if (type == MirakType::reader && !writer.initialized()) writer.init(settings(MirakType::writer));
            if (type == MirakType::writer && writer.initialized()) writer.controlDetach();
            Client<QueuedOps> map("mount/callback");
            bool let = false;
            map.inCall = [&](std::string const& heard) {
               if (heard != word || std::exchange(let, true)) return;
               bool const within = heard == "not quiesced" || heard == "status 0";
               map.controlDetach();
               // Within a detach the collection still counts as mounted.
               if (again && !within) map.init(settings(type));
               map.log.push_back("done");
            };
            map.init(settings(type));
            if (type == MirakType::reader) settle();
            bool const inInit = let;
            if (!let) map.controlDetach();
            EXPECT_TRUE(let);
            EXPECT_EQ(map.initialized(), inInit && again);
            EXPECT_EQ(map.mounted(), inInit && again);
            if (inInit) {
               EXPECT_EQ(map.log.back(), "done") << "nothing is told of what was let go";
            }
            settle();
         }
      }
}

TEST(Mount, WithinItsOwnCallbacksACollectionIsMounted) {
   Traces const traces(0);
   Client<QueuedOps> writer("mount/within"), reader("mount/within");
   for (auto* map : {&writer, &reader}) {
      auto const type = map == &writer ? MirakType::writer : MirakType::reader;
      map->inCall = [&](std::string const&) {
         map->init(settings(type));
         EXPECT_THAT(refusal(*map, settings(type, 999)), HasSubstr("already initialized, old size:100"));
      };
      map->init(settings(type));
      EXPECT_EQ(map->heard(), mountedLog);
      EXPECT_TRUE(map->initialized() && map->mounted());
      map->inCall = {};
   }
}

TEST(Mount, ANameThatIsNoPathIsRefusedAndCanBeLetGo) {
   Traces const traces(0);
   std::string deep = "a";
   while (deep.size() < 5000) deep += "/a";
   for (std::string const& name : {std::string("/a"), std::string("a/../b"), std::string(256, 'a'), deep}) {
      Client<QueuedOps> map(name);
      EXPECT_TRUE(map.put(1, 1));
      for (auto type : {MirakType::writer, MirakType::reader})
         EXPECT_THAT(refusal(map, settings(type)), testing::StartsWith("bad table name \"")) << name;
      EXPECT_EQ(map.get(1), 1u);
      map.controlDetach(); // as an entity's that becomes an orphan
      EXPECT_EQ(map.heard(), detachedLog);
      EXPECT_FALSE(map.exists());
      EXPECT_EQ(map.owner(), ":0");
   }
   Client<QueuedOps> map("a\n/");
   EXPECT_EQ(refusal(map, settings(MirakType::writer)), "bad table name \"a\\x0a/\": a component is empty");
}

TEST(Mount, AMarkerIsProvedWhenTheTableIsWhole) {
   Traces const traces(0);
   Mem::DirectoryWatch::pollPeriodIs(0.02);
   Client<QueuedOps> map("mount/marker");
   map.init(settings(MirakType::writer));
   map.put(1, 1);
   std::string const marker = fileOf("mount/marker", "corruption-detected");
   auto* const row = map.back().directUpdate({1, 1});
   ASSERT_TRUE(row);
   std::ofstream{marker};
   for (int i = 0; i < 5; ++i) loop().run(0.05);
   EXPECT_TRUE(fs::exists(marker));
   *row = Client<QueuedOps>::Value::make({1, 1}, 2);
   map.directCommit();
   EXPECT_TRUE(runUntil([&] { return !fs::exists(marker); }));
   EXPECT_EQ(map.get(1), 2u);
   std::ofstream{marker}; // not again at once: the proof takes the writer's time
   for (int i = 0; i < 5; ++i) loop().run(0.05);
   EXPECT_TRUE(fs::exists(marker));

   // One that a reader left before the sentry had its first look.
   struct Proofs : Mem::WriterSentry::Notifiee {
      int count = 0;
      Parcel::KestorId kestorId() const override { return {}; }
      bool inDirectMode() const override { return false; }
      bool validate() override { return ++count; }
      bool validateFiles(std::string const&, unsigned) override { return true; }
   } proofs;
   map.controlDetach();
   std::ofstream{marker};
   Mem::WriterSentry sentry(quiet(), &proofs, map.rootPath());
   sentry.event(Mem::Sentry::eventInit, false);
   EXPECT_TRUE(runUntil([&] { return proofs.count == 1; }));
   Mem::DirectoryWatch::pollPeriodIs(5);
}

TEST(Mount, AReaderKeepsItsTableWhileItCantLook) {
   NoPoll const noPoll;
   Traces const traces(0);
   Client<QueuedOps> writer("mount/blind"), reader("mount/blind");
   writer.init(settings(MirakType::writer));
   writer.put(1, 1);
   reader.init(settings(MirakType::reader));
   settle();
   reader.heard();
   std::ofstream{fileOf("mount/blind", "something")};
   rlimit before;
   ::getrlimit(RLIMIT_NOFILE, &before);
   rlimit const few{3, before.rlim_max};
   ::setrlimit(RLIMIT_NOFILE, &few);
   settle();
   ::setrlimit(RLIMIT_NOFILE, &before);
   EXPECT_TRUE(reader.mounted() && reader.heard().empty());
   EXPECT_EQ(reader.get(1), 1u);
}

TEST(Mount, WhatACallbackThrowsLeavesNothingHalf) {
   Traces const traces(0);
   Client<QueuedOps> writer("mount/throws"), reader("mount/throws");
   writer.init(settings(MirakType::writer));
   reader.inCall = [](std::string const&) { throw std::runtime_error("mine"); };
   EXPECT_THROW(reader.init(settings(MirakType::reader)), std::runtime_error);
   EXPECT_FALSE(reader.initialized() || reader.mounter_);
   EXPECT_EQ(reader.maxSize(), 100u) << "its private table";
   // Where the root directory was changed on purpose, a sentry that doesn't start is no error.
   ::setenv("Q7_CHROOT", "1", 1);
   reader.init(settings(MirakType::reader));
   ::unsetenv("Q7_CHROOT");
   EXPECT_TRUE(reader.initialized());
   reader.inCall = {};
   reader.controlDetach();
}
