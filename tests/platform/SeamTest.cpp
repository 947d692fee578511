// SPDX-License-Identifier: Apache-2.0
// Every call that changes a file passes the seam before it happens. On that rest the crash tests; here the
// small files get theirs: the process ends before its k-th file call, for every k, and the next one reads
// what is left. Also a mapping whose base moves at each resize.
#include "Lomi/Exception.h"
#include "Mem/FileCalls.h"
#include "Mem/ParcelWrapper.h"
#include "Mem/WriterLock.h"
#include "Parcel/KestorFile.h"
#include "Parcel/OwnerFile.h"
#include "Scratch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sys/stat.h>
#include <vector>

using Mem::Mode;
using Mem::ParcelWrapper;
using Mem::Seam::FileCall;
using Parcel::KestorFile;
using Parcel::KestorId;
using Parcel::OwnerFile;

namespace {

struct Recorder : Mem::Seam::Observer {
   std::vector<FileCall> calls;
   Recorder() { Mem::Seam::observer = this; }
   ~Recorder() override { Mem::Seam::observer = nullptr; }
   void beforeFileCall(FileCall const& call) override { calls.push_back(call); }
   bool saw(FileCall::Kind kind, std::string const& path) const {
      for (auto const& call : calls)
         if (call.kind == kind && call.path == path) return true;
      return false;
   }
};

struct EndsBefore : Mem::Seam::Observer {
   int left;
   explicit EndsBefore(int calls)
      : left(calls) {
      Mem::Seam::observer = this;
   }
   void beforeFileCall(FileCall const&) override {
      if (left-- == 0) ::_exit(42);
   }
};

// Runs `body` in a child that ends before its k-th file call, for k = 0, 1, ... until it gets through. The
// number of crash points.
int crashEverywhere(std::function<void()> const& prepare, std::function<void()> const& body,
                    std::function<void(int)> const& judge) {
   for (int k = 0; k < 1000; ++k) {
      prepare();
      int const result = Child([&] {
                            EndsBefore const end(k);
                            body();
                            return 0;
                         }).wait();
      EXPECT_TRUE(result == 42 || result == 0) << result;
      judge(k);
      if (result == 0) return k;
   }
   return -1;
}

} // namespace

TEST(Seam, EveryFileCallIsAnnouncedBeforeItHappens) {
   Scratch const scratch;
   auto const path = scratch.table();
   auto const slots = path.str() + "/slots";
   Recorder recorder;
   ParcelWrapper writer(handler(), path, "slots", false);
   ASSERT_NE(writer.attach(2 * 4096, Mode::writer), nullptr);
   EXPECT_TRUE(recorder.saw(FileCall::Kind::create, scratch.path() + "/a"));
   EXPECT_TRUE(recorder.saw(FileCall::Kind::create, path.str()));
   EXPECT_TRUE(recorder.saw(FileCall::Kind::create, slots));
   EXPECT_TRUE(recorder.saw(FileCall::Kind::allocate, slots));

   recorder.calls.clear();
   ASSERT_NE(writer.resize(10 * 4096), nullptr);
   ASSERT_EQ(recorder.calls.size(), 1u);
   EXPECT_EQ(recorder.calls[0].kind, FileCall::Kind::allocate);
   EXPECT_EQ(recorder.calls[0].offset, 2u * 4096);
   EXPECT_EQ(recorder.calls[0].length, 8u * 4096);

   recorder.calls.clear();
   ASSERT_NE(writer.resize(3 * 4096), nullptr);
   EXPECT_TRUE(recorder.calls.empty()) << "a shrink changes no file";
   writer.releaseTailAfter(3 * 4096);
   writer.releaseTailIfDue(true);
   ASSERT_EQ(recorder.calls.size(), 1u);
   EXPECT_EQ(recorder.calls[0].kind, FileCall::Kind::punch);
   EXPECT_EQ(recorder.calls[0].offset, 3u * 4096);
   EXPECT_EQ(recorder.calls[0].length, 7u * 4096);
   recorder.calls.clear();
   ASSERT_NE(writer.resize(5 * 4096), nullptr);
   EXPECT_TRUE(recorder.saw(FileCall::Kind::allocate, slots)) << "after a release blocks are asked for again";

   EXPECT_TRUE(writer.remove());
   EXPECT_TRUE(recorder.saw(FileCall::Kind::unlink, slots));
   KestorFile(handler(), path, false).write(KestorId(1, 1));
   EXPECT_TRUE(recorder.saw(FileCall::Kind::write, path.str() + "/kestor.new"));
   EXPECT_TRUE(recorder.saw(FileCall::Kind::rename, path.str() + "/kestor.new"));
   EXPECT_EQ(recorder.calls.back().target, path.str() + "/kestor");
   OwnerFile owner(handler(), path, false);
   owner.typeNameIs("T");
   EXPECT_TRUE(recorder.saw(FileCall::Kind::create, path.str() + "/owner"));
   EXPECT_EQ(recorder.calls.back().kind, FileCall::Kind::write);
   EXPECT_EQ(recorder.calls.back().length, 664u);

   // An observer that throws stops the call itself.
   struct Thrower : Mem::Seam::Observer {
      void beforeFileCall(FileCall const&) override { throw Lomi::RuntimeException("stop"); }
   } thrower;
   Mem::Seam::observer = &thrower;
   EXPECT_THROW(owner.remove(), Lomi::RuntimeException);
   Mem::Seam::observer = &recorder;
   EXPECT_TRUE(std::filesystem::exists(path.str() + "/owner"));
}

