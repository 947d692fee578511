// SPDX-License-Identifier: Apache-2.0
// One writer and its followers in one thread, each on a stack of its own, switched at random before any of
// their accesses to shared words. What runs is the real table and the real queue; the wake-up is a mailbox.
#pragma once

#include "../follower/Copy.h"
#include "Dice.h"
#include "Mem/Seam.h"
#include "Tessel/Followers.h"

#include <functional>
#include <memory>
#include <ucontext.h>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/common_interface_defs.h>
#endif

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
   /// Until all have returned, which they do once one has failed.
   void play() {
      for (auto& actor : actors_) prepare(*actor);
      Mem::Seam::observer = this;
      u32 favourite = 0;
      for (u64 turns = 0; !allDone(); ++turns) {
         if (turns > 5'000'000) {
            fail("no end");
            break;
         }
         if (dice_.oneIn(60)) favourite = dice_.below(static_cast<u32>(actors_.size()));
         u32 const next = dice_.oneIn(8) ? dice_.below(static_cast<u32>(actors_.size())) : favourite;
         if (actors_[next]->done) {
            favourite = dice_.below(static_cast<u32>(actors_.size()));
            continue;
         }
         now_ = actors_[next].get();
         change(home_, *now_);
         now_ = nullptr;
      }
      Mem::Seam::observer = nullptr;
   }
   /// An access of the running actor to something that others look at.
   void step() {
      if (now_ && !muted && dice_.oneIn(4)) pause();
   }
   void pause() {
      if (Actor* const me = now_) change(*me, home_);
   }
   void fail(std::string text) {
      if (failure.empty()) failure = std::move(text);
   }
   void beforeLoad(void const*, std::size_t) override { step(); }
   void beforeStore(void*, void const*, std::size_t) override { step(); }

   std::string failure;
   bool muted = false;

private:
   /// A stack, and where its execution stands.
   struct Place {
      ucontext_t context{};
      void const* bottom = nullptr;
      std::size_t size = 0;
      void* shelf = nullptr; // of AddressSanitizer
   };
   struct Actor : Place {
      std::vector<char> stack = std::vector<char>(128 * 1024);
      std::function<void()> run;
      bool done = false;
   };
   void prepare(Actor& actor) {
      ::getcontext(&actor.context);
      actor.bottom = actor.context.uc_stack.ss_sp = actor.stack.data();
      actor.size = actor.context.uc_stack.ss_size = actor.stack.size();
      actor.context.uc_link = &home_.context;
      current() = this;
      ::makecontext(&actor.context, &Stage::start, 0);
   }
   static Stage*& current() {
      static Stage* stage = nullptr;
      return stage;
   }
   // Nothing of its own lies on a stack that has been left.
   [[gnu::no_sanitize_address]] static void start() {
      Stage& stage = *current();
      arrived(nullptr, &stage.home_.bottom, &stage.home_.size);
      stage.runActor(*stage.now_);
      leaving(nullptr, stage.home_);
   }
   void runActor(Actor& me) {
      try {
         me.run();
      } catch (std::exception const& error) {
         fail(std::string("threw: ") + error.what());
      }
      me.done = true;
   }
   static void change(Place& from, Place& to) {
      leaving(&from.shelf, to);
      ::swapcontext(&from.context, &to.context);
      arrived(from.shelf, nullptr, nullptr);
   }
   // AddressSanitizer must know on which stack it is, or takes what an exception leaves behind for a fault.
#ifdef __SANITIZE_ADDRESS__
   static void leaving(void** shelf, Place const& to) {
      __sanitizer_start_switch_fiber(shelf, to.bottom, to.size);
   }
   static void arrived(void* shelf, void const** fromBottom, std::size_t* fromSize) {
      __sanitizer_finish_switch_fiber(shelf, fromBottom, fromSize);
   }
#else
   static void leaving(void**, Place const&) {}
   static void arrived(void*, void const**, std::size_t*) {}
