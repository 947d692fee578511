// SPDX-License-Identifier: Apache-2.0
// Options.h by CLI11.
#include "Options.h"

#include "Capture.h"
#include "Interface.h"
#include "Lomi/Exception.h"
#include "Report.h"
#include "Stop.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cmath>

namespace Agents {
namespace {

CLI::Validator const isPathComponent(
    [](std::string& text) {
       bool const good = !text.empty() && text != "." && text != ".." &&
                         std::none_of(text.begin(), text.end(),
                                      [](unsigned char c) { return c <= ' ' || c == 0x7f || c == '/'; });
       return good ? std::string() : "\"" + text + "\" can't be part of a table's path";
    },
    "");

CLI::Validator const
    isGiven([](std::string& text) { return text.empty() ? std::string("expected a folder") : std::string(); },
            "");

CLI::Validator const isAbove0(
    [](std::string& text) {
       double number = 0;
       bool const good = CLI::detail::lexical_cast(text, number) && number > 0 && std::isfinite(number);
       return good ? std::string() : "\"" + text + "\": expected a number above 0";
    },
    "");

} // namespace

void addNumber(CLI::App& app, std::string const& option, double& number, char const* type,
               std::string const& text) {
   app.add_option(option, number, text)->type_name(type)->check(isAbove0);
}

void addOptions(CLI::App& app, Options& options) {
   auto* const capture =
       app.add_option("CAPTURE", options.capture, "a pcap or pcapng file, or - for standard input");
   app.add_option("-i,--interface", options.interface, "a network interface instead, until it is stopped")
       ->type_name("NAME")
       ->excludes(capture);
   app.callback([&options] {
      if (options.source().empty()) throw CLI::RequiredError("CAPTURE or --interface");
   });
   app.add_option("--root", options.root, "folder below which tables lie; default /dev/shm/hoflow")
       ->envname("HOFLOW_ROOT")
       ->type_name("DIR")
       ->check(isGiven);
   app.add_option("--type", options.type, "TYPE in the tables' path")
       ->capture_default_str()
       ->type_name("TYPE")
       ->check(isPathComponent);
   app.add_option("--name", options.name, "NAME in the counter tables' path")
       ->capture_default_str()
       ->type_name("NAME")
       ->check(isPathComponent);
   addNumber(app, "--pace", options.pace, "N", "read at most N packets a second, to watch the tables grow");
   app.add_flag("-j,--json", options.json, "print the figures as one JSON object");
}

std::optional<int> parse(CLI::App& app, int argc, char** argv) {
   app.failure_message([](CLI::App const*, CLI::Error const& e) {
      std::string const program = program_invocation_short_name;
      return program + ": " + e.what() + "\n  " + program + " --help says more\n";
   });
   try {
      app.parse(argc, argv);
   } catch (CLI::ParseError const& e) {
      return app.exit(e) == 0 ? done : wrongUse;
   }
   return std::nullopt;
}

std::unique_ptr<PacketSource> openSource(Options const& options) {
   if (options.live()) return std::make_unique<Interface>(options.interface);
   return std::make_unique<Capture>(options.capture);
}

int guarded(std::function<int()> const& work, std::string const& again) {
   try {
      return work();
   } catch (CannotOpen const& e) {
      complain(e.what());
      return cannotOpen;
   } catch (NotACapture const& e) {
      complain(e.what());
      return damaged;
   } catch (Lomi::MemoryResourceException const& e) {
      complain(std::string("no room for the tables: ") + e.what() + "; make room and start it again, " +
               again);
      return incomplete;
   } catch (Lomi::CorruptionDetectedException const& e) {
      complain(std::string("a table is damaged: ") + e.what() + "; start it again, " + again);
      return damaged;
   } catch (std::exception const& e) {
      complain(e.what());
      return incomplete;
   }
}

void Pace::hold(std::uint64_t packets) const {
   if (rate_ <= 0) [[likely]]
      return;
   auto const due = start_ + std::chrono::duration<double>(static_cast<double>(packets) / rate_);
   double const left = std::chrono::duration<double>(due - std::chrono::steady_clock::now()).count();
   if (left > 0) waitInLoop(-1, left);
}

} // namespace Agents
