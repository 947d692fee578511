// SPDX-License-Identifier: Apache-2.0
// Whole histories of a table and its shadows, drawn from a seed: writes, growth, compaction, turns of the
// queue, crashes and re-formats of the writer, detaches, exceptions out of callbacks. The writer also works
// between any two loads that a shadow makes of shared memory. At rest each copy equals the table, and what
// its client was told adds up to the same.
#include "../tessel/Dice.h"
#include "Mem/Seam.h"
#include "Support.h"

namespace Test {
namespace {

struct Totals {
   u64 steps = 0, between = 0, turns = 0, compactions = 0, resyncs = 0, refused = 0, moves = 0, formats = 0,
       restarts = 0, thrown = 0, waits = 0;
};

/// The writer's side: one random change after the other, in phases, so that all kinds of turns come about.
class Source {
public:
   Source(Dice& dice, Totals& totals)
      : dice_(dice)
      , totals_(totals)
      , keys_(3 + dice.below(200)) {
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
   /// The writer dies; another one adopts the files.
   void restart() {
      count();
      writer.reset();
      start();
      ++totals_.restarts;
   }
   /// The writer dies in the middle of a change: all rows are lost.
   void format() {
      count();
      writer.reset();
      truth.clear();
      interrupt("shadowed");
      start();
      ++totals_.formats;
   }

   Content truth;
   Content born; ///< with which generation each row of the truth came
   std::unique_ptr<Writer> writer;

private:
   void start() { writer = newWriter("shadowed"); }
   void count() {
      totals_.turns += writer->writerCounters().queueTurns;
      totals_.compactions += writer->writerCounters().slotShrinks;
   }
   Dice& dice_;
   Totals& totals_;
   u32 const keys_;
   u32 mood_ = 0, generation_ = 0;
};

/// Lets the writer work between two loads of a shadow.
class Between final : public Mem::Seam::Observer {
public:
   Between(Dice& dice, Source& source, Totals& totals)
      : dice_(dice)
      , source_(source)
      , totals_(totals)
      , oneIn_(dice.oneIn(3) ? 12 : 80) {}
   void beforeLoad(void const*, std::size_t) override {
      if (working_ || !dice_.oneIn(oneIn_)) return;
      working_ = true;
      for (u32 n = dice_.oneIn(10) ? dice_.below(60) : 1; n > 0; --n) source_.change();
      ++totals_.between;
      working_ = false;
   }
   void beforeStore(void*, void const*, std::size_t) override {}

private:
   Dice& dice_;
   Source& source_;
   Totals& totals_;
   u32 const oneIn_;
   bool working_ = false;
};

/// A client that knows whether it is called for an entry of the queue or for a sweep's slot.
class Told final : public Client {
public:
   using Client::Client;
   bool queued = false;

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
   History(u64 seed, Totals& totals)
      : dice_(seed)
      , small_(2 + dice_.below(12))
      , totals_(totals) {
      std::filesystem::remove_all(testRoot() + "/shadowed");
      Mem::ParcelWrapper::moveAlways = dice_.oneIn(4);
      throwing_ = seed % 3 == 0;
      source_ = std::make_unique<Source>(dice_, totals);
      for (u32 n = 1 + dice_.below(2); n > 0; --n) {
         auto client = std::make_unique<Told>("shadowed");
         client->inCall = [this](std::string const& what) { inCall(what); };
         auto const told = client->notify.keyDelFn;
         client->notify.keyDelFn = [this, told, to = client.get()](Key const& key) {
            checkRemoval(*to, key);
            told(key);
         };
         mount(*client);
         clients_.push_back(std::move(client));
      }
   }
   ~History() {
      for (auto& client : clients_) client->inCall = {};
      for (auto& client : clients_) client->controlDetach();
      settle();
      Mem::ParcelWrapper::moveAlways = false;
   }

