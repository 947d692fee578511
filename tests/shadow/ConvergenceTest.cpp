// SPDX-License-Identifier: Apache-2.0
// Whole histories of a table and its shadows, drawn from a seed: writes, growth, compaction, turns of the
// queue, crashes and re-formats of the writer; clients that let go, mount, pause and throw, in callbacks,
// too. Writer and shadows have a thread and a loop each, of which one runs at a time: they are switched at
// random before any of their accesses to shared words. At rest each copy is the table, and what its client
// was told adds up to it.
#include "Dice.h"
#include "Mem/Seam.h"
#include "Support.h"

#include <condition_variable>
#include <limits>
#include <mutex>
#include <thread>

namespace Test {
namespace {

struct Totals {
   u64 steps = 0, switches = 0, turns = 0, compactions = 0, resyncs = 0, refused = 0, moves = 0, formats = 0,
       restarts = 0, thrown = 0, acts = 0;
};

/// Threads of which one runs at a time.
class Stage final : public Mem::Seam::Observer {
public:
   Stage(Dice& dice, Totals& totals)
      : dice_(dice)
      , totals_(totals)
      , oneIn_(dice.oneIn(3) ? 80 : 3 + dice.below(12)) {}

   /// Until all have returned, which they do once one has failed.
   void play(std::vector<std::function<void()>> const& actors) {
      for (u32 me = 0; me < actors.size(); ++me) living_.push_back(me);
      std::vector<std::thread> threads;
      for (u32 const me : std::vector(living_))
         threads.emplace_back([this, me, &actor = actors[me]] {
            await(me);
            Mem::Seam::observer = this;
            try {
               actor();
            } catch (std::exception const& e) {
               fail(e.what());
            }
            Mem::Seam::observer = nullptr;
            std::erase(living_, me);
            if (!living_.empty()) runs(living_[0]);
         });
      for (auto& thread : threads) thread.join();
   }
   /// The others have their turn.
   void pause() {
      if (muted || living_.size() < 2) return;
      u32 const next = living_[dice_.below(static_cast<u32>(living_.size()))];
      if (next == now_) return;
      ++totals_.switches;
      u32 const me = now_;
      runs(next);
      await(me);
   }
   void fail(std::string text) {
      if (failure.empty()) failure = std::move(text);
   }
   void beforeLoad(void const*, std::size_t) override {
      if (dice_.oneIn(oneIn_)) pause();
   }
   void beforeStore(void*, void const*, std::size_t) override { beforeLoad(nullptr, 0); }

   std::string failure;
   bool muted = false;

private:
   void runs(u32 next) {
      std::lock_guard const hold(mutex_);
      now_ = next;
      changed_.notify_all();
   }
   void await(u32 me) {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [&] { return now_ == me; });
   }
   Dice& dice_;
   Totals& totals_;
   u32 const oneIn_;
   std::vector<u32> living_;
   u32 now_ = 0;
   std::mutex mutex_;
   std::condition_variable changed_;
};

/// The writer's side: one random change after the other, in phases, so that all kinds of turns come about.
class Source {
public:
   Source(Dice& dice, Totals& totals)
      : dice_(dice)
      , totals_(totals)
      , keys_(3 + dice.below(200)) {
      descriptor_.pruneQueue = dice.oneIn(3);
      start();
   }
   ~Source() { count(); }

   void change() {
      ++totals_.steps;
      if (dice_.oneIn(20)) mood_ = dice_.below(4);
      static constexpr u32 writesOfTen[] = {10, 0, 5, 10};
      bool const write = dice_.below(10) < writesOfTen[mood_];
      bool const present = !truth.empty() && (mood_ == 1 || (write && mood_ == 3));
      Key const key = present ? std::next(truth.begin(), dice_.below(static_cast<u32>(truth.size())))->first
                              : keyOf(dice_.below(keys_));
      if (write) {
         if (truth.insert_or_assign(key, ++generation_).second) born[key] = generation_;
         writer->write(R::make(key, generation_), true);
      } else {
         R removed;
         truth.erase(key);
         writer->remove(key, removed);
      }
   }
   /// The writer dies and another one adopts the files; or, dead in the middle of a change, loses all rows.
   void restart(bool damaged) {
      count();
      writer.reset();
      if (damaged) {
         truth.clear();
         interrupt("shadowed");
      }
      start();
      ++(damaged ? totals_.formats : totals_.restarts);
   }
   std::string complaint() const {
      auto const& queue = writer->queue().tesselWriter;
      u32 const mostSlots = Mem::loadShared(writer->slotTable().header().mostSlots);
      if (queue.count() > Tessel::entriesFor(mostSlots) + Tessel::leastEntries)
         return "the queue outgrew its bound";
      std::string wrong = difference(contentOf(*writer), truth);
      if (wrong.empty()) writer->validate(writer->kestorId(), wrong, false);
      return wrong.empty() ? wrong : "the table itself: " + wrong;
   }

