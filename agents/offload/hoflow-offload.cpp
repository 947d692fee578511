// SPDX-License-Identifier: Apache-2.0
// hoflow-offload: the hardware's side of offloading. It follows the tables of chosen flows that a tracker
// writes, holds as many flows as it has slots, says of each in the tables of states whether it is held, and
// counts the packets of the held ones. See docs/man/hoflow-offload.1.
//
// Exit status: as hoflow-tracker's. Safe to kill at any moment and to start again; see Hardware.h and
// Counting.h for why. Two of them under one TYPE exclude each other.
#include "Counting.h"
#include "FlowTracking/HoFlowStatusEntity.h"
#include "Hardware.h"
#include "Help.h"
#include "Lomi/Exception.h"
#include "Lomi/TaskSchedulerRoot.h"
#include "Mem/Paths.h"
#include "Options.h"
#include "ReadPackets.h"
#include "Report.h"
#include "Stop.h"
#include "Wishes.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace {

using Agents::complain;
using Agents::grouped;
using FlowTracking::HoFlowStatus;

struct Options : Agents::Options {
   std::uint64_t slots = 0;
};

std::optional<int> parse(int argc, char** argv, Options& options) {
   CLI::App app(Offload::description, "hoflow-offload");
   app.footer(Offload::epilogue);
   Agents::addOptions(app, options);
   app.add_option("--slots", options.slots,
                  "how many flows the hardware can hold; default: as many as there are")
       ->type_name("N")
       ->check(CLI::Range(std::uint64_t(1), std::uint64_t(1) << 32).description(""));
   return Agents::parse(app, argc, argv);
}

