// SPDX-License-Identifier: Apache-2.0
// Where the socket lies, and who may connect.
#include "Support.h"

#include "Rusk/Credentials.h"
#include "Rusk/TunnetName.h"

#include <fstream>
#include <sys/stat.h>

using namespace RuskTest;

TEST(TunnetName, IsReadAsItIsWritten) {
   EXPECT_EQ(Rusk::TunnetNameIs(".rusk.4711").processId, 4711u);
   auto const second = Rusk::TunnetNameIs(".rusk.4711.2");
   EXPECT_TRUE(second.valid && second.processId == 4711 && second.number == 2);
   for (char const* bad :
        {"", ".rusk.", ".rusk.0", ".rusk.01", ".rusk.1.", ".rusk.1.0", ".rusk.1.2.3", "rusk.1", ".rusk.-1",
         ".rusk.+1", ".rusk.1x", ".rusk.99999999999", "../.rusk.1", ".rusk.1/a"}) {
      EXPECT_FALSE(Rusk::TunnetNameIs(bad).valid) << bad;
      EXPECT_EQ(Rusk::TunnetNameIs(bad).processId, 0u) << bad;
   }
}

TEST(TunnetName, DeadOnesGo) {
   Scratch const scratch;
   auto const path = scratch.table();
   path.makeDirectories();
   auto const bound = [&](std::string const& name, bool listening, int age) {
      Rusk::Socket socket = Rusk::Socket::make();
      EXPECT_EQ(Rusk::bindInRoot(socket, path, name), 0);
      EXPECT_TRUE(!listening || ::listen(socket.get(), 4) == 0);
      timespec const times[2] = {{::time(nullptr) - age, 0}, {::time(nullptr) - age, 0}};
      EXPECT_EQ(::utimensat(AT_FDCWD, (scratch.path() + "/" + name).c_str(), times, 0), 0);
      return socket;
   };
   bound(".rusk.1000001", false, 1000); // its socket is closed: a dead process
   bound(".rusk.1000002", false, 0);    // so young that it may be about to listen
   auto const living = bound(".rusk.1000003", true, 1000);
   std::ofstream(scratch.path() + "/.rusk.1000004") << "a file";
   std::string const mine = ".rusk." + std::to_string(::getpid());
   bound(mine, false, 0); // of a dead process with this number

   SharedMemory shared;
   auto const there = [&](std::string const& name) {
      return std::filesystem::exists(scratch.path() + "/" + name);
   };
   {
      Writer writer(scratch, *shared);
      std::string const name = writer.socketName;
      EXPECT_EQ(Rusk::TunnetNameIs(name).processId, static_cast<u32>(::getpid()));
      EXPECT_FALSE(there(".rusk.1000001"));
      EXPECT_TRUE(there(".rusk.1000002") && there(".rusk.1000003") && there(".rusk.1000004"));
      Follower follower(scratch, *shared);
      follower.start();
      EXPECT_TRUE(runUntil([&] { return follower.asleep(); }));
      if (Child child([] { return 0; }); child.wait() != 0) ADD_FAILURE();
      EXPECT_TRUE(there(name)) << "a forked child took its parent's name away";
      writer.rusk.disableListen();
      EXPECT_FALSE(there(name));
   }
}

TEST(TunnetName, ARootOfAnyLength) {
   Scratch const scratch;
   std::string const deep = scratch.path() + "/" + std::string(200, 'd');
   Mem::RootPath::set(deep);
   SharedMemory shared;
   Writer writer(scratch, *shared);
   EXPECT_TRUE(std::filesystem::is_socket(deep + "/" + writer.socketName));
   Follower follower(scratch, *shared);
   follower.start();
   EXPECT_TRUE(runUntil([&] { return follower.asleep(); }));
   Mem::RootPath::set(scratch.path());
}

// The same questions as the kernel answers when the files are opened.
TEST(Permission, IsThatOfTheFile) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs the superuser";
   Scratch const scratch;
   auto const path = scratch.table();
   path.makeDirectories();
   std::string const file = path.str() + "/f";
   std::ofstream(file) << "x";
   ASSERT_EQ(::chown(file.c_str(), 1000, 2000), 0);
   Rusk::Credentials const owner{1000, {1}}, member{7, {5, 2000}}, other{7, {5}}, superuser{0, {0}};
   struct Case {
      mode_t mode;
      bool owner, member, other;
   };
   for (Case const& c :
        {Case{0644, true, true, true}, Case{0640, true, true, false}, Case{0600, true, false, false},
         Case{0604, true, false, true}, Case{0044, false, true, true}}) {
      ASSERT_EQ(::chmod(file.c_str(), c.mode), 0);
      EXPECT_EQ(Rusk::mayOpen(owner, path, "f", Rusk::Right::read), c.owner) << c.mode;
      EXPECT_EQ(Rusk::mayOpen(member, path, "f", Rusk::Right::read), c.member) << c.mode;
      EXPECT_EQ(Rusk::mayOpen(other, path, "f", Rusk::Right::read), c.other) << c.mode;
      EXPECT_FALSE(Rusk::mayOpen(other, path, "f", Rusk::Right::write));
      EXPECT_TRUE(Rusk::mayOpen(superuser, path, "f", Rusk::Right::write));
   }
   ASSERT_EQ(::chmod(file.c_str(), 0666), 0);
   EXPECT_TRUE(Rusk::mayOpen(other, path, "f", Rusk::Right::write));
   ASSERT_EQ(::chmod((scratch.path() + "/a").c_str(), 0700), 0); // a directory on the way
   EXPECT_FALSE(Rusk::mayOpen(other, path, "f", Rusk::Right::read));
   EXPECT_FALSE(Rusk::mayOpen(other, path, "absent", Rusk::Right::read));
}