   Content truth;
   Content born; ///< with which generation each row of the truth came
   std::unique_ptr<Writer> writer;

private:
   void start() { writer = newWriter("shadowed", descriptor_); }
   void count() {
      totals_.turns += writer->writerCounters().queueTurns;
      totals_.compactions += writer->writerCounters().slotShrinks;
   }
   Dice& dice_;
   Totals& totals_;
   u32 const keys_;
   MapDescriptor descriptor_{64};
   u32 mood_ = 0, generation_ = 0;
};

/// A client that knows whether it is called for an entry of the queue or for a sweep's slot.
class Told final : public Client {
public:
   using Client::Client;
   bool queued = false;
   bool quietly = false; ///< its callbacks only add up
   u32 depth = 0;        ///< of callbacks that do something
   Mirak::Reader::Counters counted{};

private:
   class Shadow final : public Mirak::MirakShadow<ShadowOps> {
   public:
      Shadow(Told& owner, std::string const& table, u32 flags)
         : MirakShadow(*owner.debugHandler, table, flags, ShadowOps{}, owner, owner.notify)
         , owner_(owner) {}
      bool doSlot(u32 slot, Rusk::Sequence sequence, bool compare) override {
         owner_.queued = sequence != Rusk::noSequence;
         return MirakShadow::doSlot(slot, sequence, compare);
      }
      void doFlushSlot(u32 slot) override {
         owner_.queued = false;
         MirakShadow::doFlushSlot(slot);
      }

   private:
      Told& owner_;
   };
   std::unique_ptr<BackEnd> newShadow(u32 flags) override {
      return std::make_unique<Shadow>(*this, rootPath().name(), flags);
   }
};

class History {
public:
   enum Manner { patient, throwing, hostile, manners }; ///< of clients in callbacks

   History(u64 seed, Totals& totals)
      : dice_(seed)
      , small_(2 + dice_.below(12))
      , totals_(totals)
      , stage_(dice_, totals)
      , manner_(static_cast<Manner>(seed % manners)) {
      std::filesystem::remove_all(testRoot() + "/shadowed");
      Mem::ParcelWrapper::moveAlways = dice_.oneIn(4);
   }
   ~History() { Mem::ParcelWrapper::moveAlways = false; }

   std::string play() {
      std::vector<std::function<void()>> actors{[this] { write(); }};
      followers_ = 1 + dice_.below(2);
      while (actors.size() <= followers_) actors.emplace_back([this] { follow(); });
      stage_.play(actors);
      return stage_.failure;
   }

private:
   void write() {
      Source source(dice_, totals_);
      source_ = &source;
      auto const judge = [&] {
         stage_.muted = true;
         if (std::string const wrong = source.complaint(); !wrong.empty()) stage_.fail(wrong);
         stage_.muted = false;
      };
      for (u32 step = 100 + dice_.below(600); step > 0 && stage_.failure.empty(); --step) {
         source.change();
         if (dice_.oneIn(4)) loop().run(0);
         if (dice_.oneIn(5)) stage_.pause();
         if (dice_.oneIn(10)) judge();
         if (dice_.oneIn(150)) source.restart(dice_.oneIn(2));
      }
      judge();
      done_ = true;
      while (followers_ > 0 && stage_.failure.empty()) {
         loop().run(0.001);
         stage_.pause();
      }
   }

   void follow() {
      while (!source_) stage_.pause();
      Told client("shadowed");
      client.inCall = [&](std::string const& what) { inCall(client, what); };
      auto const told = client.notify.keyDelFn;
      client.notify.keyDelFn = [&](Key const& key) {
         checkRemoval(client, key);
         told(key);
      };
      mount(client);
      while (!done_ && stage_.failure.empty()) {
         guarded([&] { act(client); });
         stage_.pause();
      }
      client.quietly = true;
      if (client.initialized() && client.mountStatus() == Mem::MountStatus::flushing) client.controlDetach();
      client.yieldTimeIs(0.01);
      if (!client.initialized()) mount(client);
      for (double const end = now() + 60; stage_.failure.empty() && !rests(client); stage_.pause()) {
         if (now() > end)
            stage_.fail(fmt::format("no rest: {} status {} quiesced {} connected {} notifying {} kestor {}",
                                    client.modeStr(), static_cast<int>(client.mountStatus()),
                                    client.quiesced(), client.connected(), client.notifying(),
                                    client.kestorId()));
         if (client.notify.notifyLive && !client.notifying()) client.notifyingIs(true);
         guarded([] { loop().run(0.001); });
      }
      stage_.muted = true;
      std::string wrong = client.complaint;
      if (wrong.empty()) wrong = difference(contentOf(client.back()), source_->truth);
      if (wrong.empty()) wrong = difference(client.heard, source_->truth);
      if (!wrong.empty()) stage_.fail(client.modeStr() + ": " + wrong);
      stage_.muted = false;
      letGo(client);
      settle();
      --followers_;
   }
   bool rests(Told const& client) const {
      return client.mountStatus() == Mem::MountStatus::synchronised && client.quiesced() &&
             client.kestorId() == source_->writer->kestorId();
   }

