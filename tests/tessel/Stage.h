// SPDX-License-Identifier: Apache-2.0
// One writer and its followers in one thread, each on a stack of its own, switched at random before any of
// their accesses to shared words. What runs is the real queue; the rows are Rows.h's, and the wake-up is a
// mailbox.
#pragma once

#include "Mem/Seam.h"
#include "Rows.h"
#include "Tessel/TesselReader.h"

#include <functional>
#include <memory>
#include <ucontext.h>
#include <vector>

namespace Test {

/// Runs actors in turns that the dice choose.
class Stage final : public Mem::Seam::Observer {
public:
   explicit Stage(Dice& dice)
      : dice_(dice) {}

   void add(std::function<void()> actor) {
      actors_.push_back(std::make_unique<Actor>());
      actors_.back()->run = std::move(actor);
   }
   /// Until all have returned, or one has failed.
   void play() {
      for (auto& actor : actors_) prepare(*actor);
      Mem::Seam::observer = this;
      u32 favourite = 0;
      for (u64 turns = 0; failure.empty() && !allDone(); ++turns) {
         if (turns > 5'000'000) fail("no end");
         if (dice_.oneIn(60)) favourite = dice_.below(static_cast<u32>(actors_.size()));
         u32 const next = dice_.oneIn(8) ? dice_.below(static_cast<u32>(actors_.size())) : favourite;
         if (actors_[next]->done) {
            favourite = dice_.below(static_cast<u32>(actors_.size()));
            continue;
         }
         now_ = actors_[next].get();
         ::swapcontext(&home_, &now_->context);
         now_ = nullptr;
      }
      Mem::Seam::observer = nullptr;
   }
   /// An access of the running actor to something that others look at.
   void step() {
      if (now_ && !muted && dice_.oneIn(4)) pause();
   }
   void pause() {
      Actor* const me = now_;
      if (me) ::swapcontext(&me->context, &home_);
   }
   void fail(std::string text) {
      if (failure.empty()) failure = std::move(text);
   }
   void beforeLoad(void const*, std::size_t) override { step(); }
   void beforeStore(void*, void const*, std::size_t) override { step(); }

   std::string failure;
   bool muted = false;

private:
   struct Actor {
      ucontext_t context;
      std::vector<char> stack = std::vector<char>(128 * 1024);
      std::function<void()> run;
      bool done = false;
   };
   void prepare(Actor& actor) {
      ::getcontext(&actor.context);
      actor.context.uc_stack.ss_sp = actor.stack.data();
      actor.context.uc_stack.ss_size = actor.stack.size();
      actor.context.uc_link = &home_;
      current() = this;
      ::makecontext(&actor.context, &Stage::start, 0);
   }
   static Stage*& current() {
      static Stage* stage = nullptr;
      return stage;
   }
   static void start() {
      Stage& stage = *current();
      Actor& me = *stage.now_;
      try {
         me.run();
      } catch (std::exception const& error) {
         stage.fail(std::string("threw: ") + error.what());
      }
      me.done = true;
   }
   bool allDone() const {
      return std::all_of(actors_.begin(), actors_.end(), [](auto& actor) { return actor->done; });
   }

   Dice& dice_;
   std::vector<std::unique_ptr<Actor>> actors_;
   ucontext_t home_{};
   Actor* now_ = nullptr;
};

/// What a careless user of the queue does wrong.
enum class Mistake {
   none,
   startInsideACompaction, // a sweep's start isn't taken back to the front of a compaction that runs
   startAfterTheSweep,     // taken at its end
   sweepToTheCapacity,     // not up to the last local row
   removalNotAsked,        // validateNotif() isn't asked
   moveWithoutTombstone,   // the old slot's entry stays
   sleepNotCompared        // the writer doesn't compare a sleeper's place with its own
};

/// A process that follows: a copy of the rows, a client that hears of changes and removals, and a sleep.
class Copy final : public Tessel::SlotClient<Tessel::BasicSlot> {
public:
   enum class Sleep { awake, asked, asleep };

   Copy(Stage& stage, Dice& dice, Rows& rows, Mem::NaoRootPath const& path, Mistake mistake)
      : reader(*Lomi::Platform::getDebugHandler("test", true), path, *this)
      , stage_(stage)
      , dice_(dice)
      , rows_(rows)
      , mistake_(mistake)
      , sweepOneIn_(dice.oneIn(2) ? 30 : 300) {}

   void follow(bool const& writerDone) {
      for (;;) {
         if (!stage_.failure.empty()) return;
         bool const done = writerDone;
         if (sleep == Sleep::asleep && !done) {
            stage_.pause(); // it was told to: it looks at nothing
            continue;
         }
         switch (reader.walk(1 + dice_.below(40))) {
         case Tessel::WalkResult::resync:
            sweep();
            break;
         case Tessel::WalkResult::detached:
         case Tessel::WalkResult::otherTable:
            attach();
            break;
         case Tessel::WalkResult::more:
            break;
         case Tessel::WalkResult::quiesced:
            if (done) return;
            if (sleep == Sleep::awake) {
               asked = reader.last();
               sleep = Sleep::asked;
            } else {
               stage_.pause();
            }
         }
         if (dice_.oneIn(sweepOneIn_)) sweep();
         if (dice_.oneIn(200)) attach();
      }
   }

