// SPDX-License-Identifier: Apache-2.0
// Runs hoflow-tracker as a user does, and reads its tables back through the reader's side.
#pragma once

#include "FlowTracking/Tables.h"
#include "Lomi/Trace.h"
#include "Mem/Paths.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <vector>

extern char** environ;

namespace Program {

struct Result {
   int status = -1; // exit status, or -signal
   std::string out, err;
};

/// One running tracker, or another program. Whoever starts it waits for it; a minute is the limit.
class Tracker {
public:
   /// @param folder takes its output, in files named by `name`
   /// @param in its standard input
   /// @param out its standard output, if not in the folder
   /// @param program another one
   Tracker(std::string const& folder, std::vector<std::string> arguments, std::string const& name = "run",
           std::string const& in = "/dev/null", std::string const& out = {},
           std::string const& program = HOFLOW_TRACKER)
      : out_(out.empty() ? folder + "/" + name + ".out" : out)
      , err_(folder + "/" + name + ".err") {
      posix_spawn_file_actions_t actions;
      posix_spawn_file_actions_init(&actions);
      constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC;
      posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
      posix_spawn_file_actions_addopen(&actions, 1, out_.c_str(), flags, 0600);
      posix_spawn_file_actions_addopen(&actions, 2, err_.c_str(), flags, 0600);
      arguments.insert(arguments.begin(), program);
      std::vector<char*> argv;
      for (auto& argument : arguments) argv.push_back(argument.data());
      argv.push_back(nullptr);
      if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ) != 0)
         throw std::runtime_error("can't start " + program);
      posix_spawn_file_actions_destroy(&actions);
   }

   void signal(int number) const { kill(pid_, number); }

   Result wait() {
      auto const end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
      int status = 0;
      while (waitpid(pid_, &status, WNOHANG) == 0) {
         if (std::chrono::steady_clock::now() > end) signal(SIGKILL);
         std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
      auto content = [](std::string const& path) {
         if (!std::filesystem::is_regular_file(path)) return std::string();
         std::ifstream in(path, std::ios::binary);
         return std::string(std::istreambuf_iterator<char>(in), {});
      };
      return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), content(out_), content(err_)};
   }

private:
   std::string out_, err_;
   pid_t pid_ = 0;
};

inline Result run(std::string const& folder, std::vector<std::string> arguments) {
   return Tracker(folder, std::move(arguments)).wait();
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
