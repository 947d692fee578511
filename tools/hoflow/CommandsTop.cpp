// SPDX-License-Identifier: Apache-2.0
// top: once as text or JSON, or on the terminal again and again.
#include "Commands.h"
#include "Json.h"
#include "Mem/Paths.h"
#include "Names.h"
#include "TopLines.h"
#include "TopScreen.h"

#include <thread>
#include <unistd.h>

namespace Tool {

namespace {

ordered_json rateJson(std::optional<double> rate) { return rate ? ordered_json(*rate) : ordered_json(); }

ordered_json toJson(std::string const& name, Pulse const& pulse) {
   Inspection const& t = pulse.seen;
   ordered_json j{{"table", name}, {"state", stateText(t.state)}, {"interrupted", t.interrupted()}};
   j["writerAlive"] = t.writerAlive;
   j["writerPid"] = t.writerAlive && t.writerPid ? ordered_json(t.writerPid) : ordered_json();
   if (t.state != State::ok) return j;
   j["rows"] = pulse.rows();
   j["capacity"] = pulse.capacity();
   j["rowsPerSecond"] = rateJson(pulse.rowRate);
   if (pulse.hasQueue()) {
      j["changesPerSecond"] = rateJson(pulse.changeRate);
      j["queue"] = queueJson(t);
   }
   if (!pulse.states.empty()) {
      j["states"] = ordered_json::object();
      for (auto const& [state, count] : pulse.states) j["states"][state] = count;
   }
   return j;
}

} // namespace

Exit topTables(Common const& common, TopOptions const& options) {
   Pulses pulses(options.patterns);
   if (!options.once && !common.json) {
      if (!isatty(STDOUT_FILENO) || !isatty(STDIN_FILENO))
         throw Failure{Exit::usage, "top needs a terminal", "hoflow top -1 prints it once"};
      pulses.look(); // what is wrong with the root is said on the plain terminal
      showTop(pulses, options.interval);
      return Exit::ok;
   }
   pulses.look();
   std::this_thread::sleep_for(std::chrono::duration<double>(options.interval));
   pulses.look();
   if (common.json) {
      for (auto const& [name, pulse] : pulses.tables()) common.out.line(jsonLine(toJson(name, pulse)));
   } else if (!pulses.tables().empty()) {
      Columns columns(common.out, topColumns(), true);
      for (TopLine& line : topLines(pulses, TopOrder::name)) columns.add(std::move(line.words), line.style);
      columns.finish();
   }
   if (!pulses.tables().empty()) return Exit::ok;
   say(options.patterns.empty()
           ? fmt::format("there is no table below {}", Mem::RootPath::get())
           : fmt::format("no table below {} matches {}", Mem::RootPath::get(), quoted(options.patterns)));
   return Exit::noMatch;
}

} // namespace Tool
