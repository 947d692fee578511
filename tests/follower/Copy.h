// SPDX-License-Identifier: Apache-2.0
// A copy of a table that is kept up to date by its queue. As simple as a follower can be, and right: what it
// does with a slot is what any follower must do. RowCopy knows no loop and no wake-up; Copy is woken by the
// table's writer.
#pragma once

#include "Judge.h"
#include "TestTable.h"

#include "Rusk/ReaderRuskSm.h"
#include "Tessel/TesselReader.h"

#include <optional>

namespace Test {

/// What a careless user of the queue does wrong.
enum class Mistake {
   none,
   startAfterTheSweep, // a sweep's start is taken at its end
   sweepToTheCapacity, // not up to the last local row
   removalNotAsked,    // validateNotif() isn't asked
   sleepNotCompared    // the writer doesn't compare a sleeper's place with its own
};

template <class R> class RowCopy : public Tessel::SlotClient<Tessel::BasicSlot> {
public:
   explicit RowCopy(std::string const& table, Mistake mistake = Mistake::none)
      : path_(quiet(), table.c_str(), false)
      , reader_(quiet(), table, {})
      , queue_(quiet(), path_, *this)
      , mistake_(mistake) {}

   /// Without the wake-up: the owner walks when it likes. @return false while there is no table
   bool attachUnwoken() { return reader_.initialize("test") && queue_.attach(reader_.kestorId()); }

   bool doSlot(u32 slot, Rusk::Sequence sequence, bool) override {
      R now;
      bool const occupied = look(slot, now), queued = sequence != Rusk::noSequence;
      if (occupied && !now.sound()) throw std::logic_error("torn row " + now.str());
      if (slot >= rows_.size()) rows_.resize(slot + 1);
      auto& old = rows_[slot];
      if (old && (!occupied || now.key() != old->key())) {
         if (queued && mistake_ != Mistake::removalNotAsked && !queue_.validateNotif()) {
            ++refused;
            return false;
         }
         handleRemoval(*old, queued);
         places_.erase(old->key());
         old.reset();
      }
      if (!occupied) return true;
      auto const [place, fresh] = places_.try_emplace(now.key(), slot);
      if (!fresh && place->second != slot) {
         rows_[place->second].reset(); // the row has moved
         place->second = slot;
         ++moved;
      }
      old = now;
      return true;
   }

   /// Everything that was announced is taken in.
   bool quiesced() const { return queue_.quiesced(); }
   /// Empty if the copy is the table.
   std::string difference() {
      auto const wanted = walkAll<R>(reader_, 1u << 20);
      if (wanted.size() != places_.size())
         return fmt::format("the copy has {} rows, the table {}", places_.size(), wanted.size());
      for (R const& row : wanted) {
         auto const place = places_.find(row.key());
         if (place == places_.end()) return "the copy lacks " + row.str();
         if (rows_[place->second]->generation() != row.generation())
            return fmt::format("the copy has {} for {}", rows_[place->second]->str(), row.str());
      }
      return {};
   }

   u64 sweeps = 0, moved = 0, refused = 0;

protected:
   void detachTable() {
      queue_.detach();
      reader_.detach(false);
   }
   /// A removal is told. @param queued by the queue, not by a sweep
   virtual void handleRemoval(R const&, bool /*queued*/) {}
   /// A sweep begins, so far has everything been taken in.
   virtual void handleSweep(Rusk::Sequence) {}
   void sweep() {
      ++sweeps;
      Rusk::Sequence start = queue_.capture();
      handleSweep(start);
      bool found;
      reader_.lookup({}, found, nullptr); // maps the table
      u32 end = reader_.capacity();
      if (mistake_ != Mistake::sweepToTheCapacity) end = std::max(end, static_cast<u32>(rows_.size()));
      for (u32 slot = 0; slot < end; ++slot) doSlot(slot, Rusk::noSequence, true);
      if (mistake_ == Mistake::startAfterTheSweep) start = queue_.capture();
      queue_.sweptTo(start);
   }

   Mem::NaoRootPath path_;
   Mirak::MirakReader<OpsOf<R>> reader_;
   Tessel::TesselReader<Tessel::BasicSlot> queue_;

private:
   bool look(u32 slot, R& row) {
      if (slot >= reader_.capacity()) {
         bool found;
         reader_.lookup({}, found, nullptr); // follows a growth
         if (slot >= reader_.capacity()) return false;
      }
      return reader_.getValue(slot, row, nullptr);
   }

   Mistake const mistake_;
   std::vector<std::optional<R>> rows_; // by slot
   std::map<Key, u32, KeyLess> places_;
};

template <class R> class Copy final : public RowCopy<R>, public Rusk::Follower {
public:
   explicit Copy(std::string const& table)
      : RowCopy<R>(table)
      , rusk_(quiet(), this->path_, *this, "copy") {}

   /// @return false while there is no table
   bool attach() {
      if (!this->attachUnwoken()) return false;
      rusk_.maybeConnect();
      rusk_.processingIs(true);
      return true;
   }
   void detach() {
      rusk_.detach();
      this->detachTable();
   }

   Rusk::Walked walk() override {
      ++walks;
      switch (this->queue_.walk(500)) {
      case Tessel::WalkResult::more:
         return Rusk::Walked::more;
      case Tessel::WalkResult::quiesced:
         return Rusk::Walked::atEnd;
      case Tessel::WalkResult::resync:
         this->sweep();
         return Rusk::Walked::more;
      default:
         throw std::logic_error("the table was formatted anew");
      }
   }
   bool behind() const override { return !this->queue_.quiesced(); }
   Rusk::Sequence last() const override { return this->queue_.last(); }
   Parcel::KestorId kestorId() const override { return this->reader_.kestorId(); }
   void handleDisconnect() override {}

   u64 walks = 0;

private:
   void handleSweep(Rusk::Sequence) override { rusk_.report(); }
   Rusk::ReaderRuskSm rusk_;
};

} // namespace Test
