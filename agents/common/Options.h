// SPDX-License-Identifier: Apache-2.0
// The part of the command line, and of a run, that both agents share.
#pragma once

#include "PacketSource.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace Agents {

enum ExitStatus { done = 0, wrongUse = 2, cannotOpen = 3, damaged = 4, incomplete = 5 };

struct Options {
   std::string capture, interface; // one of them
   std::string type = "default", name = "capture";
   std::optional<std::string> root;
   double pace = 0; // packets a second, 0 for no limit
   bool json = false;

   bool live() const { return !interface.empty(); }
   /// The capture or the interface, for words.
   std::string const& source() const { return live() ? interface : capture; }
};

/// CAPTURE, -i, --root, --type, --name, --pace, -j.
void addOptions(CLI::App& app, Options& options);
/// An option whose number must be above 0.
void addNumber(CLI::App& app, std::string const& option, double& number, char const* type,
               std::string const& text);
/// Parses the command line. Returns an exit status if the program is to end at once.
std::optional<int> parse(CLI::App& app, int argc, char** argv);

/// Opens the capture or the interface. @throws CannotOpen, NotACapture
std::unique_ptr<PacketSource> openSource(Options const& options);

/// Runs a program's work, and turns what it throws into words and an exit status.
/// @param again what a new start will do about a table that has no room or is damaged
int guarded(std::function<int()> const& work, std::string const& again);

/// Holds a reader back so that `packets` packets take as long as they should. Waits in the event loop.
class Pace {
public:
   explicit Pace(double packetsPerSecond)
      : rate_(packetsPerSecond) {}
   void hold(std::uint64_t packets) const;

private:
   double rate_;
   std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

} // namespace Agents
