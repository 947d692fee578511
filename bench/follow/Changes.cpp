// SPDX-License-Identifier: Apache-2.0
// A writer that overwrites its rows as fast as it can, in random order, and those who follow it, all of them
// on the other core. Its loop has a turn every thousand changes, whoever follows. At the end every follower
// that runs must have the last state of every row, by its own account and by the writer's.
//
// A change that is overwritten before a follower gets to it costs the follower nothing and is no call: that
// is the queue's purpose. So "taken" and "collapsed" together are what was written.
#include "follow/Follow.h"
#include "follow/Sides.h"

#include <list>

namespace Bench {
namespace {

constexpr u64 changesPerTurn = 1000; // of the loop

struct State {
   std::atomic<u64> calls{0}, sum{0}, last{0};
};

class Run {
public:
   Run(Workload const& load, Setting const& setting, Figures& figures)
      : load_(load)
      , setting_(setting)
      , figures_(figures)
      , place_{folder_.path(), load.rows, setting.core}
      , writer_(openFollowed(place_)) {
      for (Row const& row : load.inserts) writer_->write(tableRow(row), true);
      for (u32 const n : load.overwriteOrdinals) again_.push_back(rowOf(load.inserts[n].key, n, 3));
   }
   ~Run() { writer_->detach(false); }
   Run(Run const&) = delete;

   template <class Kind> void cost(char const* who, int followers, bool stopped) {
      Crowd<Kind> crowd(*this, followers);
      if (stopped) crowd.stop();
      auto const [changes, ns] = write(*writer_);
      add(who, ns / static_cast<double>(changes));
      if (!stopped) crowd.mustBeRight();
   }
   /// The same table without a queue.
   void costWithoutQueue() {
      Folder const folder;
      auto const writer = openWriter({folder.path(), load_.rows, setting_.core});
      for (Row const& row : load_.inserts) writer->write(tableRow(row), true);
      auto const [changes, ns] = write(*writer);
      add("no queue", ns / static_cast<double>(changes));
      writer->detach(false);
   }
   /// @param who "" for the bare queue reader, else what its figures begin with
   template <class Kind> void rate(std::string const& who) {
      Crowd<Kind> crowd(*this, 1);
      u64 const before = crowd.front().calls;
      auto const start = Clock::now();
      auto const [changes, ns] = write(*writer_);
      crowd.mustBeRight();
      double const seconds = nsSince(start, 1) / 1e9;
      u64 const taken = crowd.front().calls - before;
      if (taken > changes || taken == 0) wrong("hoflow", "a follower has taken in what nobody wrote");
      add(who + "written/s", static_cast<double>(changes) / ns * 1e6);
      add(who + "taken/s", static_cast<double>(taken) / seconds / 1e3);
      add(who + "collapsed/s", static_cast<double>(changes - taken) / seconds / 1e3);
   }

private:
   /// Followers in processes of their own, connected and at rest to begin with.
   template <class Kind> class Crowd {
   public:
      Crowd(Run& run, int size)
         : run_(run) {
         for (int n = 0; n < size; ++n) {
            State& state = *states_.emplace_back();
            processes_.emplace_back([&] {
               pinTo(run_.setting_.otherCore);
               Kind follower(run_.place_);
               for (auto& loop = Lomi::TaskSchedulerRoot::root();; loop.run(0.05)) {
                  state.calls = follower.calls();
                  state.sum = follower.sum(); // before `last`, which says that it is the last one
                  state.last = follower.last();
               }
            });
         }
         rest();
      }
      ~Crowd() {
         processes_.clear();
         run_.loopUntil(nullptr, [&] { return run_.writer_->queue().ruskSm.readers() == 0; });
      }
      State& front() { return *states_.front(); }
      void stop() {
         for (Process& process : processes_) process.signal(SIGSTOP);
      }
      void mustBeRight() {
         rest();
         u64 sum = 0;
         Row row;
         Mirak::IterHint hint;
         for (bool more = run_.writer_->first(tableRow(row), hint); more;
              more = run_.writer_->next(tableKey(row.key), tableRow(row), hint))
            sum += rowSum(row);
         for (auto& state : states_)
            if (state->sum != sum) wrong("hoflow", "a follower at rest hasn't the last state of every row");
      }

   private:
      /// Until all sleep and have said so.
      void rest() {
         auto const all = static_cast<u32>(processes_.size());
         run_.loopUntil(processes_.empty() ? nullptr : &processes_.front(), [&] {
            bool there = run_.writer_->queue().ruskSm.sleepingReaders() == all;
            for (auto& state : states_) there = there && state->last == run_.writer_->sequence();
            return there;
         });
      }
      Run& run_;
      std::list<Common<State>> states_;
      std::list<Process> processes_;
   };

   template <class Done> void loopUntil(Process* other, Done done) {
      await("hoflow", other, done, [] { Lomi::TaskSchedulerRoot::root().run(0.001); });
   }
   struct Written {
      u64 changes;
      double ns;
   };
   /// Overwrites until the time is up.
   template <class Table> Written write(Table& table) {
      auto& loop = Lomi::TaskSchedulerRoot::root();
      auto const start = Clock::now();
      u64 changes = 0;
      double ns = 0;
      for (; ns < setting_.busySeconds * 1e9 / 4; ns = nsSince(start, 1)) {
         for (u64 const end = changes + changesPerTurn; changes < end; ++changes) {
            if (next_ == load_.rows) next_ = 0, odd_ = !odd_;
            table.write(tableRow(odd_ ? load_.overwrites[next_] : again_[next_]), true);
            ++next_;
         }
         loop.dispatch();
      }
      return {changes, ns};
   }

   void add(std::string const& operation, double value) {
      figures_.add({nameOf(load_.family), load_.rows, "hoflow", operation}, value);
   }

   Workload const& load_;
   Setting const& setting_;
   Figures& figures_;
   Folder folder_;
   Place place_;
   std::unique_ptr<FollowedWriter> writer_;
   std::vector<Row> again_; // a third generation, in the order of load_.overwrites
   std::size_t next_ = 0;
   bool odd_ = true;
};

} // namespace

void runChanges(Workload const& load, Setting const& setting, Figures& figures) {
   if (setting.otherCore < 0) return;
   Run run(load, setting, figures);
   // Each follower takes a look at the whole table first: dozens of them at the small sizes only.
   bool const crowds = load.rows <= 200'000;
   for (int time = 0; time < setting.repetitions; ++time) {
      run.rate<Follower>("");
      run.rate<ShadowFollower>("shadow ");
      if (!crowds) continue;
      run.costWithoutQueue();
      run.cost<Follower>("nobody", 0, false);
      run.cost<Follower>("one stopped", 1, true);
      run.cost<Follower>("1 follows", 1, false);
      run.cost<Follower>("8 follow", 8, false);
      run.cost<Follower>("32 follow", 32, false);
      run.cost<ShadowFollower>("1 shadow", 1, false);
      run.cost<ShadowFollower>("8 shadows", 8, false);
      run.cost<ShadowFollower>("64 shadows", 64, false);
   }
}

} // namespace Bench
