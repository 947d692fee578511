// SPDX-License-Identifier: Apache-2.0
// Whatever comes through the socket: it is closed and counted, and a proper follower is woken all the while.
#include "Support.h"

#include <grp.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace RuskTest;
using Strangers = Served;
using Impostors = Rooted;

namespace {

struct Limit { // of open descriptors
   explicit Limit(rlim_t most) {
      ::getrlimit(RLIMIT_NOFILE, &before);
      rlimit const now{most, before.rlim_max};
      ::setrlimit(RLIMIT_NOFILE, &now);
   }
   ~Limit() { ::setrlimit(RLIMIT_NOFILE, &before); }
   rlimit before{};
};

rlim_t openDescriptors() {
   auto const entries = std::filesystem::directory_iterator("/proc/self/fd");
   return static_cast<rlim_t>(std::distance(begin(entries), end(entries))) - 1;
}

bool openDescriptorsLeft() {
   int const fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
   ::close(fd);
   return fd >= 0;
}

// Type of the first message, 0 if there is none before the end.
int firstWord(Raw const& raw) {
   for (double const end = Lomi::monotonicTime() + 20; Lomi::monotonicTime() < end; ::usleep(1000))
      if (int const heard = raw.hear(); heard >= 0) return heard;
   return -1;
}

void become(uid_t user, std::vector<gid_t> const& groups) {
   if (::setgroups(groups.size(), groups.data()) != 0 || ::setgid(user) != 0 || ::setuid(user) != 0)
      std::abort();
}

constexpr int welcome = 4;

} // namespace

TEST_F(Strangers, AreDroppedAndCounted) {
   follower.start();
   u32 const id = writer.rusk.tableId();
   auto const proper = [&] { return hello(id); };
   auto const spoiled = [&](std::size_t at) {
      auto bytes = hello(id);
      bytes[at] = static_cast<char>(bytes[at] + 1);
      return bytes;
   };
   struct Act {
      Drop why;
      std::vector<std::string> said;
   };
   std::vector<Act> const acts{
       {Drop::badMessage, {"garbage"}},
       {Drop::badMessage, {proper().substr(0, 48)}},
       {Drop::badMessage, {proper() + proper()}},
       {Drop::badMessage, {std::string(60000, '\0')}},
       {Drop::badMessage, {spoiled(4)}}, // magic
       {Drop::badMessage, {spoiled(8)}}, // version
       {Drop::badMessage, {position(2, 0)}},
       {Drop::badMessage, {proper(), proper()}},
       {Drop::badMessage, {proper(), "x"}},
       {Drop::badMessage, {proper(), position(welcome, 0).substr(0, 8)}},
       {Drop::badMessage, {proper(), position(2, ~0ull)}},
       {Drop::wrongTable, {hello(id + 1)}},
       {Drop::wrongTable, {hello(0)}},
       {Drop::wrongGeneration, {hello(id, generation.value() + 1)}},
   };
   for (std::size_t i = 0; i < acts.size(); ++i) {
      u64 const before = writer.dropped(acts[i].why);
      Raw const raw(writer);
      ASSERT_TRUE(raw.ok());
      for (auto const& bytes : acts[i].said) ASSERT_TRUE(raw.say(bytes));
      ASSERT_TRUE(runUntil([&] { return raw.closed(); })) << "act " << i;
      EXPECT_EQ(writer.dropped(acts[i].why), before + 1) << "act " << i;
      writer.change();
      ASSERT_TRUE(runUntil([&] { return follower.taken == writer.tail && follower.asleep(); }))
          << "act " << i;
   }
   { // asks to be woken twice
      Raw const raw(writer);
      raw.say(proper());
      raw.say(position(2, writer.tail));
      ASSERT_TRUE(runUntil([&] { return writer.rusk.sleepingReaders() == 2; }));
      raw.say(position(2, writer.tail));
      ASSERT_TRUE(runUntil([&] { return raw.closed(); }));
      EXPECT_EQ(writer.dropped(Drop::secondSleep), 1u);
      EXPECT_EQ(writer.rusk.sleepingReaders(), 1u);
   }
   for (u32 const type : {2u, 3u}) { // talks without end, SLEEP or REPORT
      Raw const raw(writer);
      raw.say(proper());
      ASSERT_TRUE(runUntil([&] {
         for (int i = 0; i < 50; ++i) raw.say(position(type, 1));
         return raw.closed();
      }));
   }
   EXPECT_EQ(writer.dropped(Drop::tooOften) + writer.dropped(Drop::notReading), 2u);
   { // sleeps properly, and never reads an answer
      u64 const before = writer.dropped(Drop::notReading);
      Raw const raw(writer);
      raw.say(proper());
      ASSERT_TRUE(runUntil([&] {
         raw.say(position(2, writer.tail));
         writer.change();
         return writer.dropped(Drop::notReading) == before + 1;
      }));
   }
   { // connects, says nothing
      std::list<Raw> raws;
      for (int i = 0; i < 40; ++i) raws.emplace_back(writer);
      ASSERT_TRUE(runUntil([&] { return writer.dropped(Drop::silent) == 8; }));
      EXPECT_TRUE(raws.front().closed());
      EXPECT_EQ(raws.back().hear(), -1);
      raws.back().say(proper());
      EXPECT_TRUE(runUntil([&] { return raws.back().hear() == welcome; })) << "late, but welcome";
   }
   ASSERT_TRUE(runUntil([&] { return writer.acceptor().connections() == 1; }));
   EXPECT_EQ(follower.disconnects, 0u);
   EXPECT_EQ(follower.rusk->counters().connects, 1u);
}