TEST(Seam, AReaderCallsNothing) {
   Scratch const scratch;
   auto const path = scratch.table();
   ParcelWrapper writer(handler(), path, "slots", false);
   ASSERT_NE(writer.attach(8 * 4096, Mode::writer), nullptr);
   KestorFile(handler(), path, false).write(KestorId(1, 1));
   OwnerFile(handler(), path, false).typeNameIs("T");
   Recorder const recorder;
   ParcelWrapper reader(handler(), path, "slots", false);
   ASSERT_NE(reader.attach(4096, Mode::reader), nullptr);
   ASSERT_NE(reader.resize(8 * 4096), nullptr);
   reader.detach();
   EXPECT_EQ(KestorFile(handler(), path, false).read(), KestorId(1, 1));
   OwnerFile(handler(), path, false).tunnetInfo();
   EXPECT_FALSE(Mem::WriterLock::ownerIsAlive(handler(), path));
   EXPECT_TRUE(recorder.calls.empty());
}

TEST(Seam, EveryCrashPointOfAKestorWriteLeavesTheOldIdOrTheNew) {
   Scratch const scratch;
   auto const path = scratch.table();
   KestorFile file(handler(), path, false);
   bool old = false;
   int const points =
       crashEverywhere([&] { file.write(KestorId(1, 1)); }, [&] { file.write(KestorId(1, 2)); },
                       [&](int k) {
                          auto const id = file.read();
                          EXPECT_TRUE(id == KestorId(1, 1) || id == KestorId(1, 2)) << k;
                          old = old || id == KestorId(1, 1);
                       });
   EXPECT_GE(points, 3);
   EXPECT_TRUE(old);
   EXPECT_EQ(file.read(), KestorId(1, 2));
}

TEST(Seam, EveryCrashPointOfAStartLeavesAnOwnerFileThatIsAccepted) {
   Scratch const scratch;
   auto const path = scratch.table();
   OwnerFile owner(handler(), path, false);
   auto const start = [&] {
      OwnerFile mine(handler(), path, false);
      mine.lock();
      auto const lock = Mem::WriterLock::acquireWriterLock(handler(), path, mine, false);
      mine.typeNameIs("T");
      mine.parcelTypeIs(Parcel::ParcelType::mirak);
      mine.tunnetInfoIs({"socket", 1});
   };
   // In an empty root, and over the record of an earlier writer with its files beside it.
   EXPECT_GE(crashEverywhere([&] { std::filesystem::remove_all(scratch.path() + "/a"); }, start,
                             [&](int k) { EXPECT_TRUE(owner.validate()) << k; }),
             6);
   std::filesystem::create_directory(path.str() + "/slots");
   EXPECT_GE(crashEverywhere([] {}, start, [&](int k) { EXPECT_TRUE(owner.validateFile()) << k; }), 4);
}

TEST(Seam, TheBaseMovesAtEachResizeWhenToldTo) {
   Scratch const scratch;
   ParcelWrapper::moveAlways = true;
   for (bool local : {false, true}) {
      Mem::NaoRootPath const path(handler(), "t", local);
      ParcelWrapper writer(handler(), path, "slots", local);
      ASSERT_NE(writer.attach(4096, Mode::writer), nullptr);
      std::strcpy(writer.base(), "kept");
      ParcelWrapper reader(handler(), path, "slots", local);
      if (!local) {
         ASSERT_NE(reader.attach(4096, Mode::reader), nullptr);
      }
      for (Mem::u64 size : {8192u, 8192u, 100000u, 4096u, 400000u}) {
         char const* const before = writer.base();
         ASSERT_NE(writer.resize(size), nullptr);
         EXPECT_NE(writer.base(), before);
         EXPECT_STREQ(writer.base(), "kept");
         writer.base()[size - 1] = 'e';
         if (local) continue;
         char const* const seen = reader.base();
         ASSERT_NE(reader.resize(size), nullptr);
         EXPECT_NE(reader.base(), seen);
         EXPECT_EQ(reader.base()[size - 1], 'e');
         // The place that a stale pointer would lead to can't be read.
         int ends[2];
         ASSERT_EQ(::pipe(ends), 0);
         EXPECT_EQ(::write(ends[1], before, 1), -1);
         EXPECT_EQ(errno, EFAULT);
         ::close(ends[0]);
         ::close(ends[1]);
      }
   }
   ParcelWrapper::moveAlways = false;
}
