// SPDX-License-Identifier: Apache-2.0
// What the tests of the wake-up share: a queue that is nothing but its count, a writer and a follower of it,
// and a peer that sends whatever bytes it likes. The queue's count lies in memory that forked children share.
#pragma once

#include "../platform/Scratch.h"
#include "Loop.h"
#include "Parcel/OwnerFile.h"
#include "Rusk/ReaderRuskSm.h"
#include "Rusk/TunnetAcceptSm.h"
#include "Rusk/WriterRuskSm.h"

#include <gtest/gtest.h>
#include <string>

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>

namespace RuskTest {

using Rusk::Drop;
using Rusk::u32;
using Rusk::u64;

using Test::driveUntil, Test::loop, Test::runUntil;

/// Sends `bytes` with a descriptor passed along. @return what sendmsg says
inline ssize_t sendWithDescriptor(int socket, std::string bytes, int descriptor) {
   iovec part{bytes.data(), bytes.size()};
   alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
   msghdr header{};
   header.msg_iov = &part;
   header.msg_iovlen = 1;
   header.msg_control = control;
   header.msg_controllen = sizeof(control);
   cmsghdr* const rights = CMSG_FIRSTHDR(&header);
   rights->cmsg_level = SOL_SOCKET;
   rights->cmsg_type = SCM_RIGHTS;
   rights->cmsg_len = CMSG_LEN(sizeof(int));
   std::memcpy(CMSG_DATA(rights), &descriptor, sizeof(int));
   return ::sendmsg(socket, &header, MSG_NOSIGNAL);
}

struct Shared {
   std::atomic<u64> count{0}; // the queue
   std::atomic<u64> taken{0}; // by the follower in the other process
   std::atomic<u64> asleep{0}, connected{0}, wakes{0}, disconnects{0}, polls{0};
   std::atomic<bool> stop{false};
};
using SharedMemory = Test::SharedReport<Shared>;

inline Parcel::KestorId const generation{7, 1};

/// A writer of a queue. The table's one file is its owner file.
struct Writer {
   Writer(Scratch const& scratch, Shared& queue, std::string const& name = "a/table")
      : path(scratch.table(name))
      , shared(queue)
      , tail(queue.count)
      , rusk(
            handler(), path, Parcel::OwnerFile::FILENAME, [this] { return tail; },
            [] { return generation; }) {
      listen();
   }
   void listen() {
      Parcel::OwnerFile owner(handler(), path, false);
      path.makeDirectories();
      owner.tunnetInfoIs(rusk.tunnetInfo());
      socketName = rusk.tunnetInfo().socketName;
      rusk.doEnableListen();
   }
   void change() {
      shared.count = ++tail;
      if (rusk.asleep()) rusk.wake();
   }
   /// Only while it listens, and not in a child.
   Rusk::TunnetAcceptSm& acceptor() const { return *Rusk::TunnetAcceptSm::tunnetAcceptSm(path); }
   u64 dropped(Drop why) const { return rusk.counters().drops[why] + acceptor().counters().drops[why]; }

   Mem::NaoRootPath path;
   Shared& shared;
   Rusk::Sequence tail;
   Rusk::WriterRuskSm rusk;
   std::string socketName;
};

struct Follower : Rusk::Follower {
   Follower(Scratch const& scratch, Shared& queue, std::string const& name = "follower",
            std::string const& table = "a/table")
      : shared(queue)
      , rusk(std::make_unique<Rusk::ReaderRuskSm>(handler(), scratch.table(table), *this, name)) {}
   Rusk::Walked walk() override {
      if (onWalk) onWalk();
      if (taken < shared.count) ++taken;
      return taken < shared.count ? Rusk::Walked::more : Rusk::Walked::atEnd;
   }
   bool behind() const override { return taken != shared.count; }
   Rusk::Sequence last() const override { return taken; }
   Parcel::KestorId kestorId() const override { return followed; }
   void handleConnect() override {
      if (onConnect) onConnect();
   }
   void handleDisconnect() override {
      ++disconnects;
      if (onDisconnect) onDisconnect();
   }
   void start() {
      rusk->maybeConnect();
      rusk->processingIs(true);
   }
   bool asleep() const { return rusk->connected() && rusk->asleep(); }
   void tell() const { // the process that shares the memory
      shared.taken = taken;
      shared.connected = rusk->connected();
      shared.wakes = rusk->counters().wakes;
      shared.polls = rusk->counters().polls;
      shared.disconnects = disconnects;
      shared.asleep = rusk->asleep();
   }

   Shared& shared;
   u64 taken = 0;
   u64 disconnects = 0;
   Parcel::KestorId followed = generation;
   std::function<void()> onWalk, onConnect, onDisconnect;
   std::unique_ptr<Rusk::ReaderRuskSm> rusk;
};

/// A root of tables, without a writer.
struct Rooted : testing::Test {
   Scratch const scratch;
   SharedMemory shared;
};
/// With a writer, and a follower that starts where it is wanted.
struct Served : Rooted {
   Writer writer{scratch, *shared};
   Follower follower{scratch, *shared};
};

/// A child that follows until it is told to stop.
inline int followInChild(Scratch const& scratch, Shared& shared) {
   ::alarm(100);
   Follower follower(scratch, shared);
   follower.start();
   while (!shared.stop) {
      driveUntil([&] {
         follower.tell();
         return shared.stop.load();
      });
   }
   return 0;
}

/// The bytes of a proper HELLO, to be spoiled.
inline std::string hello(u32 tableId, u32 kestor = generation.value(), std::string const& name = "raw") {
   u32 const words[6] = {1, Rusk::protocolMagic, Rusk::protocolVersion, tableId, kestor, 0};
   std::string bytes(reinterpret_cast<char const*>(words), sizeof(words));
   bytes.append(8, '\0').append(name).append(64 - name.size(), '\0');
   return bytes;
}
inline std::string position(u32 type, u64 sequence) {
   u64 const words[2] = {type, sequence};
   return {reinterpret_cast<char const*>(words), sizeof(words)};
}

/// Somebody with a socket.
class Raw {
public:
   explicit Raw(Writer const& writer) { connect(writer.path, writer.socketName); }
   Raw(Mem::NaoRootPath const& path, std::string const& name) { connect(path, name); }
   bool ok() const { return error_ == 0; }
   bool say(std::string const& bytes) const {
      return ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
             static_cast<ssize_t>(bytes.size());
   }
   /// Type of the next message, 0 at the connection's end, -1 if nothing is there.
   int hear() const {
      u32 words[2] = {};
      ssize_t const got = ::recv(socket_.get(), words, sizeof(words), MSG_DONTWAIT);
      return got < 0 ? errno == EAGAIN ? -1 : 0 : static_cast<int>(words[0]);
   }
   bool closed() const {
      while (true)
         if (int const heard = hear(); heard <= 0) return heard == 0;
   }
   int fd() const { return socket_.get(); }

private:
   void connect(Mem::NaoRootPath const& path, std::string const& name) {
      socket_ = Rusk::Socket::make();
      error_ = Rusk::connectInRoot(socket_, path, name);
   }
   Rusk::Socket socket_;
   int error_ = 0;
};

} // namespace RuskTest
