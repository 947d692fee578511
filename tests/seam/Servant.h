// SPDX-License-Identifier: Apache-2.0
// A child process that does one command after the other in its event loop, and says when each is done.
#pragma once

#include "Loop.h"
#include "Mem/Paths.h"

#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace Test {

/// @tparam Command is sent as its bytes
template <class Command> class Servant {
public:
   using Work = std::function<void(Command const&)>;

   /// @param begin run in the child; what it returns does a command
   explicit Servant(std::function<Work()> const& begin) {
      int ends[2];
      if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
      socket_ = Mem::Descriptor(ends[0]);
      child_.emplace([&] {
         ::close(ends[0]);
         serve(ends[1], begin());
      });
      ::close(ends[1]);
   }
   /// Returns when it is done. Fails the test if that takes a minute, or the child ends.
   void ask(Command const& command) {
      ASSERT_EQ(::send(socket_.get(), &command, sizeof command, MSG_NOSIGNAL), ssize_t(sizeof command));
      pollfd from{socket_.get(), POLLIN, 0};
      char byte;
      ASSERT_EQ(::poll(&from, 1, 60000), 1) << "no answer";
      ASSERT_EQ(::recv(socket_.get(), &byte, 1, 0), 1) << "it has ended";
   }
   Child& process() { return *child_; }

private:
   static void serve(int socket, Work const& work) {
      auto const task = loop().descriptorTask(socket, EPOLLIN, [&](std::uint32_t) {
         Command command;
         if (::recv(socket, &command, sizeof command, 0) != ssize_t(sizeof command)) ::_exit(0);
         work(command);
         if (::send(socket, "", 1, MSG_NOSIGNAL) != 1) ::_exit(0);
      });
      for (;;) loop().run(-1);
   }

   Mem::Descriptor socket_;
   std::optional<Child> child_;
};

} // namespace Test