TEST_F(Strangers, PassDescriptors) {
   Raw const raw(writer);
   auto const before = openDescriptors();
   if (sendWithDescriptor(raw.fd(), hello(writer.rusk.tableId()), raw.fd()) < 0) {
      EXPECT_EQ(errno, EPERM) << "kernels that know the option refuse for us";
      return;
   }
   ASSERT_TRUE(runUntil([&] { return writer.dropped(Drop::descriptors) == 1; }));
   EXPECT_LE(openDescriptors(), before);
}

TEST_F(Strangers, AThousandAtOnce) {
   follower.start();
   ASSERT_TRUE(runUntil([&] { return follower.asleep(); }));
   Limit const limit(openDescriptors() + 60);
   std::string const name = writer.socketName;
   u32 const id = writer.rusk.tableId();
   Child flood([&] {
      ::alarm(100);
      rlimit files{};
      ::getrlimit(RLIMIT_NOFILE, &files);
      files.rlim_cur = std::min<rlim_t>(files.rlim_max, 2000);
      ::setrlimit(RLIMIT_NOFILE, &files);
      std::list<Raw> raws;
      int connected = 0;
      while (connected < 1000) {
         raws.emplace_back(writer.path, name);
         if (raws.back().ok()) {
            if (++connected % 2) raws.back().say(hello(id));
         } else {
            raws.pop_back(); // the queue of connections is full
            ::usleep(500);
         }
         if (raws.size() > 500) raws.pop_front();
      }
      shared->connected = 1;
      while (!shared->stop) ::usleep(1000);
      return 0;
   });
   u64 most = 0;
   ASSERT_TRUE(runUntil([&] {
      writer.change();
      EXPECT_TRUE(openDescriptorsLeft()) << "strangers took all descriptors of the process";
      most = std::max<u64>(most, writer.acceptor().connections());
      return shared->connected == 1 && writer.acceptor().counters().accepted >= 1001;
   }));
   EXPECT_LE(most, limit.before.rlim_cur / 4);
   EXPECT_GT(writer.rusk.droppedPeers(), 500u);
   ASSERT_TRUE(runUntil([&] { return follower.taken == writer.tail && follower.asleep(); }));
   EXPECT_EQ(follower.disconnects, 0u);
   shared->stop = true;
   EXPECT_EQ(flood.wait(), 0);
   Follower late(scratch, *shared, "late");
   late.start();
   EXPECT_TRUE(runUntil([&] { return late.asleep(); }));
}

