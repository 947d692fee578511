// SPDX-License-Identifier: Apache-2.0
// A process that writes a table with a change queue, one command at a time, and can be killed.
#pragma once

#include "../seam/Processes.h"
#include "Lomi/TaskSchedulerRoot.h"
#include "Support.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>

namespace ToolTest {

using FlowTracking::HoFlowState;

inline FlowTracking::HoIpFlowStatus status4(u32 n, HoFlowState state) {
   FlowTracking::HoIpFlowStatus row{FlowTracking::HoIpFlowKey(key4(n), Nimbet::IntfId(7))};
   row.hoFlowStateIs(state);
   return row;
}

class StatusWriter {
   using Ops = FlowTracking::HoIpFlowStatusOps;

public:
   explicit StatusWriter(std::string const& table)
      : commands_(makeEnds())
      , answers_(makeEnds())
      , child_([&] { write(table); }) {
      answer();
   }
   /// Writes the rows from `first` to `last`.
   void put(u32 first, u32 last, HoFlowState state) { tell({'p', first, last, state}); }
   void put(u32 n, HoFlowState state) { put(n, n, state); }
   void remove(u32 first, u32 last) { tell({'r', first, last, {}}); }
   void remove(u32 n) { remove(n, n); }
   /// Removes the table and ends.
   void cleanup() {
      tell({'c', 0, 0, {}});
      child_.wait();
   }
   void kill() { child_.kill(); }

private:
   struct Command {
      char what;
      u32 first, last;
      HoFlowState state;
   };
   struct Ends {
      int fds[2];
      ~Ends() {
         ::close(fds[0]);
         ::close(fds[1]);
      }
   };
   static std::unique_ptr<Ends> makeEnds() {
      auto ends = std::make_unique<Ends>();
      if (::pipe2(ends->fds, O_CLOEXEC) != 0) std::abort();
      return ends;
   }
   void tell(Command const& command) {
      ASSERT_EQ(::write(commands_->fds[1], &command, sizeof command), static_cast<ssize_t>(sizeof command));
      answer();
   }
   void answer() {
      pollfd from{answers_->fds[0], POLLIN, 0};
      char byte;
      ASSERT_EQ(::poll(&from, 1, 60000), 1) << "the writer doesn't answer";
      ASSERT_EQ(::read(answers_->fds[0], &byte, 1), 1);
   }
   /// In the child.
   void write(std::string const& name) {
      auto& loop = Lomi::TaskSchedulerRoot::root();
      Mirak::MirakWriter<Ops> table(handler(), name.c_str(), Mirak::MapDescriptor(100));
      table.initialize("test");
      bool ends = false;
      auto const task = loop.descriptorTask(commands_->fds[0], EPOLLIN, [&](std::uint32_t) {
         Command command{};
         if (::read(commands_->fds[0], &command, sizeof command) != sizeof command) ::_exit(4);
         Ops::Value removed;
         for (u32 n = command.first; n <= command.last && command.what != 'c'; ++n)
            if (command.what == 'p')
               table.write(status4(n, command.state), true);
            else
               table.remove(status4(n, {}).key(), removed);
         if (command.what == 'c') table.cleanup();
         ends = command.what == 'c';
         if (::write(answers_->fds[1], "", 1) != 1) ::_exit(5);
      });
      if (::write(answers_->fds[1], "", 1) != 1) ::_exit(5);
      while (!ends) loop.run(-1);
   }

   std::unique_ptr<Ends> const commands_, answers_;
   Test::Child child_;
};

inline constexpr char const* statusName = "flowtracking/default/hwOffload/status/test/hoIpFlowStatus";

} // namespace ToolTest
