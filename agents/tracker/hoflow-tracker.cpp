// SPDX-License-Identifier: Apache-2.0
// hoflow-tracker: follows the flows of a packet capture or of an interface, writes those that are worth it
// into the tables of chosen flows, and counts them all unless an offload agent does. See
// docs/man/hoflow-tracker.1.
//
// Exit status: 0 done, 2 wrong use, 3 can't open the source or the tables, 4 damaged capture (what came
// before the damage is counted) or damaged table, 5 incomplete (stopped, no room, link type not supported).
// Safe to kill at any moment and to start again; see FlowCounter.h and Choice.h for why. Two trackers on one
// table exclude each other.
#include "Capture.h"
#include "Help.h"
#include "Interface.h"
#include "Lomi/Exception.h"
#include "Lomi/TaskSchedulerRoot.h"
#include "Mem/Paths.h"
#include "Offers.h"
#include "Options.h"
#include "Report.h"
#include "Stop.h"
#include "Tables.h"
#include "Track.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace {

using Agents::complain;
using Agents::grouped;
using Agents::StateCounts;

constexpr double idleOfInterface = 60; // seconds
constexpr double patience = 10;        // seconds without news of the offload agent

struct Options : Agents::Options {
   std::uint64_t offloadAfter = 1;
   double idle = 0;
   bool noCount = false;
};

std::optional<int> parse(int argc, char** argv, Options& options) {
   CLI::App app(Tracker::description, "hoflow-tracker");
   app.footer(Tracker::epilogue);
   Agents::addOptions(app, options);
   app.add_option("--offload-after", options.offloadAfter, "choose a flow at its Nth packet")
       ->capture_default_str()
       ->type_name("N")
       ->check(CLI::Range(std::uint64_t(1), std::uint64_t(1) << 53).description(""));
   Agents::addNumber(
       app, "--idle", options.idle, "SECONDS",
       "drop a flow that had no packet for so long; default 60 of an interface, never of a capture");
   app.add_flag("--no-count", options.noCount,
                "leave the counters to hoflow-offload, also if it isn't running yet");
   return Agents::parse(app, argc, argv);
}

