// SPDX-License-Identifier: Apache-2.0
// A process that writes a table with a change queue, one command at a time, and can be killed.
#pragma once

#include "../seam/Servant.h"
#include "Support.h"

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
      : servant_([table] {
         auto const writer =
             std::make_shared<Mirak::MirakWriter<Ops>>(handler(), table.c_str(), Mirak::MapDescriptor(100));
         writer->initialize("test");
         return [writer](Command const& command) {
            Ops::Value removed;
            if (command.what == 'c') writer->cleanup();
            for (u32 n = command.first; n <= command.last && command.what != 'c'; ++n)
               if (command.what == 'p')
                  writer->write(status4(n, command.state), true);
               else
                  writer->remove(status4(n, {}).key(), removed);
         };
      }) {
      servant_.ask({'p', 1, 0, {}}); // nothing: waits for it
   }
   /// Writes the rows from `first` to `last`.
   void put(u32 first, u32 last, HoFlowState state) { servant_.ask({'p', first, last, state}); }
   void put(u32 n, HoFlowState state) { put(n, n, state); }
   void remove(u32 first, u32 last) { servant_.ask({'r', first, last, {}}); }
   void remove(u32 n) { remove(n, n); }
   /// Removes the table and ends.
   void cleanup() {
      servant_.ask({'c', 0, 0, {}});
      kill();
   }
   void kill() { servant_.process().kill(); }

private:
   struct Command {
      char what;
      u32 first, last;
      HoFlowState state;
   };
   Test::Servant<Command> servant_;
};

inline constexpr char const* statusName = "flowtracking/default/hwOffload/status/test/hoIpFlowStatus";

} // namespace ToolTest