Zeb::Seconds now() {
   return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

/// The tables of states, which this process writes. A tracker knows by that who counts.
struct StatusTables {
   Zeb::Ptr<Zeb::Dir> tree = Zeb::Dir::DirIs("");
   Zeb::Ptr<HoFlowStatus> status = FlowTracking::hoFlowStatusFactory("status");
   Agents::TableStore<HoFlowStatus, HoFlowStatus::Attribute4, &HoFlowStatus::hoIpFlowStatusIs,
                      &HoFlowStatus::hoIpFlowStatusDel, &HoFlowStatus::hoIpFlowStatusDelAll>
       ip4{*status, status->hoIpFlowStatus()};
   Agents::TableStore<HoFlowStatus, HoFlowStatus::Attribute6, &HoFlowStatus::hoIp6FlowStatusIs,
                      &HoFlowStatus::hoIp6FlowStatusDel, &HoFlowStatus::hoIp6FlowStatusDelAll>
       ip6{*status, status->hoIp6FlowStatus()};

   explicit StatusTables(std::string const& type) {
      tree->entityIs(HoFlowStatus::mountPath(type), status);
      Agents::mountWriter(status->hoIpFlowStatusControl(), "hoIpFlowStatus", Agents::flowTableSize);
      Agents::mountWriter(status->hoIp6FlowStatusControl(), "hoIp6FlowStatus", Agents::flowTableSize);
   }
};

/// One family: wishes to the hardware, the hardware's flows to the counters.
template <class Status, class Counter>
class Family final : public Offload::Holder<typename Status::Key>,
                     public Offload::Wishful<typename Status::Key> {
public:
   using Key = typename Status::Key;

   Family(Agents::RowStore<Status>& statuses, Offload::Slots& slots, std::function<void()> fill)
      : hardware(statuses, slots, *this, now)
      , fill_(std::move(fill)) {}

   void hold(Key const& key) override { counting.hold(key.ipFlowKey()); }
   void release(Key const& key) override { counting.release(key.ipFlowKey()); }
   void wantedIs(Key const& key, bool wanted) override {
      if (wanted) return hardware.want(key);
      hardware.drop(key);
      fill_();
   }
   void caughtUp(std::function<bool(Key const&)> const& contains) override {
      hardware.keep(contains);
      fill_();
   }

   Offload::Counting<Counter> counting; // before the hardware, which tells it of the flows that it takes over
   Offload::Hardware<Status> hardware;

private:
   std::function<void()> fill_;
};

class Run {
public:
   explicit Run(Options const& options);
   int run(std::unique_ptr<Agents::PacketSource> source);

private:
   void regularly();
   bool mountCounters();
   bool await(std::function<bool()> const& condition, std::string const& what);
   bool awaitCounters();
   bool pass(Agents::PacketSource& source);
   int follow(std::unique_ptr<Agents::PacketSource> source);
   bool report();
   void fillFamily(Agents::FamilyFigures& figures, auto const& counting) const;

   bool uncounted() const { return ip4_.counting.uncounted() || ip6_.counting.uncounted(); }

   Options const& options_;
   Agents::Figures figures_;
   std::uint64_t passes_ = 0, notHeld_ = 0;
   // The statuses come before the counters: a tracker that finds both written by one process leaves counting
   // to it.
   StatusTables statuses_;
   std::unique_ptr<Agents::CounterTables> counters_;
   std::unique_ptr<Agents::StateTables> states_;
   Offload::Slots slots_;
   Family<FlowTracking::HoIpFlowStatus, FlowTracking::HoIpFlowCounter> ip4_;
   Family<FlowTracking::HoIp6FlowStatus, FlowTracking::HoIp6FlowCounter> ip6_;
   std::unique_ptr<Offload::Wishes> wishes_;
};

Run::Run(Options const& options)
   : options_(options)
   , statuses_(options.type)
   , slots_(options.slots)
   , ip4_(statuses_.ip4, slots_, [this] { fill(slots_, ip4_.hardware, ip6_.hardware); })
   , ip6_(statuses_.ip6, slots_, [this] { fill(slots_, ip4_.hardware, ip6_.hardware); }) {
   figures_.capture = options.source();
   figures_.root = Mem::RootPath::get();
   std::string const path(FlowTracking::HoFlowCounter::mountPath(options.type, options.name).view());
   figures_.ip4.table = path + "/hoIpFlowCounter";
   figures_.ip6.table = path + "/hoIp6FlowCounter";
   fill(slots_, ip4_.hardware, ip6_.hardware);
   mountCounters();
   wishes_ = std::make_unique<Offload::Wishes>(options.type, ip4_, ip6_);
}

/// Opens the counters and the counts by state. False as long as another process, a tracker, writes the
/// counters.
bool Run::mountCounters() {
   if (!counters_) {
      auto const taken = [this] {
         return Agents::writerOf(figures_.ip4.table) || Agents::writerOf(figures_.ip6.table);
      };
      if (taken()) return false;
      try {
         counters_ = std::make_unique<Agents::CounterTables>(options_.type, options_.name);
      } catch (Lomi::InvalidInitializeException const&) {
         if (taken()) return false; // just now
         throw;
      }
      ip4_.counting.tableIs(counters_->ip4);
      ip6_.counting.tableIs(counters_->ip6);
   }
   std::string const states(FlowTracking::HosStateCounter::mountPath(options_.type).view());
   if (!states_ && !Agents::writerOf(states + "/hosStateIpCounter"))
      states_ = std::make_unique<Agents::StateTables>(options_.type);
   return true;
}

void Run::regularly() {
   mountCounters();
   if (states_) states_->countsAre(ip4_.hardware.counts(), ip6_.hardware.counts());
}

/// Runs the loop until `condition` holds. Says after a moment what it waits for. False once told to stop.
bool Run::await(std::function<bool()> const& condition, std::string const& what) {
   auto const start = std::chrono::steady_clock::now();
   bool said = false;
   while (!condition()) {
      Agents::waitInLoop(-1, 0.02);
      if (Agents::stopRequested()) return false;
      if (!said && std::chrono::steady_clock::now() - start > std::chrono::seconds(2)) {
         complain("waiting for " + what);
         said = true;
      }
   }
   return true;
}

bool Run::awaitCounters() {
   return await([this] { return mountCounters(); }, "the counters, which another process writes");
}

/// Reads a source to its end. False if it was stopped before.
bool Run::pass(Agents::PacketSource& source) {
   static_cast<Agents::Reading&>(figures_) = {};
   notHeld_ = 0;
   ++passes_;
   auto const start = std::chrono::steady_clock::now();
   ip4_.counting.begin(options_.live());
   ip6_.counting.begin(options_.live());
   Agents::ProgressBar bar("counting");
   Agents::Pace const pace(options_.pace);
   auto const use = [this](auto const& key, Agents::Frame const& frame, Zeb::Seconds time) {
      bool held;
      if constexpr (std::is_same_v<decltype(key), FlowTracking::IpFlowKey const&>)
         held = ip4_.counting.packet(key, frame.bytes, time);
      else
         held = ip6_.counting.packet(key, frame.bytes, time);
      notHeld_ += !held;
   };
   Agents::readPackets(source, figures_, use, [&](std::uint64_t packets) {
      if (packets % 1024 == 0) {
         Agents::turnLoop(); // wishes, sentries and followers
         bar.show(source.progress(), packets);
      }
      pace.hold(packets);
      return !Agents::stopRequested();
   });
   figures_.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
   if (!figures_.complete) return false;
   ip4_.counting.finish();
   ip6_.counting.finish();
   return true;
}

/// Counts a capture once the tracker's tables are complete, again if flows came meanwhile; or an interface
/// until it is told to stop. @return exit status
int Run::follow(std::unique_ptr<Agents::PacketSource> source) {
   auto const ready = [this] {
      return options_.live() ? wishes_->followed()
                             : wishes_->complete(ip4_.hardware.flows(), ip6_.hardware.flows());
   };
   while (await(ready, "hoflow-tracker to choose its flows") && awaitCounters()) {
      if (passes_ && !uncounted()) break;
      if (!source && options_.capture == "-") {
         complain("flows came after the packets of standard input; they are not counted");
         return Agents::incomplete;
      }
      // What an interface brought meanwhile was another's to count.
      if (!source || options_.live()) source = Agents::openSource(options_);
      if (!pass(*source) || options_.live()) break;
      source.reset();
   }
   if (figures_.damage) {
      complain(options_.source() +
               (options_.live() ? ": "
                                : ": packet " + std::to_string(figures_.packetsRead + 1) + " is damaged: ") +
               *figures_.damage);
      return options_.live() ? Agents::incomplete : Agents::damaged;
   }
   if (options_.live() || !Agents::stopRequested()) return Agents::done;
   complain("stopped before all was counted; start it again with the same capture");
   return Agents::incomplete;
}

int Run::run(std::unique_ptr<Agents::PacketSource> source) {
   auto const timer = Lomi::TaskSchedulerRoot::root().timerTask(
       0.2, [this] { regularly(); }, Lomi::TaskPriority::normal, 0.2);
   int const status = follow(std::move(source));
   regularly();
   return report() ? status : int(Agents::incomplete);
}

void Run::fillFamily(Agents::FamilyFigures& figures, auto const& counting) const {
   figures.flows = counting.rows();
   figures.packets = counting.packets();
   figures.bytes = counting.bytes();
   figures.packetsKept = counting.packetsKept();
   figures.rowsRemoved = counting.rowsRemoved();
   figures.stores = counting.stores();
}

bool Run::report() {
   fillFamily(figures_.ip4, ip4_.counting);
   fillFamily(figures_.ip6, ip6_.counting);
   auto counts = ip4_.hardware.counts();
   auto const counts6 = ip6_.hardware.counts();
   for (std::size_t state = 0; state < counts.size(); ++state) counts[state] += counts6[state];
   if (options_.json) {
      auto json = toJson(figures_);
      json["notHeld"] = notHeld_;
      json["passes"] = passes_;
      json["slots"] = {{"limit", slots_.limit()}, {"used", slots_.used()}};
      json["states"] = Agents::statesJson(counts);
      return Agents::say(Agents::dumped(json));
   }
   std::string text = toText(figures_);
   text += Agents::line("not held", grouped(notHeld_) + " packets of other flows");
   text += Agents::line("slots", slots_.limit() ? grouped(slots_.used()) + " of " + grouped(slots_.limit())
                                                : grouped(slots_.used()) + ", without a limit");
   text += Agents::line("states", Agents::statesText(counts));
   text += Agents::line("tables", figures_.ip4.table) + Agents::line("", figures_.ip6.table);
   return Agents::say(text + Agents::line("", "below " + figures_.root));
}

} // namespace

int main(int argc, char** argv) {
   Options options;
   if (auto const status = parse(argc, argv, options)) return *status;
   return Agents::guarded(
       [&] {
          if (options.root) Mem::RootPath::set(*options.root);
          // Until the source is open a signal just ends the program: nothing is begun yet.
          auto source = Agents::openSource(options);
          Agents::listenToSignals();
          if (!source->linkLayer()) {
             complain(options.source() + ": link type " + source->linkTypeText() +
                      " is not supported; no packet is counted, no table touched");
             return int(Agents::incomplete);
          }
          std::optional<Run> run;
          Agents::openTables([&] { run.emplace(options); });
          return run->run(std::move(source));
       },
       "it will count what is missing");
}
