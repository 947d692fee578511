// SPDX-License-Identifier: Apache-2.0
// Queue and wake-up together, between processes: a writer that changes slots as fast as it can, and many
// followers, some slow, some stopped for a while, some late, some that detach and come back. At rest each of
// them has the last value of every slot, and sleeps. The slots are plain words in memory that all processes
// share; a follower's copy takes over what a slot holds when the queue tells of it.
#include "Support.h"

#include "Tessel/TesselReader.h"
#include "Tessel/TesselWriter.h"

#include <random>

using namespace RuskTest;

namespace {

constexpr u32 slots = 64;
constexpr int followers = 32;

struct Board {
   std::atomic<u64> values[slots]{};
   std::atomic<u64> finalTail{0}; // set when the writer has made its last change
   std::atomic<int> atRest{0};
   std::atomic<u64> sweeps{0}, placements{0}, wakes{0};
};

class Copy final : public Tessel::SlotClient<Tessel::BasicSlot>, public Rusk::Follower {
public:
   Copy(Scratch const& scratch, Board& board, u64 seed)
      : board_(board)
      , random_(seed)
      , reader_(handler(), scratch.table(), *this)
      , rusk_(handler(), scratch.table(), *this, "copy") {
      attach();
   }
   bool doSlot(Tessel::BasicSlot slot, Rusk::Sequence, bool) override {
      copy_[slot] = board_.values[slot].load();
      if (random_() % 64 == 0) ::usleep(static_cast<useconds_t>(random_() % 300)); // a slow client
      return true;
   }
   Rusk::Walked walk() override {
      switch (reader_.walk(16)) {
      case Tessel::WalkResult::more:
         return Rusk::Walked::more;
      case Tessel::WalkResult::quiesced:
         return Rusk::Walked::atEnd;
      case Tessel::WalkResult::resync: {
         ++board_.sweeps;
         auto const start = reader_.capture();
         for (u32 slot = 0; slot < slots; ++slot) doSlot(slot, Rusk::noSequence, false);
         reader_.sweptTo(start);
         return Rusk::Walked::more;
      }
      case Tessel::WalkResult::otherTable:
      case Tessel::WalkResult::detached:
         break;
      }
      return Rusk::Walked::stopped;
   }
   bool behind() const override { return !reader_.quiesced(); }
   Rusk::Sequence last() const override { return reader_.last(); }
   Parcel::KestorId kestorId() const override { return generation; }
   void handleDisconnect() override {}

   void leaveAndComeBack() {
      rusk_.detach();
      reader_.detach();
      if (random_() % 2) copy_[random_() % slots] = ~0ull, lost_ = true; // as if started anew
      attach();
   }
   bool atRest() const {
      u64 const tail = board_.finalTail;
      return tail && reader_.last() == tail && rusk_.connected() && rusk_.asleep();
   }
   bool right() const {
      for (u32 slot = 0; slot < slots; ++slot)
         if (copy_[slot] != board_.values[slot]) return false;
      return true;
   }
   void count() const {
      board_.placements += reader_.placements();
      board_.wakes += rusk_.counters().wakes;
   }
   std::mt19937_64& random() { return random_; }

private:
   void attach() {
      if (!reader_.attach(generation)) throw std::runtime_error(reader_.lastError());
      if (std::exchange(lost_, false)) { // its place means nothing without the copy: sweep
         auto const start = reader_.capture();
         for (u32 slot = 0; slot < slots; ++slot) doSlot(slot, Rusk::noSequence, false);
         reader_.sweptTo(start);
      }
      rusk_.maybeConnect();
      rusk_.processingIs(true);
   }

   Board& board_;
   std::mt19937_64 random_;
   u64 copy_[slots] = {};
   bool lost_ = false;
   Tessel::TesselReader<Tessel::BasicSlot> reader_;
   Rusk::ReaderRuskSm rusk_;
};

int follow(Scratch const& scratch, Board& board, u64 seed) {
   ::alarm(110);
   std::mt19937_64 random(seed);
   ::usleep(static_cast<useconds_t>(random() % 400000)); // late
   Copy copy(scratch, board, seed);
   for (bool rested = false; !rested;) {
      loop().run(0.05);
      if (!board.finalTail && random() % 50 == 0) copy.leaveAndComeBack();
      rested = copy.atRest();
   }
   copy.count();
   bool const right = copy.right();
   ++board.atRest;
   return right ? 0 : 1;
}

} // namespace

TEST(Followers, EndWithTheLastValueOfEverySlot) {
   Scratch const scratch;
   Board& board =
       *new (::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Board;
   Tessel::leastEntries = 2;
   auto const path = scratch.table();
   Tessel::TesselWriter<Tessel::BasicSlot, u32> queue(handler(), path, false, Tessel::PruneMode::prune);
   ASSERT_EQ(queue.attach(generation), Tessel::queueNew);
   queue.reserve(slots);
   Rusk::WriterRuskSm rusk(
       handler(), path, "tessel", [&] { return queue.tail(); }, [] { return generation; });
   queue.followersIs(&rusk);
   Parcel::OwnerFile(handler(), path, false).tunnetInfoIs(rusk.tunnetInfo());
   rusk.doEnableListen();

   std::list<Child> children;
   for (int i = 0; i < followers; ++i)
      children.emplace_back([&, i] { return follow(scratch, board, static_cast<u64>(i) + 1); });
   std::vector<pid_t> pids;
   for (auto const& child : children) pids.push_back(child.pid());
   std::mt19937_64 random(20260103);
   u32 mostEntries = 0;
   u64 value = 0;
   pid_t stopped = 0;
   for (int round = 0; round < 400; ++round) {
      for (int i = 0; i < 1000; ++i) {
         u32 const slot = static_cast<u32>(random() % slots);
         board.values[slot] = ++value;
         queue.notify(slot);
         mostEntries = std::max(mostEntries, queue.count());
      }
      if (queue.choresPending()) queue.chores();
      if (round % 20 == 0) {
         if (stopped) ::kill(stopped, SIGCONT);
         ::kill(stopped = pids[random() % pids.size()], SIGSTOP);
      }
      for (auto pause = random() % 4; pause > 0; --pause) loop().run(0.001);
   }
   ::kill(stopped, SIGCONT);
   board.finalTail = queue.tail();
   EXPECT_TRUE(runUntil([&] { return board.atRest == followers; })) << board.atRest << " of " << followers;
   for (auto& child : children) EXPECT_EQ(child.wait(), 0);
   EXPECT_EQ(queue.tail(), 400000u);
   EXPECT_LE(mostEntries, Tessel::entriesFor(slots)) << "followers made the queue grow";
   EXPECT_GT(queue.turns(), 1000u);
   EXPECT_GE(board.sweeps, static_cast<u64>(followers));
   EXPECT_GT(board.placements, static_cast<u64>(followers));
   EXPECT_GT(board.wakes, static_cast<u64>(followers));
   EXPECT_EQ(rusk.droppedPeers(), 0u);
   std::string error;
   EXPECT_TRUE(queue.validate(generation, slots, error)) << error;
   ::munmap(&board, sizeof(Board));
}