   struct Thrown {};
   template <class Act> void guarded(Act act) {
      try {
         act();
      } catch (Thrown const&) {
         ++totals_.thrown;
      } catch (Lomi::InvalidInitializeException const&) { // mounted twice
      } catch (Mirak::TableReformattedException const&) {
         // A keyshadow reads the table; its sentry hasn't told it yet.
      }
   }
   void act(Told& client) {
      switch (dice_.below(16)) {
      case 0:
         return read(client);
      case 1:
         client.yieldTimeIs(dice_.oneIn(2) ? 0 : 0.01);
         return client.notifyingIs(!dice_.oneIn(4));
      case 2:
         if (manner_ == hostile) return anything(client);
         if (dice_.oneIn(20)) return client.initialized() ? letGo(client) : mount(client);
         [[fallthrough]];
      default:
         loop().run(0);
      }
   }
   /// A walk and a lookup: each row is met once and whole.
   void read(Told& client) {
      contentOf(client.back());
      Key const key = keyOf(dice_.below(200));
      bool found = false;
      R buffer;
      R const* const got = client.safeLookup(key, found, &buffer);
      if (found && !(got->sound() && got->key() == key)) stage_.fail("lookup of another row: " + got->str());
   }
   /// Whatever a collection lets its client do.
   void anything(Told& client) {
      ++totals_.acts;
      double const times[] = {std::numeric_limits<double>::quiet_NaN(), -1, 0, 0.001};
      switch (dice_.below(9)) {
      case 0:
         return client.init(shadowSettings(dice_.oneIn(2)));
      case 1:
         client.controlDetach();
         if (dice_.oneIn(2)) client.init(shadowSettings(dice_.oneIn(2)));
         return;
      case 2:
         if (client.notify.notifyLive) client.notifyingIs(dice_.oneIn(2));
         return;
      case 3:
         return client.yieldTimeIs(times[dice_.below(4)]);
      case 4:
         if (client.mounter_) client.attach(Mirak::MirakMapBase::eventTryAttach_);
         return;
      case 5:
         if (client.mountStatus() != Mem::MountStatus::flushing) client.detach(dice_.oneIn(2));
         return;
      case 6:
         return client.tryAttach();
      case 7:
         client.readerCounters();
         client.owner();
         return read(client);
      case 8:
         throw Thrown();
      }
   }
   void inCall(Told& client, std::string const& what) {
      bool const ofRow = what.starts_with("row") || what.starts_with("removed");
      if (client.quietly) return;
      if (manner_ == throwing && ofRow && dice_.oneIn(30)) throw Thrown();
      if (manner_ != hostile || client.depth > 3 || !dice_.oneIn(12)) return;
      struct Depth {
         u32& depth;
         explicit Depth(u32& d)
            : depth(d) {
            ++depth;
         }
         ~Depth() { --depth; }
      } const deeper(client.depth);
      anything(client);
   }
   /// A row that has been in the table since it was told isn't told as removed, wherever it is moved.
   void checkRemoval(Told& client, Key const& key) {
      if (!client.queued || !source_->truth.contains(key) || !client.heard.contains(key)) return;
      if (source_->born[key] <= client.heard[key])
         client.complain("a removal was told of a row that is in the table: " + key.str());
   }
   void mount(Told& client) {
      bool const before = std::exchange(client.quietly, true);
      client.init(shadowSettings(dice_.oneIn(2)));
      client.quietly = before;
   }
   void letGo(Told& client) {
      bool const before = std::exchange(client.quietly, true);
      auto const counters = client.readerCounters();
      auto const last = std::exchange(client.counted, counters);
      totals_.resyncs += counters.resyncs - last.resyncs;
      totals_.refused += counters.failedNotifications - last.failedNotifications;
      totals_.moves += counters.shadowKeyMoves - last.shadowKeyMoves;
      client.controlDetach();
      if (!client.heard.empty()) client.complain("rows are left after a detach that was to tell of each");
      client.quietly = before;
   }

   Dice dice_;
   SmallTables small_;
   Totals& totals_;
   Stage stage_;
   Manner const manner_;
   Source* source_ = nullptr;
   u32 followers_ = 0;
   bool done_ = false;
};

TEST(ShadowConvergence, AQuietMomentLaterEachCopyIsTheTable) {
   Silence const silence;
   Totals totals;
   u64 const first = setting("HOFLOW_SHADOW_SEED", 1);
   u64 const last = first + setting("HOFLOW_SHADOW_RUNS", 60 / slow);
   for (u64 seed = first; seed < last; ++seed) {
      History history(seed, totals);
      ASSERT_EQ(history.play(), "") << "HOFLOW_SHADOW_SEED=" << seed;
   }
   fmt::print("changes {} switches {} turns {} compactions {} resyncs {} refused {} moves {} formats {} "
              "restarts {} thrown {} acts {}\n",
              totals.steps, totals.switches, totals.turns, totals.compactions, totals.resyncs, totals.refused,
              totals.moves, totals.formats, totals.restarts, totals.thrown, totals.acts);
   for (u64 const happened :
        {totals.switches, totals.turns, totals.compactions, totals.resyncs, totals.refused, totals.moves,
         totals.formats, totals.restarts, totals.thrown, totals.acts})
      EXPECT_GT(happened, 10 / slow);
}

} // namespace
} // namespace Test