   std::string play() {
      for (u32 step = 200 + dice_.below(400); step > 0; --step)
         if (std::string wrong = act(); !wrong.empty()) return wrong;
      throwing_ = false;
      for (auto& client : clients_)
         if (!client->initialized()) mount(*client);
      if (std::string const wrong = difference(contentOf(*source_->writer), source_->truth); !wrong.empty())
         return "the table itself: " + wrong;
      std::string const wrong = rest(clients_, *source_->writer, [] { loop().run(0.1); });
      for (auto& client : clients_) count(*client);
      return wrong;
   }

private:
   std::string act() {
      switch (dice_.below(16)) {
      default:
         for (u32 n = dice_.oneIn(8) ? dice_.below(100) : 1 + dice_.below(4); n > 0; --n) source_->change();
         break;
      case 0:
      case 1:
      case 2:
      case 3:
      case 4:
         turn();
         break;
      case 5: // as many changes as fit between a shadow's own steps
         for (u32 n = dice_.below(8); n > 0; --n) turn();
         break;
      case 6:
         return read(*clients_[dice_.below(static_cast<u32>(clients_.size()))]);
      case 7: {
         Client& client = *clients_[dice_.below(static_cast<u32>(clients_.size()))];
         client.yieldTimeIs(dice_.oneIn(2) ? 0 : 0.01);
         client.notifyingIs(dice_.oneIn(4) ? false : true);
         break;
      }
      case 8:
         if (dice_.oneIn(6)) source_->restart();
         break;
      case 9:
         if (dice_.oneIn(12)) source_->format();
         break;
      case 10: {
         Client& client = *clients_[dice_.below(static_cast<u32>(clients_.size()))];
         if (!dice_.oneIn(8)) break;
         if (client.initialized())
            letGo(client);
         else
            mount(client);
      }
      }
      return {};
   }

   /// One turn of the loop, with the writer working in between.
   void turn() {
      Between between(dice_, *source_, totals_);
      Mem::Seam::observer = &between;
      try {
         loop().run(0);
      } catch (Thrown const&) {
         ++totals_.thrown;
      }
      Mem::Seam::observer = nullptr;
   }

   /// A walk and lookups: each row is met once, in order, and was in the table.
   std::string read(Client& client) {
      Between between(dice_, *source_, totals_);
      Content met;
      R row;
      Mirak::IterHint hint;
      Mem::Seam::observer = &between;
      std::string wrong;
      try {
         for (bool more = client.back().first(row, hint); more && wrong.empty();
              more = client.back().next(row.key(), row, hint)) {
            if (!row.sound()) wrong = "torn row in a walk: " + row.str();
            if (!met.emplace(row.key(), row.generation()).second) wrong = "met twice: " + row.str();
         }
         Key const key = keyOf(dice_.below(200));
         bool found = false;
         R buffer;
         R const* const got = client.safeLookup(key, found, &buffer);
         if (found && !(got->sound() && got->key() == key)) wrong = "lookup of another row: " + got->str();
      } catch (Mirak::TableReformattedException const&) {
         // A keyshadow reads the table; its sentry hasn't told it yet.
      }
      Mem::Seam::observer = nullptr;
      return wrong;
   }

   /// A row that has been in the table since it was told isn't told as removed, wherever it is moved.
   void checkRemoval(Told& client, Key const& key) {
      if (!client.queued || !source_->truth.contains(key) || !client.heard.contains(key)) return;
      if (source_->born[key] <= client.heard[key])
         client.complain("a removal was told of a row that is in the table: " + key.str());
   }

   struct Thrown {};
   void inCall(std::string const& what) {
      bool const ofRow = what.starts_with("row") || what.starts_with("removed");
      if (throwing_ && ofRow && !quietly_ && dice_.oneIn(30)) throw Thrown();
   }
   void mount(Client& client) {
      quietly_ = true;
      client.init(shadowSettings(dice_.oneIn(2)));
      quietly_ = false;
   }
   void letGo(Client& client) {
      quietly_ = true;
      count(client);
      client.controlDetach();
      if (!client.heard.empty()) client.complain("rows are left after a detach that was to tell of each");
      quietly_ = false;
   }
   void count(Client& client) {
      auto const counters = client.readerCounters();
      totals_.resyncs += counters.resyncs - std::exchange(counted_[&client].resyncs, counters.resyncs);
      totals_.refused += counters.failedNotifications -
                         std::exchange(counted_[&client].failedNotifications, counters.failedNotifications);
      totals_.moves +=
          counters.shadowKeyMoves - std::exchange(counted_[&client].shadowKeyMoves, counters.shadowKeyMoves);
   }

   Dice dice_;
   SmallTables small_;
   Totals& totals_;
   bool throwing_ = false, quietly_ = false;
   std::unique_ptr<Source> source_;
   std::vector<std::unique_ptr<Told>> clients_;
   std::map<Client*, Mirak::Reader::Counters> counted_;
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
   fmt::print("changes {} ({} times between loads) turns {} compactions {} resyncs {} refused {} moves {} "
              "formats {} restarts {} thrown {}\n",
              totals.steps, totals.between, totals.turns, totals.compactions, totals.resyncs, totals.refused,
              totals.moves, totals.formats, totals.restarts, totals.thrown);
   for (u64 const happened : {totals.between, totals.turns, totals.compactions, totals.resyncs,
                              totals.refused, totals.moves, totals.formats, totals.restarts, totals.thrown})
      EXPECT_GT(happened, 10 / slow);
}

} // namespace
} // namespace Test
