// SPDX-License-Identifier: Apache-2.0
// A mounted shadow's client, and the walker. See Following.h.
#include "Following.h"

#include "Files.h"
#include "Json.h"
#include "Mem/WriterLock.h"
#include "Table.h"
#include "Walk.h"

#include <chrono>

namespace Tool {

namespace {

using Clock = std::chrono::steady_clock;

/// Whose rows they are. @throws Failure if a table of another type has taken the place
bool isThere(Changes const& changes, Inspection const& seen) {
   if (seen.state != State::ok) return false;
   if (seen.type->valueType != changes.schema().valueType())
      throw Failure{Exit::incomplete, fmt::format("{}: now holds {}", seen.path, seen.type->valueType),
                    "the table was replaced by one of another type; watch it anew"};
   return true;
}

/// What both ways say of a table as a whole.
class Whole {
public:
   explicit Whole(Changes& changes)
      : changes_(changes)
      , place_(quietHandler(), changes.table(), false) {}

   void synchronised(std::uint64_t rows) {
      there_ = false;
      lost_ = !writerLives(); // one that comes later is news
      changes_.event("synchronised", {{"rows", rows}, {"writerPid", writerJson()}},
                     fmt::format("{} rows, {}", rows, lost_ ? "no writer lives" : writerText()));
   }
   void resynchronised(std::uint64_t number, std::uint64_t rows) {
      changes_.event("resynchronised", {{"number", number}, {"rows", rows}},
                     fmt::format("{} rows, number {}", rows, number));
   }
   void detached() { changes_.event("detached", {}, "the table was removed or is formatted anew"); }
   /// Whether the writer was there before, or is there now.
   void writerIs(bool there) {
      if (there && lost_)
         changes_.event("reconnected", {{"writerPid", writerJson()}}, writerText());
      else if (!there && there_)
         changes_.event("disconnected", {}, "the writer is gone");
      lost_ = !there && (lost_ || there_);
      there_ = there;
   }
   bool writerLives() const { return Mem::WriterLock::ownerIsAlive(quietHandler(), place_); }

private:
   /// 0 if there is none, or it isn't known.
   std::uint32_t writer() const {
      std::uint32_t pid = 0;
      return Mem::WriterLock::ownerIsAlive(quietHandler(), place_, &pid) ? pid : 0;
   }
   std::string writerText() const {
      std::uint32_t const pid = writer();
      return pid ? fmt::format("writer {}", pid) : "writer";
   }
   ordered_json writerJson() const {
      std::uint32_t const pid = writer();
      return pid ? ordered_json(pid) : ordered_json();
   }

   Changes& changes_;
   Mem::NaoRootPath const place_;
   bool there_ = false, lost_ = false;
};

class ByQueue final : public Following, Mirak::AnyFollower::Client {
public:
   ByQueue(Changes& changes, Mirak::TableType const& type, Changes::Present present)
      : changes_(changes)
      , whole_(changes)
      , follower_(type.makeFollower(changes.table(), *this)) {
      changes_.takingIn(present);
      follower_->start();
   }

   void turn() override {
      look();
      // The figures change together at a sweep's end; its beginning is no news.
      Mirak::Reader::Counters const counters = follower_->counters();
      if (synchronised_ && counters.resyncs != resyncs_ && counters.syncSequence != syncSequence_)
         whole_.resynchronised(resyncs_ = counters.resyncs, follower_->members());
      syncSequence_ = counters.syncSequence;
      if (!attached_ && Clock::now() >= nextCheck_) {
         nextCheck_ = Clock::now() + std::chrono::seconds(1);
         Inspection const seen = inspect(changes_.table());
         if (isThere(changes_, seen)) refusedFor(seen);
      }
      if (attached_) {
         refusals_ = 0;
         said_.clear();
         wasAttached_ = true;
      }
   }
   bool refused() const override { return !wasAttached_ && !said_.empty(); }
   bool quiet() const override { return follower_->quiesced() || !attached_; }
   double pause() const override { return 1; }

private:
   void changed(void const* row) override {
      look();
      changes_.changed(row);
   }
   void removed(void const* row) override {
      look();
      changes_.removed(row);
   }
   void mountChanged() override { look(); }

