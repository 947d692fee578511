// SPDX-License-Identifier: Apache-2.0
// hoflow-tracker CAPTURE: counts the flows of a packet capture into a pair of shared tables, which any number
// of programs may read meanwhile. See docs/man/hoflow-tracker.1.
//
// Exit status: 0 done, 2 wrong use, 3 can't open the capture or the tables, 4 damaged capture (what came
// before the damage is counted) or damaged table, 5 incomplete (stopped, no room, link type not supported).
// Safe to kill at any moment and to start again; see FlowCounter.h for why. Two trackers on one table exclude
// each other.
#include "Capture.h"
#include "Lomi/Exception.h"
#include "Lomi/TaskSchedulerRoot.h"
#include "Mem/Paths.h"
#include "Report.h"
#include "Tables.h"
#include "Track.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace {

enum ExitStatus { done = 0, wrongUse = 2, cannotOpen = 3, damaged = 4, incomplete = 5 };

std::atomic<bool> stopped{false};                  // set by a signal
std::atomic<Tracker::Capture*> beingRead{nullptr}; // what the signal interrupts
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<Tracker::Capture*>::is_always_lock_free,
              "a signal handler may use them");

void stop(int) {
   int const error = errno;
   stopped = true;
   if (auto* const capture = beingRead.load()) capture->interrupt();
   errno = error;
}

void complain(std::string const& text) { std::fprintf(stderr, "hoflow-tracker: %s\n", text.c_str()); }

struct Options {
   std::string capture, type = "default", name = "capture";
   std::optional<std::string> root;
   double pace = 0;
   bool json = false;
};

constexpr char const* description =
    R"(Counts the flows of a packet capture into shared tables.

Reads CAPTURE, a pcap or pcapng file, or standard input if it is "-", and keeps
one row for each flow: packets, bytes, and the times of its first and its last
packet. IPv4 and IPv6 flows go into two tables
   flowtracking/TYPE/hwOffload/counter/NAME/hoIpFlowCounter
   flowtracking/TYPE/hwOffload/counter/NAME/hoIp6FlowCounter
below the root. Other programs may read them at any time, also while they are
written; `hoflow dump TABLE` shows the rows. How many flows there are is kept in
   flowtracking/TYPE/hwOffload/counter/status/hosStateIpCounter
   flowtracking/TYPE/hwOffload/counter/status/hosStateIp6Counter)";

constexpr char const* epilogue =
    R"(What is counted:
  A packet whose outermost network header, behind any number of VLAN tags, is IPv4
  or IPv6. Bytes are those of the IP packet, as its header says. A flow is the
  outermost VLAN id, the addresses, the protocol and the ports of TCP, UDP and
  SCTP; fragments have ports 0. Times are the capture's, in its order: if time
  goes backwards in it, a row's updateTime may lie before its createTime.

Running it again:
  The tables hold what CAPTURE gives, each packet counted once. A tracker that was
  stopped or killed is started again with the same command and goes on where it
  was. On a capture that is counted already nothing changes; on one that has grown
  the rest is added. Rows that CAPTURE doesn't account for (another capture
  was counted under this NAME) are removed: give each capture a NAME of its own.

Exit status:
  0 all counted   2 wrong use   3 can't open the capture or the tables
  4 the capture is damaged: packets up to the damage are counted; or a table is
  5 incomplete: interrupted, no room for the tables, link type not supported (no
    table is touched), output not written

Examples:
  hoflow-tracker trace.pcap
      counts into .../counter/capture below /dev/shm/hoflow
  hoflow-tracker office.pcapng --name office -j
      counts into .../counter/office, prints one JSON object
  tcpdump -i eth0 -U -w - | hoflow-tracker - --root /tmp/tables
      counts live traffic)";

