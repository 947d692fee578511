// SPDX-License-Identifier: Apache-2.0
// Followers in processes of their own, of a writer that writes as fast as it can: late ones, stopped ones,
// ones that come and go, 32 at once, on the smallest tables. At rest each holds the last state of every slot.
#include "Rows.h"
#include "Tessel/TesselReader.h"
#include "TestRoot.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <sys/mman.h>
#include <sys/wait.h>

namespace Test {
namespace {

constexpr u32 slots = 300;
constexpr u32 followers = 32;
Parcel::KestorId const kestor(1, 1);

Lomi::Platform::DebugHandler const& handler() { return *Lomi::Platform::getDebugHandler("test", true); }

/// What all processes see.
struct Shared {
   u64 row[slots];
   u64 done; // the last change was announced
   struct Told {
      u64 attached, sweeps, places, entries;
   } told[followers];
};

/// One follower, from its attach to the end.
class Follower final : public Tessel::SlotClient<Tessel::BasicSlot> {
public:
   Follower(Shared& shared, u32 self)
      : shared_(shared)
      , told_(shared.told[self])
      , dice_(self)
      , reader_(handler(), {handler(), "processes", false}, *this) {}

   /// @return whether the copy is right
   bool follow() {
      // Each third one comes when much has happened already.
      while (dice_.oneIn(3) && Mem::loadShared(shared_.row[0]) < 20'000) ::usleep(500);
      while (!reader_.attach(kestor)) ::usleep(500);
      Mem::storeShared(told_.attached, u64{1});
      for (;;) {
         bool const done = Mem::loadShared(shared_.done) != 0;
         switch (reader_.walk(1 + dice_.below(300))) {
         case Tessel::WalkResult::resync:
            sweep();
            break;
         case Tessel::WalkResult::more:
            break;
         case Tessel::WalkResult::quiesced:
            if (done) return matches();
            ::usleep(dice_.below(1000));
            break;
         default:
            return false;
         }
         if (dice_.oneIn(200)) {
            reader_.detach();
            ::usleep(dice_.below(2000));
            if (!reader_.attach(kestor)) return false;
         }
         Mem::storeShared(told_.places, reader_.placements());
      }
   }
   bool doSlot(u32 slot, Rusk::Sequence sequence, bool) override {
      // A change of a row that comes and goes with its parity is a removal, which is asked about.
      u64 const now = Mem::loadShared(shared_.row[slot]);
      if (sequence != Rusk::noSequence && now % 2 == 0 && !reader_.validateNotif()) return false;
      copy_[slot] = now;
      Mem::storeShared(told_.entries, told_.entries + 1);
      return true;
   }

private:
   void sweep() {
      Rusk::Sequence const start = reader_.capture();
      for (u32 slot = 0; slot < slots; ++slot) doSlot(slot, Rusk::noSequence, true);
      reader_.sweptTo(start);
      Mem::storeShared(told_.sweeps, told_.sweeps + 1);
   }
   bool matches() const {
      for (u32 slot = 0; slot < slots; ++slot)
         if (copy_[slot] != Mem::loadShared(shared_.row[slot])) return false;
      return true;
   }
   Shared& shared_;
   Shared::Told& told_;
   Dice dice_;
   Tessel::TesselReader<Tessel::BasicSlot> reader_;
   u64 copy_[slots] = {};
};

/// All the processes that a test started; none outlives it.
class Children {
public:
   ~Children() {
      for (pid_t const child : pids_) {
         ::kill(child, SIGKILL);
         ::waitpid(child, nullptr, 0);
      }
   }
   template <class Body> void add(Body&& body) {
      pid_t const child = ::fork();
      if (child == 0) ::_exit(body() ? 0 : 1);
      pids_.push_back(child);
   }
   void signal(u32 which, int signal) { ::kill(pids_[which], signal); }
   u32 failures() {
      u32 failed = 0;
      for (pid_t const child : pids_) {
         int status = 0;
         ::waitpid(child, &status, 0);
         failed += !WIFEXITED(status) || WEXITSTATUS(status) != 0;
      }
      pids_.clear();
      return failed;
   }

private:
   std::vector<pid_t> pids_;
};

TEST(TesselProcesses, EachFollowerEndsWithTheLastState) {
   testRoot();
   SmallTables const small(4);
   void* const memory =
       ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
   ASSERT_NE(memory, MAP_FAILED);
   auto& shared = *static_cast<Shared*>(memory);
   Children children;
   for (u32 self = 0; self < followers; ++self)
      children.add([&shared, self] { return std::make_unique<Follower>(shared, self)->follow(); });

   Queue queue(handler(), {handler(), "processes", false}, false, Tessel::PruneMode::keep);
   queue.attach(kestor);
   queue.reserve(slots);
   Dice dice(1);
   u64 value = 0;
   u32 stopped = followers;
   auto attached = [&] {
      u32 sum = 0;
      for (auto const& told : shared.told) sum += Mem::loadShared(told.attached) != 0;
      return sum;
   };
   // On until all are there, and a good while more.
   for (u32 more = 0; more < 200'000 && value < 100'000'000; more += attached() == followers ? 1000 : 0) {
      for (u32 n = 0; n < 1000; ++n) {
         u32 const slot = dice.oneIn(50) ? 0 : dice.below(dice.oneIn(3) ? slots : 7);
         Mem::storeShared(shared.row[slot], ++value);
         queue.notify(slot);
         ASSERT_LE(queue.count(), Tessel::entriesFor(slots));
      }
      if (!dice.oneIn(10)) continue;
      if (stopped < followers) children.signal(stopped, SIGCONT);
      stopped = dice.below(followers);
      children.signal(stopped, SIGSTOP);
   }
   if (stopped < followers) children.signal(stopped, SIGCONT);
   Mem::storeShared(shared.done, u64{1});
   EXPECT_EQ(children.failures(), 0u);
   Shared::Told sum{};
   for (auto const& told : shared.told) {
      sum.sweeps += told.sweeps;
      sum.places += told.places;
      sum.entries += told.entries;
   }
   fmt::print("changes {} turns {} sweeps {} places {} looks {}\n", value, queue.turns(), sum.sweeps,
              sum.places, sum.entries);
   EXPECT_GE(sum.sweeps, followers);
   EXPECT_GT(sum.places, 2 * followers);
   std::string error;
   EXPECT_TRUE(queue.validate(kestor, slots, error)) << error;
   ::munmap(memory, sizeof(Shared));
}

} // namespace
} // namespace Test
