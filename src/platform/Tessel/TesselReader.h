// SPDX-License-Identifier: Apache-2.0
// The change queue, as a follower sees it: read-only mappings, a place in the current table, and the walk
// from there to the end. TesselWriter.h has the argument why nothing is lost. What a slot's change means is
// the client's business, and who says when to walk is the wake-up's (Rusk).
//
// The follower's order:
//   attach; then a sweep: start = capture(), look at every slot, sweptTo(start); then walk() until it says
//   quiesced. A sweep is due again whenever walk() says resync, and never else: one tells some clients of
//   every row.
//
// `last` is the sequence up to which everything has been taken in, by a sweep or by entries; it moves with
// tombstones, too, so it reaches the writer's last sequence. It survives a detach and an attach to the same
// content.
//
// No lock, no store, no allocation in a walk. One thread. A client may detach() the reader from inside
// doSlot, and may not destroy it there.
#pragma once

#include "Tessel/TesselTable.h"

namespace Tessel {

/// Takes in changes of slots.
template <class Slot> class HOFLOW_EXPORT SlotClient {
public:
   /// Looks at a slot again. @param sequence of the change, Rusk::noSequence in a sweep
   /// @param compare nothing is to be reported if the slot holds what the client has
   /// @return false if validateNotif() was asked and said false; then nothing was changed
   virtual bool doSlot(Slot slot, Rusk::Sequence sequence, bool compare) = 0;

protected:
   ~SlotClient() = default;
};

enum class WalkResult {
   more,       ///< the budget is used up; call again
   quiesced,   ///< everything is taken in; last() may be reported, and the follower may sleep
   resync,     ///< changes may be missing: sweep, then walk again
   otherTable, ///< the content was formatted anew, or is being so: attach to the table again
   detached    ///< there is no queue, or the client has detached it just now
};

template <class Slot> class HOFLOW_EXPORT TesselReader : public TesselTable {
public:
   TesselReader(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath,
                SlotClient<Slot>& client)
      : TesselTable(handler, rootPath, false)
      , client_(client) {}

   /// Maps the queue of that generation. Where the content is the one that last() belongs to, the walk goes
   /// on from there; else the first walk says resync until a sweep was made.
   /// @return false with lastError() if there is no such queue, or it is being formatted
   bool attach(Parcel::KestorId kestor);
   void detach();
   std::string const& lastError() const { return lastError_; }

   /// The start of a sweep, taken before its first look at a slot.
   Rusk::Sequence capture() const;
   /// The sweep that began at `start` has seen every slot.
   void sweptTo(Rusk::Sequence start);

   /// Takes in up to `budget` entries, tombstones included.
   /// @throws what doSlot throws: the entry counts as not taken in, unless the client calls consume()
   /// @throws Lomi::CorruptionDetectedException where the queue's words can't be a writer's
   WalkResult walk(u32 budget);
   /// Inside doSlot of a walk, or after it threw: the entry counts as taken in, whatever doSlot says.
   void consume() { consumed_ = true; }
   /// Inside doSlot of a walk: the walk ends behind this entry, as if its budget were used up.
   void pause() { paused_ = true; }

   /// Inside doSlot of a walk: whether the entry still counts. False means that a newer one for its slot, or
   /// for the row that was in it, is on its way or that the place in the queue has to be found again.
   /// @throws Lomi::CorruptionDetectedException
   bool validateNotif() const;

   /// Everything that the writer has announced so far is taken in.
   bool quiesced() const;
   Rusk::Sequence last() const { return last_; }
   /// The writer's last sequence, 0 while detached.
   Rusk::Sequence tail() const;

private:
   class TesselNotifications;
   bool same(u32 generation) const;
   WalkResult place();
   WalkResult step(u64 attachment);
   void take(Rusk::Sequence sequence) {
      last_ = sequence;
      ++position_;
   }
   bool follow(u32 generation, u32 capacity);
   [[noreturn, gnu::cold]] void corrupt(std::string text) const;

   SlotClient<Slot>& client_;
   Parcel::KestorId kestor_;
   u32 stamp_ = 0;
   std::string lastError_;
   bool placed_ = false; ///< generation_, base_ and position_ hold
   bool synced_ = false; ///< last_ means something
   bool consumed_ = false;
   bool paused_ = false;
   u32 generation_ = 0;
   u32 position_ = 0;
   u64 base_ = 0;
   Rusk::Sequence last_ = 0;
   u64 attachments_ = 0; ///< tells a walk that its client has detached the queue
};

extern template class TesselReader<BasicSlot>;

} // namespace Tessel
