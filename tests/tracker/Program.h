// SPDX-License-Identifier: Apache-2.0
// Runs hoflow-tracker as a user does, and reads its tables back through the reader's side.
#pragma once

#include "../seam/Running.h"
#include "FlowTracking/Tables.h"
#include "Lomi/Trace.h"
#include "Mem/Paths.h"

#include <filesystem>
#include <functional>
#include <set>
#include <stdexcept>

namespace Program {

using Test::Result, Test::Running;

inline Result run(std::vector<std::string> arguments, Test::Surroundings const& around = {}) {
   return Running(HOFLOW_TRACKER, std::move(arguments), around).wait();
}

/// Whether it happens within a minute.
inline bool comes(std::function<bool()> const& condition) {
   for (double const end = Test::now() + 60; !condition(); Test::pause(0.002))
      if (Test::now() > end) return false;
   return true;
}
inline bool published(std::string const& root, std::string const& table) {
   return comes([&] {
      return std::filesystem::exists(root + "/flowtracking/default/hwOffload/" + table + "/kestor");
   });
}

/// One line for each row of one family's table: family, vlanId, protocol, addresses, ports, packets, bytes.
template <class Ops> void readTable(std::string const& path, std::multiset<std::string>& lines) {
   auto const handler = Lomi::Platform::getDebugHandler("TrackerTest", true);
   Mirak::MirakReader<Ops> reader(*handler, path, Ops());
   if (!reader.initialize("test")) throw std::runtime_error(path + ": " + reader.initializeError());
   typename Ops::Value value;
   Mirak::IterHint hint;
   for (bool more = reader.first(value, hint); more;) {
      auto const key = value.key();
      lines.insert(fmt::format("{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}", Ops::Key::isIp6 ? 6 : 4, key.vlanId(),
                               key.ipProtocolNumber(), key.srcAddr().str().view(), key.dstAddr().str().view(),
                               key.srcPort(), key.dstPort(), value.packets(), value.bytes()));
      more = reader.next(key, value, hint);
   }
}

/// Both tables below `root`.
inline std::multiset<std::string> rows(std::string const& root, std::string const& name = "capture") {
   Mem::RootPath::set(root);
   std::multiset<std::string> lines;
   std::string const mount = "flowtracking/default/hwOffload/counter/" + name;
   readTable<FlowTracking::HoIpFlowCounterOps>(mount + "/hoIpFlowCounter", lines);
   readTable<FlowTracking::HoIp6FlowCounterOps>(mount + "/hoIp6FlowCounter", lines);
   return lines;
}

} // namespace Program