double now() {
   return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void explainLoss(std::string const& table, std::string const& why) {
   if (!why.empty())
      complain(table + ": what is there can't be taken over (" + why + "); emptied, to be filled anew");
}

/// One run of the tracker: its tables, its work, and what it has to say.
class Run {
public:
   explicit Run(Options const& options);
   int run();

private:
   void mountCounters();
   void mountStates();
   void mountOffers();
   void mount(Agents::PacketSource const& source);
   void leaveCounters();
   void work(Agents::PacketSource& source);
   void awaitAnswers();
   void explain(Agents::PacketSource const& source) const;
   bool report() const;

   StateCounts offered4() const {
      return works_.ip4.choice ? offers_->states(*works_.ip4.choice) : StateCounts{};
   }
   StateCounts offered6() const {
      return works_.ip6.choice ? offers_->states(*works_.ip6.choice) : StateCounts{};
   }

   Options const& options_;
   Agents::Figures figures_;
   std::unique_ptr<Agents::CounterTables> counters_;
   std::unique_ptr<Agents::StateTables> states_;
   std::unique_ptr<Tracker::Offers> offers_;
   Tracker::Works works_;
   bool answered_ = false;
};

Run::Run(Options const& options)
   : options_(options) {
   figures_.capture = options.source();
   figures_.root = Mem::RootPath::get();
   std::string const path(FlowTracking::HoFlowCounter::mountPath(options.type, options.name).view());
   figures_.ip4.table = path + "/hoIpFlowCounter";
   figures_.ip6.table = path + "/hoIp6FlowCounter";
}

/// Opens the counters, unless they are another's job.
void Run::mountCounters() {
   if (options_.noCount) return;
   try {
      counters_ = std::make_unique<Agents::CounterTables>(options_.type, options_.name);
   } catch (Lomi::InvalidInitializeException const& e) {
      // The offload agent writes the states of flows before it opens the counters.
      std::string const states(FlowTracking::HoFlowStatus::mountPath(options_.type).view());
      unsigned const writer = Agents::writerOf(figures_.ip4.table);
      if (writer && writer == Agents::writerOf(states + "/hoIpFlowStatus")) return;
      throw;
   }
   explainLoss(figures_.ip4.table, counters_->lost4());
   explainLoss(figures_.ip6.table, counters_->lost6());
   works_.ip4.counter.emplace(counters_->ip4, options_.live());
   works_.ip6.counter.emplace(counters_->ip6, options_.live());
}

/// Opens the counts by state, which whoever counts keeps.
void Run::mountStates() {
   if (!counters_) return;
   try {
      states_ = std::make_unique<Agents::StateTables>(options_.type);
   } catch (Lomi::InvalidInitializeException const& e) {
      complain(std::string("the counts by state are not kept: ") + e.what());
   }
}

void Run::mountOffers() {
   try {
      offers_ = std::make_unique<Tracker::Offers>(options_.type);
   } catch (Lomi::InvalidInitializeException const& e) {
      if (!counters_) throw;
      complain(std::string("no flow is chosen for offload: ") + e.what());
      return;
   }
   explainLoss(Tracker::Offers::path4(options_.type), offers_->lost4());
   explainLoss(Tracker::Offers::path6(options_.type), offers_->lost6());
   offers_->markIs(options_.live() ? Agents::TableMark::nothing : Agents::TableMark::filling);
}

void Run::mount(Agents::PacketSource const& source) {
   Agents::openTables([this] {
      mountCounters();
      mountStates();
      mountOffers();
   });
   if (!offers_) return;
   Tracker::ChoiceRules rules;
   rules.offloadAfter = options_.offloadAfter;
   rules.idle = options_.idle > 0 ? options_.idle : options_.live() ? idleOfInterface : 0;
   rules.live = options_.live();
   if (auto const* const interface = dynamic_cast<Agents::Interface const*>(&source);
       interface && interface->index())
      rules.intfId = Nimbet::IntfId(*interface->index());
   works_.ip4.choice.emplace(offers_->ip4, rules, now());
   works_.ip6.choice.emplace(offers_->ip6, rules, now());
}

/// Leaves the counters to an offload agent that came later.
void Run::leaveCounters() {
   if (!counters_) return;
   complain("hoflow-offload counts from here on");
   works_.ip4.counter.reset();
   works_.ip6.counter.reset();
   states_.reset();
   counters_.reset();
}

/// Reads the packets. Twice a second, and at the end, it does what time alone brings.
void Run::work(Agents::PacketSource& source) {
   Agents::ProgressBar bar(counters_ ? "counting" : "choosing");
   auto const regularly = [&] {
      if (offers_) answered_ |= offers_->answered();
      if (options_.live() && offers_) {
         works_.ip4.choice->timeIs(now());
         works_.ip6.choice->timeIs(now());
         if (offers_->answered()) leaveCounters();
      }
      if (states_) {
         StateCounts counts4{}, counts6{};
         counts4[0] = static_cast<std::uint32_t>(works_.ip4.counter->rows());
         counts6[0] = static_cast<std::uint32_t>(works_.ip6.counter->rows());
         states_->countsAre(counts4, counts6);
      }
      bar.show(source.progress(), source.packets());
   };
   auto const timer =
       Lomi::TaskSchedulerRoot::root().timerTask(0.5, regularly, Lomi::TaskPriority::normal, 0.5);
   Agents::Pace const pace(options_.pace);
   Tracker::track(source, works_, figures_, [&](std::uint64_t packets) {
      if (packets % 1024 == 0) {
         Agents::turnLoop(); // the tables' sentries and followers
         bar.show(source.progress(), packets);
      }
      pace.hold(packets);
      return !Agents::stopRequested();
   });
   regularly();
}

/// Waits until the offload agent, if one is at work, has said of each flow whether it takes it.
void Run::awaitAnswers() {
   using Clock = std::chrono::steady_clock;
   auto const open = [this] {
      auto const counts4 = offered4(), counts6 = offered6();
      auto const rejected = static_cast<std::size_t>(FlowTracking::HoFlowState::rejected);
      auto const offloaded = static_cast<std::size_t>(FlowTracking::HoFlowState::offloaded);
      std::uint64_t count = 0;
      for (std::size_t state = 0; state < counts4.size(); ++state)
         if (state != rejected && state != offloaded) count += counts4[state] + counts6[state];
      return count;
   };
   std::uint64_t last = ~0ull;
   auto news = Clock::now();
   while (!Agents::stopRequested() && Clock::now() - news < std::chrono::duration<double>(patience)) {
      if (offers_->knowsAnswers()) {
         answered_ |= offers_->answered();
         std::uint64_t const left = offers_->answered() ? open() : 0;
         if (left == 0) return;
         if (left != last) news = Clock::now();
         last = left;
      }
      Agents::waitInLoop(-1, 0.02);
   }
}

void Run::explain(Agents::PacketSource const& source) const {
   for (auto const* family : {&figures_.ip4, &figures_.ip6})
      if (family->rowsRemoved)
         complain(family->table + " held " + grouped(family->rowsRemoved) +
                  " rows that are not the beginning of this capture; they were removed");
   if (figures_.linkType)
      complain(figures_.capture + ": link type " + source.linkTypeText() +
               " is not supported; no packet was counted, no table touched");
   if (figures_.damage && options_.live())
      complain(figures_.capture + ": " + *figures_.damage);
   else if (figures_.damage)
      complain(figures_.capture + ": packet " + std::to_string(figures_.packetsRead + 1) +
               " is damaged: " + *figures_.damage + "; the " + grouped(figures_.packetsRead) +
               " packets before it are counted");
   if (!figures_.complete && !options_.live())
      complain("stopped after packet " + grouped(figures_.packetsRead) +
               "; start it again with the same capture to count the rest");
}

bool Run::report() const {
   StateCounts const counts4 = offered4(), counts6 = offered6();
   StateCounts counts{};
   std::uint64_t chosen4 = 0, chosen6 = 0;
   for (std::size_t state = 0; state < counts.size(); ++state) {
      counts[state] = counts4[state] + counts6[state];
      chosen4 += counts4[state];
      chosen6 += counts6[state];
   }
   bool const none = !answered_ && counts[0] == chosen4 + chosen6;
   if (options_.json) {
      auto json = toJson(figures_);
      json["counted"] = bool(counters_);
      if (offers_)
         json["offload"] = {{"chosen", chosen4 + chosen6},
                            {"rowsStored", works_.ip4.choice->stores() + works_.ip6.choice->stores()},
                            {"rowsRemoved", works_.ip4.choice->removed() + works_.ip6.choice->removed()},
                            {"rowsForeign", works_.ip4.choice->foreign() + works_.ip6.choice->foreign()},
                            {"agent", answered_},
                            {"states", Agents::statesJson(counts)}};
      return Agents::say(Agents::dumped(json));
   }
   std::string text = toText(figures_);
   if (!counters_) text += Agents::line("counters", "left to hoflow-offload");
   if (offers_) {
      text += Agents::line("chosen", Agents::groupedSum(chosen4, chosen6) + " for offload");
      text += Agents::line("of these", none ? "no offload agent said anything" : Agents::statesText(counts));
   }
   text += Agents::line("tables", figures_.ip4.table) + Agents::line("", figures_.ip6.table);
   if (offers_)
      text += Agents::line("", Tracker::Offers::path4(options_.type)) +
              Agents::line("", Tracker::Offers::path6(options_.type));
   return Agents::say(text + Agents::line("", "below " + figures_.root));
}

int Run::run() {
   // Until the source is open a signal just ends the program: nothing is begun yet.
   auto const source = Agents::openSource(options_);
   Agents::listenToSignals();
   bool const readable = source->linkLayer().has_value();
   if (readable) mount(*source);
   auto const start = std::chrono::steady_clock::now();
   if (readable)
      work(*source);
   else
      skipPackets(*source, figures_);
   figures_.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
   explain(*source);
   if (offers_) {
      if (figures_.complete) awaitAnswers();
      if (figures_.complete && !options_.live()) offers_->markIs(Agents::TableMark::complete);
   }
   bool const said = report();
   if (figures_.damage) return options_.live() ? Agents::incomplete : Agents::damaged;
   return (figures_.complete || options_.live()) && readable && said ? Agents::done : Agents::incomplete;
}

} // namespace

int main(int argc, char** argv) {
   Options options;
   if (auto const status = parse(argc, argv, options)) return *status;
   return Agents::guarded(
       [&] {
          if (options.root) Mem::RootPath::set(*options.root);
          return Run(options).run();
       },
       "it will fill in what is missing");
}