TEST_F(Strangers, NoDescriptorsLeft) {
   loop().run(0);
   Pipe connected;
   Child child([&] {
      Raw const raw(writer);
      raw.say(hello(writer.rusk.tableId()));
      connected.signal();
      return firstWord(raw) == welcome ? 0 : 1;
   });
   connected.await();
   double elapsed;
   {
      Limit const limit(64);
      std::vector<Mem::Descriptor> all;
      while (openDescriptorsLeft()) all.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
      double const start = Lomi::monotonicTime();
      ASSERT_TRUE(runUntil([&] { return writer.acceptor().counters().paused >= 3; }));
      elapsed = Lomi::monotonicTime() - start;
   }
   // The socket is off in between: it does not turn the loop round and round.
   EXPECT_LE(static_cast<double>(writer.acceptor().counters().paused), elapsed / 0.25 + 1);
   EXPECT_TRUE(runUntil([&] { return writer.rusk.readers() == 1; }));
   EXPECT_EQ(child.wait(), 0);
}

TEST_F(Strangers, AnotherUser) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs the superuser";
   std::string const file = writer.path.str() + "/" + Parcel::OwnerFile::FILENAME;
   ASSERT_EQ(::chmod(scratch.path().c_str(), 0755), 0);
   ASSERT_EQ(::chown(file.c_str(), 0, 2000), 0);
   auto const attempt = [&](mode_t mode, std::vector<gid_t> groups) {
      EXPECT_EQ(::chmod(file.c_str(), mode), 0);
      Child child([&] {
         become(1234, groups);
         Raw const raw(writer.path, writer.socketName);
         raw.say(hello(writer.rusk.tableId()));
         return firstWord(raw);
      });
      EXPECT_TRUE(runUntil([&] { return child.ended(); }));
      return child.wait();
   };
   EXPECT_EQ(attempt(0640, {}), 0);
   EXPECT_EQ(attempt(0640, {5}), 0);
   EXPECT_EQ(writer.dropped(Drop::notPermitted), 2u);
   EXPECT_EQ(attempt(0640, {5, 2000}), welcome);
   EXPECT_EQ(attempt(0644, {}), welcome);
   EXPECT_EQ(writer.dropped(Drop::notPermitted), 2u);

   // A follower of that user, whole; and that user alone can't take all places.
   Child child([&] {
      ::alarm(100);
      become(1234, {});
      std::list<Raw> raws;
      while (raws.size() < 160) {
         raws.emplace_back(writer.path, writer.socketName);
         if (raws.back().ok())
            raws.back().say(hello(writer.rusk.tableId()));
         else
            raws.pop_back();
      }
      while (!shared->stop) ::usleep(1000);
      raws.clear();
      shared->stop = false;
      return followInChild(scratch, *shared);
   });
   ASSERT_TRUE(runUntil([&] { return writer.dropped(Drop::tooMany) >= 32; }));
   EXPECT_EQ(writer.rusk.readersOf(1234), 128u);
   shared->stop = true;
   ASSERT_TRUE(runUntil([&] { return shared->asleep == 1; }));
   writer.change();
   EXPECT_TRUE(runUntil([&] { return shared->taken == 1; }));
   shared->stop = true;
   EXPECT_EQ(child.wait(), 0);
}

