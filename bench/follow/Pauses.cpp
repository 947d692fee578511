// SPDX-License-Identifier: Apache-2.0
// What one call may cost at worst: while a table grows its files, its index and its queue are made longer;
// while it is overwritten the queue is turned; while it empties, rows are moved, the files cut, the index
// halved, and the queue turned. In each of them critical tasks run every few milliseconds: one that is always
// ready measures how long it had to wait.
//
// A call that the machine interrupted counts like any other. So the wait is told twice: by the clock, and by
// the thread's own processor time, which holds the kernel's work for it but not the time that others had the
// core.
#include "follow/Follow.h"
#include "follow/Sides.h"

#include <algorithm>
#include <ctime>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <utility>

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
      ranAtCpu_ = ownNs();
      call();
      ran();
      longest_ = std::max(longest_, ranAt_ - start);
   }
   struct Milliseconds {
      double longest, wait, cpu;
   };
   /// Since the last such question.
   Milliseconds take(double ticks) {
      auto const ms = [&](u64 span) { return static_cast<double>(span) / ticks / 1e6; };
      return {ms(std::exchange(longest_, 0)), ms(std::exchange(wait_, 0)),
              static_cast<double>(std::exchange(waitCpu_, 0)) / 1e6};
   }

private:
   static u64 ownNs() {
      timespec now{};
      ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
      return static_cast<u64>(now.tv_sec) * 1'000'000'000 + static_cast<u64>(now.tv_nsec);
   }
   void ran() {
      u64 const now = __builtin_ia32_rdtsc(), nowCpu = ownNs();
      wait_ = std::max(wait_, now - ranAt_);
      waitCpu_ = std::max(waitCpu_, nowCpu - ranAtCpu_);
      ranAt_ = now;
      ranAtCpu_ = nowCpu;
   }
   int always_;
   Lomi::Task task_;
   u64 ranAt_ = 0, ranAtCpu_ = 0, longest_ = 0, wait_ = 0, waitCpu_ = 0;
};

void runOnce(Workload const& load, Setting const& setting, double ticks, Figures& figures) {
   Folder const folder;
   auto const writer = openFollowed({folder.path(), load.rows, setting.core});
   Stopwatch watch;
   auto const add = [&](std::string const& what) {
      auto const [longest, wait, cpu] = watch.take(ticks);
      figures.add({nameOf(load.family), load.rows, "hoflow", what + " ms"}, longest);
      figures.add({nameOf(load.family), load.rows, "hoflow", what + " wait"}, wait);
      figures.add({nameOf(load.family), load.rows, "hoflow", what + " cpu"}, cpu);
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
