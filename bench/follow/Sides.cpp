// SPDX-License-Identifier: Apache-2.0
// See Sides.h.
#include "follow/Sides.h"

#include <algorithm>

namespace Bench {
namespace {

constexpr char const* path = "flowtracking/bench/hwOffload/config/hoIpFlowConfig";
constexpr u32 entriesAtOnce = 1000;

Lomi::Platform::DebugHandler const& handler() {
   static Lomi::Platform::DebugHandler const it("bench");
   return it;
}

char const* rooted(Place const& place) {
   Mem::RootPath::set(place.directory);
   return path;
}

} // namespace

std::unique_ptr<FollowedWriter> openFollowed(Place const& place) {
   Mirak::MapDescriptor descriptor(static_cast<Mirak::u32>(place.rows));
   descriptor.criticalTaskCheck = true;
   auto writer = std::make_unique<FollowedWriter>(handler(), rooted(place), descriptor);
   if (!writer->initialize("bench")) wrong("hoflow", "the writer can't open its table");
   return writer;
}

Follower::Follower(Place const& place)
   : path_(handler(), rooted(place), false)
   , reader_(handler(), path, QueueOps{}, nullptr)
   , queue_(handler(), path_, *this)
   , rusk_(handler(), path_, *this, "bench") {
   if (!reader_.initialize("bench")) wrong("hoflow", "a follower can't read: " + reader_.initializeError());
   if (!queue_.attach(reader_.kestorId()))
      wrong("hoflow", "a follower can't attach to the queue: " + queue_.lastError());
   rusk_.maybeConnect();
   rusk_.processingIs(true);
}

bool Follower::doSlot(Tessel::BasicSlot slot, Rusk::Sequence sequence, bool) {
   Row row;
   u64 const now = reader_.getValue(slot, tableRow(row), nullptr) ? rowSum(row) : 0;
   if (slot >= sums_.size()) sums_.resize(slot + 1);
   if (now == 0 && sums_[slot] != 0 && sequence != Rusk::noSequence && !queue_.validateNotif()) return false;
   sum_ += now - sums_[slot];
   sums_[slot] = now;
   if (sequence == Rusk::noSequence) return true;
   ++calls_;
   if (onChange) onChange(row);
   return true;
}

Rusk::Walked Follower::walk() {
   switch (queue_.walk(entriesAtOnce)) {
   case Tessel::WalkResult::more:
      return Rusk::Walked::more;
   case Tessel::WalkResult::quiesced:
      return Rusk::Walked::atEnd;
   case Tessel::WalkResult::resync:
      sweep();
      return Rusk::Walked::more;
   default:
      wrong("hoflow", "the table was formatted under its follower");
   }
}

void Follower::sweep() {
   ++sweeps_;
   Rusk::Sequence const start = queue_.capture();
   rusk_.report();
   bool found;
   reader_.lookup({}, found, nullptr); // maps all of the table
   u32 const end = std::max(reader_.capacity(), static_cast<u32>(sums_.size()));
   sums_.reserve(end);
   for (u32 slot = 0; slot < end; ++slot) doSlot(slot, Rusk::noSequence, true);
   queue_.sweptTo(start);
}

ShadowFollower::ShadowFollower(Place const& place, bool keyOnly)
   : MirakMap(path) {
   rooted(place);
   notify.changeFn = [this](auto const& value) {
      Row row;
      tableRow(row) = value;
      hear(row);
   };
   notify.keyFn = [this](auto const& key) {
      bool found = false;
      Row row;
      back().lookup(key, found, &tableRow(row));
      hear(row);
   };
   Mirak::MapDescriptor wanted(0);
   wanted.type = keyOnly ? Mirak::MirakType::keyshadow : Mirak::MirakType::shadow;
   wanted.synchronous = true;
   installDummy();
   init(wanted);
}

void ShadowFollower::hear(Row const& row) {
   ++calls_;
   if (onChange) onChange(row);
}

u64 ShadowFollower::sum() {
   if (summedAt_ == calls_ || !quiesced()) return sum_;
   sum_ = 0;
   Row row;
   Mirak::IterHint hint;
   for (bool more = back().first(tableRow(row), hint); more;
        more = back().next(tableKey(row.key), tableRow(row), hint))
      sum_ += rowSum(row);
   summedAt_ = calls_;
   return sum_;
}

} // namespace Bench
