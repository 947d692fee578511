// SPDX-License-Identifier: Apache-2.0
// What one call may cost at worst: while a table grows its files, its index and its queue are made longer;
// while it is overwritten the queue is turned; while it empties, rows are moved, the files cut, the index
// halved, and the queue turned. In each of them critical tasks run every few milliseconds: one that is always
// ready measures how long it had to wait.
//
// A call that the machine interrupted counts like any other: look at the least of the samples, too.
#include "follow/Follow.h"
#include "follow/Sides.h"

#include <algorithm>
#include <sys/epoll.h>
#include <sys/eventfd.h>

namespace Bench {
namespace {

/// The longest of some calls, and the longest stretch in one without a critical task.
class Stopwatch {
public:
   Stopwatch()
      : always_(::eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)) {
      if (always_ < 0) throw std::runtime_error("no event descriptor");
      task_ = Lomi::TaskSchedulerRoot::root().descriptorTask(
          always_, EPOLLIN, [this](std::uint32_t) { ran(); }, Lomi::TaskPriority::critical);
   }
   ~Stopwatch() {
      task_.cancel();
      ::close(always_);
   }
   Stopwatch(Stopwatch const&) = delete;

   template <class Call> void time(Call call) {
      u64 const start = ranAt_ = __builtin_ia32_rdtsc();
      call();
      ran();
      longest_ = std::max(longest_, ranAt_ - start);
   }
   /// Milliseconds since the last such question.
   std::pair<double, double> longestAndWait(double ticks) {
      std::pair<double, double> const both{static_cast<double>(longest_) / ticks / 1e6,
                                           static_cast<double>(wait_) / ticks / 1e6};
      longest_ = wait_ = 0;
      return both;
   }

private:
   void ran() {
      u64 const now = __builtin_ia32_rdtsc();
      wait_ = std::max(wait_, now - ranAt_);
      ranAt_ = now;
   }
   int always_;
   Lomi::Task task_;
   u64 ranAt_ = 0, longest_ = 0, wait_ = 0;
};

void runOnce(Workload const& load, Setting const& setting, double ticks, Figures& figures) {
   Folder const folder;
   auto const writer = openFollowed({folder.path(), load.rows, setting.core});
   Stopwatch watch;
   auto const add = [&](std::string const& what) {
      auto const [longest, wait] = watch.longestAndWait(ticks);
      figures.add({nameOf(load.family), load.rows, "hoflow", what + " ms"}, longest);
      figures.add({nameOf(load.family), load.rows, "hoflow", what + " wait"}, wait);
   };
   for (Row const& row : load.inserts) watch.time([&] { writer->write(tableRow(row), true); });
   add("grow");
   u64 const turns = writer->writerCounters().queueTurns;
   for (int pass = 0; pass < 3; ++pass)
      for (Row const& row : load.overwrites) watch.time([&] { writer->write(tableRow(row), true); });
   add("turn");
   if (writer->writerCounters().queueTurns == turns) wrong("hoflow", "the queue never turned");
   Row removed;
   for (Query const& query : load.removals)
      watch.time([&] { writer->remove(tableKey(query.key), tableRow(removed)); });
   add("cut");
   if (writer->members() != 0) wrong("hoflow", "rows are left behind");
   if (load.rows > 10'000 && writer->writerCounters().slotShrinks == 0)
      wrong("hoflow", "the table never shrank");
   writer->detach(false);
}

} // namespace

void runPauses(Workload const& load, Setting const& setting, Figures& figures) {
   double const ticks = ticksPerNs();
   for (int time = 0; time < std::max(3, setting.repetitions); ++time) runOnce(load, setting, ticks, figures);
}

} // namespace Bench