#endif
   bool allDone() const {
      return std::all_of(actors_.begin(), actors_.end(), [](auto& actor) { return actor->done; });
   }

   Dice& dice_;
   std::vector<std::unique_ptr<Actor>> actors_;
   Place home_;
   Actor* now_ = nullptr;
};

using R = Row<61, true>; // 8 slots in the first page

/// What the table must hold: for each key the row's generation, and the one with which it came.
struct Held {
   u32 generation, born;
};
using Truth = std::map<Key, Held, KeyLess>;

/// A process that follows, and sleeps.
class Sleeper final : public RowCopy<R> {
public:
   enum class Sleep { awake, asked, asleep };

   Sleeper(Stage& stage, Dice& dice, Truth const& truth, Mistake mistake)
      : RowCopy("follow", mistake)
      , stage_(stage)
      , dice_(dice)
      , truth_(truth)
      , sweepOneIn_(dice.oneIn(2) ? 30 : 300) {}

   void follow(bool const& writerDone) {
      while (stage_.failure.empty()) {
         bool const done = writerDone;
         if (sleep == Sleep::asleep && !done) {
            stage_.pause(); // it was told to: it looks at nothing
            continue;
         }
         try {
            if (walk(done)) return;
            if (dice_.oneIn(sweepOneIn_)) sweep();
            if (dice_.oneIn(200)) attach();
         } catch (Mirak::TableReformattedException const&) {
            attach();
         }
      }
   }
   /// Asleep for good with a change before it.
   bool oversleeps(Rusk::Sequence tail) const {
      return sleep == Sleep::asleep && asked != tail && queue_.attached();
   }

   Sleep sleep = Sleep::awake;
   Rusk::Sequence asked = 0;    // the place of the last request to sleep
   Rusk::Sequence reported = 0; // what the writer has heard
   bool marked = false;         // by the writer

private:
   /// @return true at the end of everything
   bool walk(bool done) {
      switch (queue_.walk(1 + dice_.below(40))) {
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
         if (done) return true;
         if (sleep == Sleep::awake) {
            asked = queue_.last();
            sleep = Sleep::asked;
         } else {
            stage_.pause();
         }
      }
      return false;
   }
   void attach() {
      detachTable();
      sleep = Sleep::awake;
      while (stage_.failure.empty() && !attachUnwoken()) stage_.pause();
   }
   void handleSweep(Rusk::Sequence start) override { reported = std::min(reported, start); }
   void handleRemoval(R const& row, bool queued) override {
      auto const held = truth_.find(row.key());
      if (queued && held != truth_.end() && held->second.born <= row.generation())
         stage_.fail("a removal was told of a row that is in the table");
   }

   Stage& stage_;
   Dice& dice_;
   Truth const& truth_;
   u32 const sweepOneIn_;
};

/// The writer's end of the wake-up: it answers between two changes, and wakes inside notify.
class Mailbox final : public Tessel::Followers {
public:
   Mailbox(std::vector<std::unique_ptr<Sleeper>>& copies, bool connected)
      : copies_(copies)
      , connected_(connected) {}
   void answer(Rusk::Sequence tail, Mistake mistake) {
      for (auto& copy : copies_) {
         if (copy->sleep != Sleeper::Sleep::asked) continue;
         copy->reported = copy->asked;
         if (tail > copy->asked && mistake != Mistake::sleepNotCompared) {
            copy->sleep = Sleeper::Sleep::awake;
         } else {
            copy->sleep = Sleeper::Sleep::asleep;
            copy->marked = asleep_ = true;
         }
      }
   }
   /// A writer that begins anew has no connections: all followers are awake.
   void disconnect() {
      for (auto& copy : copies_) copy->sleep = Sleeper::Sleep::awake;
      wake();
   }
   void wake() noexcept override {
      for (auto& copy : copies_)
         if (std::exchange(copy->marked, false)) copy->sleep = Sleeper::Sleep::awake;
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
   std::vector<std::unique_ptr<Sleeper>>& copies_;
   bool const connected_;
};

} // namespace Test