   /// The table is whole, and not attached. Without a reason that shows it may be a matter of the moment.
   void refusedFor(Inspection const& seen) {
      std::string why = seen.queue.problem.empty() ? seen.queue.unreadable : seen.queue.problem;
      if (++refusals_ < 3 && why.empty()) return;
      std::string const text = fmt::format("{}: can't be followed{}{}; tried again and again", seen.name,
                                           why.empty() ? "" : ": ", why);
      if (std::exchange(said_, text) != text) say(text);
   }

   void look() {
      auto const status = follower_->mountStatus();
      bool const synchronised = status == Mem::MountStatus::synchronised;
      attached_ = synchronised || status == Mem::MountStatus::mounted;
      if (synchronised_ && !attached_) {
         synchronised_ = false;
         whole_.detached();
      }
      if (synchronised && !synchronised_) {
         synchronised_ = true;
         changes_.takenIn();
         whole_.synchronised(follower_->members());
      }
      if (!synchronised_) return;
      whole_.writerIs(follower_->connected());
   }

   Changes& changes_;
   Whole whole_;
   std::unique_ptr<Mirak::AnyFollower> const follower_;
   bool attached_ = false, synchronised_ = false;
   std::uint64_t resyncs_ = 0, syncSequence_ = 0;
   Clock::time_point nextCheck_;
   unsigned refusals_ = 0; ///< checks that found the table there, and it not attached
   std::string said_;      ///< of these
   bool wasAttached_ = false;
};

class ByWalking final : public Following {
public:
   ByWalking(Changes& changes, Changes::Present present, double interval)
      : changes_(changes)
      , whole_(changes)
      , interval_(interval)
      , next_(Clock::now()) {
      changes_.takingIn(present);
   }

   void turn() override {
      if (Clock::now() < next_) return;
      // A table that was formatted anew during the walk is walked again at once, unless it happens again and
      // again.
      for (int attempt = 0; attempt < 3; ++attempt)
         if (walk()) break;
      next_ = Clock::now() +
              std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(interval_));
   }
   bool quiet() const override { return true; }
   double pause() const override { return std::chrono::duration<double>(next_ - Clock::now()).count(); }

private:
   /// @return false if the table was replaced meanwhile
   bool walk() {
      if (!table_ && !open()) {
         leave();
         return true;
      }
      changes_.beginRound();
      WalkEnd end = WalkEnd::stopped;
      try {
         end = walkRows(*table_, [this](void const* row) {
            changes_.changed(row);
            return !changes_.enough();
         });
      } catch (Failure const& failure) {
         if (failure.status != Exit::corrupt) throw;
         say(failure);
         damaged_ = generation_;
         leave();
         return true;
      }
      if (end == WalkEnd::stopped) return true;
      if (end != WalkEnd::complete) {
         table_.reset();
         replaced_ = synchronised_;
         return false;
      }
      changes_.endRound();
      changes_.takenIn();
      if (!std::exchange(synchronised_, true))
         whole_.synchronised(table_->members());
      else if (replaced_)
         whole_.resynchronised(++resyncs_, table_->members());
      replaced_ = false;
      whole_.writerIs(whole_.writerLives());
      return true;
   }

   bool open() {
      Inspection const seen = inspect(changes_.table());
      if (!isThere(changes_, seen) || seen.kestorId.value() == damaged_) return false;
      generation_ = seen.kestorId.value();
      damaged_ = 0;
      try {
         table_ = openTable(changes_.table());
      } catch (Failure const& failure) {
         if (failure.status == Exit::corrupt) throw;
         return false; // gone again
      }
      return true;
   }

   void leave() {
      table_.reset();
      replaced_ = false;
      if (!std::exchange(synchronised_, false)) return;
      whole_.detached();
      changes_.clear();
   }

   Changes& changes_;
   Whole whole_;
   double const interval_;
   Clock::time_point next_;
   std::unique_ptr<Table> table_;
   std::uint32_t generation_ = 0, damaged_ = 0; ///< of what is open; of what is not to be opened again
   bool synchronised_ = false;
   bool replaced_ = false; ///< the rows that were told of are those of an earlier table
   std::uint64_t resyncs_ = 0;
};

} // namespace

std::unique_ptr<Following> followQueue(Changes& changes, Mirak::TableType const& type,
                                       Changes::Present present) {
   return std::make_unique<ByQueue>(changes, type, present);
}

std::unique_ptr<Following> followByWalking(Changes& changes, Changes::Present present, double interval) {
   return std::make_unique<ByWalking>(changes, present, interval);
}

} // namespace Tool