/// Parses the command line. Returns an exit status if the program is to end at once.
std::optional<int> parse(int argc, char** argv, Options& options) {
   CLI::App app(description, "hoflow-tracker");
   app.footer(epilogue);
   app.failure_message([](CLI::App const*, CLI::Error const& e) {
      return std::string("hoflow-tracker: ") + e.what() + "\n  hoflow-tracker --help says more\n";
   });
   auto const pathComponent = CLI::Validator(
       [](std::string& text) {
          bool const good = !text.empty() && text != "." && text != ".." &&
                            std::none_of(text.begin(), text.end(),
                                         [](unsigned char c) { return c <= ' ' || c == 0x7f || c == '/'; });
          return good ? std::string() : "\"" + text + "\" can't be part of a table's path";
       },
       "");
   auto const isRate = CLI::Validator(
       [](std::string& text) {
          double rate = 0;
          bool const good = CLI::detail::lexical_cast(text, rate) && rate > 0 && std::isfinite(rate);
          return good ? std::string() : "\"" + text + "\": expected a number above 0";
       },
       "");
   auto const isGiven = CLI::Validator(
       [](std::string& text) { return text.empty() ? std::string("expected a folder") : std::string(); }, "");
   app.add_option("CAPTURE", options.capture, "a pcap or pcapng file, or - for standard input")->required();
   app.add_option("--root", options.root, "folder below which tables lie; default /dev/shm/hoflow")
       ->envname("HOFLOW_ROOT")
       ->type_name("DIR")
       ->check(isGiven);
   app.add_option("--type", options.type, "TYPE in the tables' path")
       ->capture_default_str()
       ->type_name("TYPE")
       ->check(pathComponent);
   app.add_option("--name", options.name, "NAME in the tables' path")
       ->capture_default_str()
       ->type_name("NAME")
       ->check(pathComponent);
   app.add_option("--pace", options.pace, "read at most N packets a second, to watch the tables grow")
       ->type_name("N")
       ->check(isRate);
   app.add_flag("-j,--json", options.json, "print the figures as one JSON object");
   try {
      app.parse(argc, argv);
   } catch (CLI::ParseError const& e) {
      return app.exit(e) == 0 ? done : wrongUse;
   }
   return std::nullopt;
}

