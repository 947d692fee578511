// SPDX-License-Identifier: Apache-2.0
// watch: waits for the table, follows it, and ends.
//
// Everything runs in the thread's loop. Output waits for its reader; then no change is taken in, which costs
// the writer nothing, and a row that changes often meanwhile is told once. The signals that end it come as
// readable bytes of a descriptor, so that they end a wait for the reader, too.
#include "Changes.h"
#include "Commands.h"
#include "Files.h"
#include "Following.h"
#include "Lomi/TaskSchedulerRoot.h"
#include "Mirak/Util.h"
#include "Names.h"
#include "Zeb/Registry.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <optional>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace Tool {

namespace {

using Clock = std::chrono::steady_clock;

double secondsUntil(Clock::time_point time) {
   return std::chrono::duration<double>(time - Clock::now()).count();
}

/// SIGINT, SIGTERM and --timeout.
class Ending {
public:
   explicit Ending(std::optional<double> timeout) {
      if (timeout)
         deadline_ = Clock::now() +
                     std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(*timeout));
      sigset_t signals;
      sigemptyset(&signals);
      sigaddset(&signals, SIGINT);
      sigaddset(&signals, SIGTERM);
      sigprocmask(SIG_BLOCK, &signals, nullptr);
      descriptor_ = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
      if (descriptor_ < 0) throw Failure{Exit::incomplete, "no descriptor is left for signals"};
      task_ = Lomi::TaskSchedulerRoot::root().descriptorTask(descriptor_, EPOLLIN, [this](std::uint32_t) {
         stopped_ = true;
         task_.cancel(); // the signal stays where it is, for what waits on the descriptor
      });
   }
   Ending(Ending const&) = delete;
   Ending& operator=(Ending const&) = delete;
   ~Ending() {
      task_.cancel();
      ::close(descriptor_);
   }

   int descriptor() const { return descriptor_; }
   bool timedOut() const { return deadline_ && secondsUntil(*deadline_) <= 0; }
   bool stopped() const { return stopped_; }
   /// Waits up to `seconds` for something to happen in the loop.
   void run(double seconds) {
      if (deadline_) seconds = std::min(seconds, secondsUntil(*deadline_));
      Lomi::TaskSchedulerRoot::root().run(std::max(seconds, 0.0));
      // Nobody reads any more: as if it had been noticed by a write.
      if (Output::readerGone()) std::raise(SIGPIPE);
   }

private:
   std::optional<Clock::time_point> deadline_;
   int descriptor_ = -1;
   Lomi::Task task_;
   bool stopped_ = false;
};

/// The table, once there is a whole one; none if the end came first. @throws Failure where waiting won't help
std::optional<Inspection> waitForTable(std::string const& word, Ending& ending) {
   std::string said;
   while (!ending.stopped()) {
      Failure why{Exit::cantOpen, {}, {}};
      std::optional<std::string> name;
      try {
         name = resolveTable(word);
      } catch (Failure const& failure) {
         if (failure.status != Exit::cantOpen) throw;
         why = failure;
      }
      if (name) {
         Inspection seen = inspect(*name);
         if (seen.state == State::ok) return seen;
         if (seen.state != State::absent && seen.state != State::halfMade) throw seen.failure();
         why = seen.failure();
      }
      if (ending.timedOut()) break;
      if (why.text != said) {
         said = why.text;
         say(Failure{why.status, why.text + "; waiting for it", why.hint});
      }
      ending.run(0.2);
   }
   return std::nullopt;
}

/// A key as `get` takes it, or tests.
Filter filterOf(Schema const& schema, WatchOptions const& options) {
   Filter filter = parseFilter(schema, options.where);
   if (options.words.empty()) return filter;
   Query query = parseQuery(schema, options.words);
   if (query.key) {
      auto value = query.key->begin();
      for (Field const& field : schema.fields)
         if (field.inKey && !field.jsonOnly) query.filter.emplace_back(field, *value++);
   }
   filter.insert(filter.end(), query.filter.begin(), query.filter.end());
   return filter;
}

constexpr double longestHeldBack = 0.1; // seconds that a line waits at most while changes come in without end

/// Follows until the end comes.
void follow(Output& out, Changes const& changes, Following& following, Ending& ending) {
   auto flushed = Clock::now();
   while (true) {
      following.turn();
      bool const ends = ending.stopped() || ending.timedOut() || changes.enough();
      if (out.buffer().size() > 0 &&
          (ends || following.quiet() || secondsUntil(flushed) < -longestHeldBack)) {
         out.flush();
         flushed = Clock::now();
      }
      if (ends) return;
      ending.run(out.buffer().size() > 0 ? longestHeldBack : following.pause());
   }
}

} // namespace

Exit watchTable(Common const& common, std::string const& word, WatchOptions const& options) {
   Mirak::Util::corruptionMarkersIs(false); // a shadow would leave one
   Ending ending(options.timeout);
   common.out.givesUpOn(ending.descriptor());
   auto const seen = waitForTable(word, ending);
   if (!seen) return ending.stopped() ? Exit::ok : Exit::cantOpen;

   Mirak::TableType const& type = *seen->type;
   Changes changes(common, seen->name, type, filterOf(schemaOf(Zeb::typeNamed(type.valueType)), options),
                   options.count);
   auto const present = options.all ? Changes::Present::told : Changes::Present::silent;
   std::unique_ptr<Following> following;
   if (type.hasChangeQueue) {
      following = followQueue(changes, type, present);
   } else {
      say(fmt::format("{}: has no change queue: its rows are walked every {} s", seen->name,
                      options.interval));
      following = followByWalking(changes, present, options.interval);
   }
   follow(common.out, changes, *following, ending);
   bool const wanted = options.count ? changes.enough() : changes.told() > 0;
   if (ending.stopped() || wanted) return Exit::ok;
   return following->refused() ? Exit::corrupt : Exit::noMatch;
}

} // namespace Tool