// A process that may not write the table takes the name of its writer's socket.
TEST_F(Impostors, PoseAsTheWriter) {
   if (::geteuid() != 0) GTEST_SKIP() << "needs the superuser";
   auto const path = scratch.table();
   path.makeDirectories();
   std::string const name = ".rusk.1000001";
   Parcel::OwnerFile(handler(), path, false).tunnetInfoIs({name, 1});
   ASSERT_EQ(::chmod(scratch.path().c_str(), 0777), 0);
   Pipe ready;
   Child child([&] {
      become(1234, {});
      Rusk::Socket const socket = Rusk::Socket::make();
      if (Rusk::bindInRoot(socket, path, name) != 0 || ::listen(socket.get(), 16) != 0) return 2;
      ready.signal();
      for (int visits = 0; !shared->stop; ::usleep(1000)) {
         Rusk::Socket const visitor = Rusk::Socket::accept(socket);
         if (!visitor) continue;
         shared->connected = static_cast<u64>(++visits);
         char byte;
         while (::recv(visitor.get(), &byte, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN) ::usleep(1000);
      }
      return 0;
   });
   ready.await();
   Follower follower(scratch, *shared);
   follower.start();
   ASSERT_TRUE(runUntil([&] { return shared->connected >= 2; }));
   EXPECT_EQ(follower.rusk->sequencesSent(), 0u) << "it must not even be greeted";
   EXPECT_FALSE(follower.rusk->connected());
   ++shared->count;
   EXPECT_TRUE(runUntil([&] { return follower.taken == 1; }));
   shared->stop = true;
   EXPECT_EQ(child.wait(), 0);
}

// A writer that speaks nonsense is left, and the follower polls.
TEST_F(Impostors, AWriterThatIsNone) {
   auto const path = scratch.table();
   path.makeDirectories();
   std::string const name = ".rusk.1000001";
   Rusk::Socket const socket = Rusk::Socket::make();
   ASSERT_EQ(Rusk::bindInRoot(socket, path, name), 0);
   ASSERT_EQ(::listen(socket.get(), 16), 0);
   Parcel::OwnerFile(handler(), path, false).tunnetInfoIs({name, 1});
   Follower follower(scratch, *shared);
   follower.start();
   auto const signal = [](u32 type) { return position(type, 0).substr(0, 8); };
   std::vector<std::vector<std::string>> const acts{{"junk"},
                                                    {std::string(60000, 'x')},
                                                    {signal(4), signal(4)},
                                                    {signal(5), signal(5)},
                                                    {signal(6), signal(6)},
                                                    {position(2, 1)}};
   char bytes[200];
   // A visitor whose HELLO and SLEEP are there.
   auto const visit = [&] {
      Rusk::Socket visitor;
      int heard = 0;
      EXPECT_TRUE(runUntil([&] { return bool(visitor = Rusk::Socket::accept(socket)); }));
      EXPECT_TRUE(
          runUntil([&] { return (heard += ::recv(visitor.get(), bytes, sizeof(bytes), 0) > 0) == 2; }));
      return visitor;
   };
   for (std::size_t i = 0; i < acts.size(); ++i) {
      Rusk::Socket const visitor = visit();
      for (auto const& said : acts[i]) ::send(visitor.get(), said.data(), said.size(), MSG_NOSIGNAL);
      ASSERT_TRUE(runUntil([&] {
         ssize_t const got = ::recv(visitor.get(), bytes, sizeof(bytes), 0);
         return got == 0 || (got < 0 && errno != EAGAIN);
      })) << i;
      ++shared->count;
      ASSERT_TRUE(runUntil([&] { return follower.taken == shared->count; }));
   }
   EXPECT_EQ(follower.disconnects, 1u) << "only the one that said WELCOME was a connection";

   // All in one turn, and the client throws when it is told of the connection: the WAKE isn't lost.
   int thrown = 0;
   follower.onConnect = [&] {
      ++thrown;
      throw std::runtime_error("client");
   };
   Rusk::Socket const visitor = visit();
   ++shared->count;
   for (u32 const type : {4, 5, 6}) ::send(visitor.get(), signal(type).data(), 8, MSG_NOSIGNAL);
   ASSERT_TRUE(runUntil([&] {
      try {
         loop().run(0);
      } catch (std::runtime_error const&) {
      }
      return thrown == 1;
   }));
   EXPECT_TRUE(runUntil([&] { return follower.taken == shared->count; }));
}
