// SPDX-License-Identifier: Apache-2.0
// A process's copy of a table: sweeps at first, follows the queue from then on, and is woken by the table's
// writer. As simple as a follower can be, and right: what it does with a slot is what any follower must do.
#pragma once

#include "Judge.h"
#include "TestTable.h"

#include "Rusk/ReaderRuskSm.h"
#include "Tessel/TesselReader.h"

#include <optional>

namespace Test {

template <class R> class Copy final : public Tessel::SlotClient<Tessel::BasicSlot>, public Rusk::Follower {
public:
   using Reader = Mirak::MirakReader<OpsOf<R>>;

   explicit Copy(std::string const& table)
      : path_(quiet(), table.c_str(), false)
      , reader_(quiet(), table, {})
      , queue_(quiet(), path_, *this)
      , rusk_(quiet(), path_, *this, "copy") {}

   /// @return false while there is no table
   bool attach() {
      if (!attachUnwoken()) return false;
      rusk_.maybeConnect();
      rusk_.processingIs(true);
      return true;
   }
   /// Without the wake-up: the owner calls walk() when it likes.
   bool attachUnwoken() { return reader_.initialize("test") && queue_.attach(reader_.kestorId()); }
   void detach() {
      rusk_.detach();
      queue_.detach();
      reader_.detach(false);
   }

   // --- Rusk::Follower ---
   Rusk::Walked walk() override {
      ++walks;
      switch (queue_.walk(500)) {
      case Tessel::WalkResult::more:
         return Rusk::Walked::more;
      case Tessel::WalkResult::quiesced:
         return Rusk::Walked::atEnd;
      case Tessel::WalkResult::resync:
         sweep();
         return Rusk::Walked::more;
      default:
         throw std::logic_error("the table was formatted anew");
      }
   }
   bool behind() const override { return !queue_.quiesced(); }
   Rusk::Sequence last() const override { return queue_.last(); }
   Parcel::KestorId kestorId() const override { return reader_.kestorId(); }
   void handleDisconnect() override { ++disconnects; }

   // --- Tessel::SlotClient ---
   bool doSlot(u32 slot, Rusk::Sequence sequence, bool) override {
      R now;
      bool const occupied = look(slot, now);
      if (occupied && !now.sound()) throw std::logic_error("torn row " + now.str());
      if (slot >= rows_.size()) rows_.resize(slot + 1);
      auto& old = rows_[slot];
      if (old && (!occupied || now.key() != old->key())) {
         if (sequence != Rusk::noSequence && !queue_.validateNotif()) return false;
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
   std::size_t size() const { return places_.size(); }
   u64 wakes() const { return rusk_.counters().wakes; }
   bool connected() const { return rusk_.connected(); }

   u64 walks = 0, sweeps = 0, moved = 0, disconnects = 0;

private:
   bool look(u32 slot, R& row) {
      if (slot >= reader_.capacity()) {
         bool found;
         reader_.lookup({}, found, nullptr); // follows a growth
         if (slot >= reader_.capacity()) return false;
      }
      return reader_.getValue(slot, row, nullptr);
   }
   void sweep() {
      ++sweeps;
      Rusk::Sequence const start = queue_.capture();
      rusk_.report();
      bool found;
      reader_.lookup({}, found, nullptr); // maps the table
      u32 const end = std::max(reader_.capacity(), static_cast<u32>(rows_.size()));
      for (u32 slot = 0; slot < end; ++slot) doSlot(slot, Rusk::noSequence, true);
      queue_.sweptTo(start);
   }

   Mem::NaoRootPath path_;
   Reader reader_;
   Tessel::TesselReader<Tessel::BasicSlot> queue_;
   Rusk::ReaderRuskSm rusk_;
   std::vector<std::optional<R>> rows_; // by slot
   std::map<Key, u32, KeyLess> places_;
};

} // namespace Test