   bool doSlot(u32 slot, Rusk::Sequence sequence, bool) override {
      bool const queued = sequence != Rusk::noSequence;
      if (slot >= local_.size()) {
         stage_.step();
         if (rows_.capacity <= slot) return true;
         local_.resize(rows_.capacity);
      }
      Row const old = local_[slot];
      stage_.step();
      Row const now = slot < rows_.capacity ? rows_.rows[slot] : Row();
      bool const gone = old.occupied && (!now.occupied || now.key != old.key);
      if (gone) {
         if (queued && mistake_ != Mistake::removalNotAsked && !reader.validateNotif()) {
            ++refused;
            return false;
         }
         local_[slot].occupied = false;
         places_.erase(old.key);
         tellRemoval(old, queued);
      }
      if (!now.occupied) return true;
      if (auto const place = places_.find(now.key); place != places_.end() && place->second != slot)
         local_[place->second].occupied = false; // it has moved
      local_[slot] = now;
      places_[now.key] = slot;
      told[now.key] = now.value;
      return true;
   }

   std::string difference() const {
      std::map<int, int> wanted, held;
      for (auto const& [key, place] : rows_.truth) wanted[key] = place.value;
      for (auto const& [key, slot] : places_) held[key] = local_[slot].value;
      if (held != wanted) return "the copy differs from the table at rest";
      return told == wanted ? "" : "the client's view differs from the table at rest";
   }

   Tessel::TesselReader<Tessel::BasicSlot> reader;
   Sleep sleep = Sleep::awake;
   Rusk::Sequence asked = 0;    // the place of the last request to sleep
   Rusk::Sequence reported = 0; // what the writer has heard
   bool marked = false;         // by the writer
   std::map<int, int> told;
   u64 sweeps = 0, refused = 0;

private:
   void attach() {
      reader.detach();
      sleep = Sleep::awake;
      while (stage_.failure.empty()) {
         stage_.step();
         if (Parcel::KestorId const kestor = rows_.kestor; kestor.value() != 0 && reader.attach(kestor))
            return;
         stage_.pause();
      }
   }
   void sweep() {
      ++sweeps;
      Rusk::Sequence start = mistake_ == Mistake::startInsideACompaction ? reader.tail() : reader.capture();
      reported = std::min(reported, start);
      stage_.step();
      u32 slots = rows_.capacity;
      if (mistake_ != Mistake::sweepToTheCapacity) slots = std::max(slots, static_cast<u32>(local_.size()));
      for (u32 slot = 0; slot < slots && stage_.failure.empty(); ++slot) doSlot(slot, Rusk::noSequence, true);
      if (mistake_ == Mistake::startAfterTheSweep) start = reader.capture();
      reader.sweptTo(start);
   }
   void tellRemoval(Row const& row, bool queued) {
      auto const place = rows_.truth.find(row.key);
      if (queued && place != rows_.truth.end() && place->second.life == row.life)
         stage_.fail("a removal was told of a row that is in the table");
      if (told.erase(row.key) == 0) stage_.fail("a removal was told of a row that the client doesn't have");
   }

   Stage& stage_;
   Dice& dice_;
   Rows& rows_;
   Mistake const mistake_;
   u32 const sweepOneIn_;
   std::vector<Row> local_;
   std::map<int, u32> places_;
};

/// The writer's end of the wake-up: it answers between two changes, and wakes inside notify.
class Mailbox final : public Tessel::Followers {
public:
   Mailbox(std::vector<std::unique_ptr<Copy>>& copies, bool connected)
      : copies_(copies)
      , connected_(connected) {}
   void answer(Rusk::Sequence tail, Mistake mistake) {
      for (auto& copy : copies_) {
         if (copy->sleep != Copy::Sleep::asked) continue;
         copy->reported = copy->asked;
         if (tail > copy->asked && mistake != Mistake::sleepNotCompared) {
            copy->sleep = Copy::Sleep::awake;
         } else {
            copy->sleep = Copy::Sleep::asleep;
            copy->marked = asleep_ = true;
         }
      }
   }
   /// A writer that begins anew has no connections: all followers are awake.
   void disconnect() {
      for (auto& copy : copies_) copy->sleep = Copy::Sleep::awake;
      wake();
   }
   void wake() noexcept override {
      for (auto& copy : copies_)
         if (std::exchange(copy->marked, false)) copy->sleep = Copy::Sleep::awake;
      asleep_ = false;
   }
   bool anyConnected() const override { return connected_; }
   Rusk::Sequence reportedByAll() const override {
      Rusk::Sequence all = connected_ ? Rusk::noSequence : 0;
      for (auto& copy : copies_) all = std::min(all, copy->reported);
      return all;
   }
   u64 clientQuiesced(std::string const&, Rusk::Sequence) override { return 0; }

private:
   std::vector<std::unique_ptr<Copy>>& copies_;
   bool const connected_;
};

} // namespace Test