/// Sleeps so that `packets` packets take as long as they should.
class Pace {
public:
   explicit Pace(double packetsPerSecond)
      : rate_(packetsPerSecond) {}
   void hold(std::uint64_t packets) const {
      if (rate_ <= 0) [[likely]]
         return;
      auto const due = start_ + std::chrono::duration<double>(static_cast<double>(packets) / rate_);
      while (!stopped && std::chrono::steady_clock::now() < due) {
         auto const left = due - std::chrono::steady_clock::now();
         std::this_thread::sleep_for(
             std::min<std::chrono::duration<double>>(left, std::chrono::milliseconds(50)));
      }
   }

private:
   double rate_;
   std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

void explain(Tracker::Capture const& capture, Tracker::Figures const& figures) {
   for (auto const* family : {&figures.ip4, &figures.ip6})
      if (family->rowsRemoved)
         complain(family->table + " held " + Tracker::grouped(family->rowsRemoved) +
                  " rows that are not the beginning of this capture; they were removed");
   if (figures.linkType)
      complain(figures.capture + ": link type " + capture.linkTypeText() +
               " is not supported; no packet was counted, no table touched");
   if (figures.damage)
      complain(figures.capture + ": packet " + std::to_string(figures.packetsRead + 1) +
               " is damaged: " + *figures.damage + "; the " + Tracker::grouped(figures.packetsRead) +
               " packets before it are counted");
   if (!figures.complete)
      complain("stopped after packet " + Tracker::grouped(figures.packetsRead) +
               "; start it again with the same capture to count the rest");
}

/// Opens the tables, and says if one comes back without the rows that it had.
std::unique_ptr<Tracker::Tables> openTables(Options const& options, Tracker::Figures const& figures) {
   std::unique_ptr<Tracker::Tables> tables;
   try {
      tables = std::make_unique<Tracker::Tables>(options.type, options.name);
   } catch (Lomi::MemoryResourceException const&) {
      throw;
   } catch (Lomi::Exception const& e) {
      if (std::string_view(e.what()).ends_with(std::strerror(ENOSPC)))
         throw Lomi::MemoryResourceException(e.what());
      throw Tracker::CannotOpen(std::string("the tables can't be opened: ") + e.what());
   }
   auto const explainLoss = [](std::string const& table, std::string const& why) {
      if (!why.empty())
         complain(table + ": what is there can't be taken over (" + why + "); emptied, to be counted anew");
   };
   explainLoss(figures.ip4.table, tables->lost4());
   explainLoss(figures.ip6.table, tables->lost6());
   try {
      tables->mountStates();
   } catch (Lomi::InvalidInitializeException const& e) {
      complain(std::string("the counts by state are not kept: ") + e.what());
   }
   return tables;
}

/// Reads all of a capture that holds nothing to count.
void skip(Tracker::Capture& capture, Tracker::Figures& figures) {
   Tracker::Packet packet;
   while (!stopped && capture.next(packet)) ++figures.linkType;
   figures.complete = !stopped;
   figures.packetsRead = capture.packets();
   figures.damage = capture.damage();
}

void listenToSignals(Tracker::Capture& capture) {
   beingRead = &capture;
   struct sigaction action {};
   action.sa_handler = stop; // without SA_RESTART: a wait for packets is to end
   sigaction(SIGINT, &action, nullptr);
   sigaction(SIGTERM, &action, nullptr);
}

int run(Options const& options) {
   if (options.root) Mem::RootPath::set(*options.root);
   // Until the capture is open a signal just ends the program: nothing is begun yet.
   Tracker::Capture capture(options.capture);
   listenToSignals(capture);
   Tracker::Figures figures;
   figures.capture = options.capture;
   figures.root = Mem::RootPath::get();
   std::string const mount = FlowTracking::HoFlowCounter::mountPath(options.type, options.name);
   figures.ip4.table = mount + "/hoIpFlowCounter";
   figures.ip6.table = mount + "/hoIp6FlowCounter";
   auto const tables = capture.linkLayer() ? openTables(options, figures) : nullptr;

   auto const start = std::chrono::steady_clock::now();
   if (tables) {
      Tracker::ProgressBar bar("counting");
      Pace const pace(options.pace);
      Tracker::track(capture, tables->ip4, tables->ip6, figures, [&](std::uint64_t packets) {
         if (packets % 4096 == 0) {
            tables->countStates();
            Lomi::TaskSchedulerRoot::root().dispatch(); // the tables' sentries
         }
         if (packets % 4096 == 0 || options.pace > 0) bar.show(capture.progress(), packets);
         pace.hold(packets);
         return !stopped;
      });
      tables->countStates();
   } else {
      skip(capture, figures);
   }
   beingRead = nullptr;
   figures.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
   explain(capture, figures);
   std::string const text = options.json ? toJson(figures) + "\n" : toText(figures);
   std::fwrite(text.data(), 1, text.size(), stdout);
   bool const said = std::fflush(stdout) == 0;
   if (!said) complain(std::string("standard output can't be written: ") + std::strerror(errno));
   if (figures.damage) return damaged;
   return figures.complete && tables && said ? done : incomplete;
}

} // namespace

int main(int argc, char** argv) {
   Options options;
   if (auto const status = parse(argc, argv, options)) return *status;
   try {
      return run(options);
   } catch (Tracker::CannotOpen const& e) {
      complain(e.what());
      return cannotOpen;
   } catch (Tracker::NotACapture const& e) {
      complain(e.what());
      return damaged;
   } catch (Lomi::MemoryResourceException const& e) {
      complain(std::string("no room for the tables: ") + e.what() +
               "; make room and start it again, it will count what is missing");
      return incomplete;
   } catch (Lomi::CorruptionDetectedException const& e) {
      complain(std::string("a table is damaged: ") + e.what() +
               "; start it again, it will count that table anew");
      return damaged;
   } catch (std::exception const& e) {
      complain(e.what());
      return incomplete;
   }
}
