// SPDX-License-Identifier: Apache-2.0
// A watch on a directory that comes and goes: whatever is done to the path, the watch tells of it.
#include "Support.h"

#include "Lomi/Trace.h"

#include <sys/resource.h>
#include <sys/stat.h>

using namespace Test;
using Mem::DirectoryWatch;

namespace {

Mem::NaoRootPath place(std::string const& name) {
   testRoot();
   return {quiet(), name, false};
}

void touch(std::string const& path) { ::close(::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644)); }

struct Watched {
   explicit Watched(std::string const& name)
      : watch(quiet(), place(name), [this](bool polled) { ++(polled ? polls : calls); }) {}
   /// Whether something was told after `change`.
   template <class Change> bool tells(Change change) {
      settle();
      calls = 0;
      change();
      return runUntil([&] { return calls > 0; });
   }
   int calls = 0, polls = 0;
   DirectoryWatch watch;
};

} // namespace

TEST(DirectoryWatch, FollowsAPathThatIsMadeRemovedAndMoved) {
   NoPoll const noPoll;
   std::string const top = testRoot() + "/watch";
   fs::remove_all(top);
   Watched watched("watch/a/b");
   // All at once: the event of the first directory comes when the others are there, too.
   EXPECT_TRUE(watched.tells([&] { fs::create_directories(top + "/a/b"); }));
   EXPECT_TRUE(watched.tells([&] { touch(top + "/a/b/file"); }));
   EXPECT_TRUE(watched.tells([&] { ::chmod((top + "/a/b/file").c_str(), 0600); }));
   EXPECT_TRUE(watched.tells([&] { fs::remove(top + "/a/b/file"); }));
   EXPECT_TRUE(watched.tells([&] { fs::rename(top + "/a/b", top + "/a/c"); }));
   EXPECT_TRUE(watched.tells([&] { fs::rename(top + "/a/c", top + "/a/b"); }));
   EXPECT_TRUE(watched.tells([&] { touch(top + "/a/b/file"); }));
   EXPECT_TRUE(watched.tells([&] { fs::remove_all(top + "/a"); }));
   EXPECT_TRUE(watched.tells([&] { fs::create_directory(top + "/a"); }));
   EXPECT_TRUE(watched.tells([&] { fs::create_directory(top + "/a/b"); }));
   // Another process's, and what stands in the place of a directory.
   EXPECT_TRUE(watched.tells([&] { Child([&] { touch(top + "/a/b/file"); }).wait(); }));
   fs::remove_all(top + "/a");
   settle();
   fs::create_directory_symlink("/tmp", top + "/a");
   settle();
   EXPECT_TRUE(watched.tells([&] {
      fs::remove(top + "/a");
      fs::create_directories(top + "/a/b");
   }));
   EXPECT_EQ(watched.polls, 0);
}

TEST(DirectoryWatch, SharesAndGivesBack) {
   NoPoll const noPoll;
   auto const before = DirectoryWatch::watched();
   {
      Watched one("shared/x"), two("shared/x"), far("shared/y/z");
      EXPECT_TRUE(one.tells([&] { fs::create_directories(testRoot() + "/shared/x"); }));
      EXPECT_GT(two.calls, 0);
      two.watch.stop();
      EXPECT_TRUE(one.tells([&] { touch(testRoot() + "/shared/x/file"); }));
      // A child that ends its copies leaves the parent's alone.
      Child([&] {
         one.watch.stop();
         far.watch.stop();
      }).wait();
      EXPECT_TRUE(one.tells([&] { fs::remove(testRoot() + "/shared/x/file"); }));
      EXPECT_TRUE(far.tells([&] { fs::create_directories(testRoot() + "/shared/y/z"); }));
      EXPECT_EQ(DirectoryWatch::watched(), before + 2);
   }
   EXPECT_EQ(DirectoryWatch::watched(), before);
}

TEST(DirectoryWatch, IsCalledOnAfterAnotherOnesThrow) {
   NoPoll const noPoll;
   fs::create_directories(testRoot() + "/throws");
   int calls = 0;
   auto const thrower = [&](bool) {
      ++calls;
      throw Lomi::RuntimeException("mine");
   };
   DirectoryWatch const one(quiet(), place("throws"), thrower), two(quiet(), place("throws"), thrower);
   touch(testRoot() + "/throws/file");
   bool thrown = false;
   EXPECT_TRUE(runUntil([&] {
      try {
         settle();
      } catch (Lomi::RuntimeException const&) {
         thrown = true;
      }
      return calls >= 2 && thrown;
   }));
}

TEST(DirectoryWatch, PollsWhatInotifyDoesNotSee) {
   // A parent that is moved away tells nothing to those who watch below it.
   DirectoryWatch::pollPeriodIs(0.02);
   std::string const top = testRoot() + "/moved";
   fs::create_directories(top + "/a/b");
   Watched watched("moved/a/b");
   fs::rename(top, top + "-away");
   int const before = watched.polls;
   EXPECT_TRUE(runUntil([&] { return watched.polls >= before + 2; }));
   EXPECT_TRUE(watched.tells([&] { fs::create_directories(top + "/a/b"); }));
   // Where there is no inotify to be had, the poll does it all.
   Child blind([&] {
      rlimit const few{64, 64};
      ::setrlimit(RLIMIT_NOFILE, &few);
      std::vector<int> taken;
      auto const timer = loop().timerTask(1000, [] {}); // the loop has its descriptors
      for (int fd; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) taken.push_back(fd);
      Watched polled("moved/a/c");
      bool const polls = runUntil([&] { return polled.polls >= 3; }) && polled.calls == 0;
      ::close(taken.back());
      // It recovers by itself.
      bool const recovers = runUntil([] { return DirectoryWatch::watched() == 1; });
      return polls && recovers ? 0 : 1;
   });
   EXPECT_EQ(blind.wait(), 0);
   DirectoryWatch::pollPeriodIs(5);
}
