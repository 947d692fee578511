// SPDX-License-Identifier: Apache-2.0
// The change queue, as its one writer sees it. QueueFormat.h has the bytes, TesselReader.h the other side.
//
// What it is. An entry (sequence, slot) says "look at this slot again". A slot has one current entry at
// most, its older ones are tombstones: a row that changed a thousand times costs a slow follower one look,
// and what is alive in the queue is bounded by the number of slots. Entries are appended to one of two
// tables. When it is full, a turn carries what is alive into the other one, in order, and moves the
// generation on; a follower that sees a new generation finds its place again by its sequence. The writer
// never waits for a follower and never asks who reads.
//
// Why no change is lost. Writer W, its turns T, follower F; `last` is the sequence that F has taken in.
//
//   W1 the slot's stores, before notify        F1 load generation; not the own one: place
//   W2 the entry's two words                   F2 load count
//   W3 the older entry becomes a tombstone     F3 load the entry's two words
//   W4 count        SYNC(queue-count)          F4 load generation; not the own one: forget F3, place
//   W5 next         SYNC(queue-next)           F5 read the slot. A removal is believed only if the entry
//   W6 look for sleepers, not earlier             is no tombstone yet and the generation F's own
//   T1 the other table: entries, count         F6 false at F5: if the generation moved, place, with `last`
//   T2 floor                                      as it was; if not, the entry is a tombstone: step over
//   T3 generation   SYNC(queue-generation)
//
//   1. F sees an entry at F2 after W4, so after W1: what F5 reads is that change or a newer one. A newer one
//      has an entry of its own behind. So the last look at a slot comes after its last change.
//   2. An entry becomes a tombstone (W3) before the count of the one that replaces it, or in a compaction
//      whose own entry for the slot follows at once. So whoever meets a tombstone will meet a newer entry
//      for the slot, and stepping over it loses nothing.
//   3. A table is rewritten (T1) only after the generation left it (the T3 before). Whoever reads a word of
//      the rewriting sees another generation at F4. So what is believed is the current table's.
//   4. What was alive when a turn began is in the other table, in order and with its sequence, or has a
//      sequence of at most `floor`; T2 comes before T3. So F, placed at the first entry behind `last`, misses
//      nothing, or finds `last` below the floor and sweeps.
//   5. A sweep's start is `next` - 1 before its first look at a slot: a change up to there is complete in its
//      slot (W5 after W1), a later one has an entry that F will meet.
//
// Compactions. Between the marks a move makes these entries: the new slot, then the old one. They are
// nobody's current entry. Otherwise a later change of the new slot would take its entry away from in front of
// the old slot's, and a follower would report a removal of a row that is there. So they are carried as they
// are, and leave the queue only when the floor rises above them. A sweep that starts while a compaction runs
// starts in front of it: a row that it finds at the old place has its entry for the new one behind the start.
// The marks of a finished compaction stay until its entries are gone. shrinkMarker() asks for that, and the
// next notify drops them: a stopped follower can't prevent a compaction, it sweeps later.
//
// Costs. notify is six stores. After reserve() it allocates nothing, calls nothing and can't fail. A turn is
// a pass over a table, once in at least as many changes as it carries entries. A follower costs a system call
// each time that it went to sleep.
//
// Crash. Positions in tessel.slots change before T3, so a queue left in a turn contradicts itself, as does
// one left between W2 and the last store of notify; the table's critical section bit says the same. A
// compaction that was cut short leaves a start mark without an end. All of these fail the next start's
// validation. Formatting takes the kestor away first and gives it last, moves generation and sequence on, and
// sets the floor above all that was: whoever follows the old content notices.
//
// One process, one thread. A local table has a queue of length zero: no files, and everything is accepted.
#pragma once

#include "Tessel/Followers.h"
#include "Tessel/TesselTable.h"

#include <array>
#include <functional>

namespace Tessel {

/// Whether a turn leaves out what all connected followers have reported. The bound on the queue's size holds
/// without it; it saves copying, and costs a follower that was away a sweep.
enum class PruneMode : bool { keep, prune };

/// Results of attach(), the same as those of a table's other files; a table's writer ORs them.
enum QueueAttach : int { queueNew = 1, queueExisting = 2, queueReformatted = 4 };

/// Entries that a table has room for at least. Smaller means more turns; tests set it.
inline u32 leastEntries = 510; // a page

template <class Slot, class Position> class HOFLOW_EXPORT TesselWriter : public TesselTable {
   static_assert(sizeof(Slot) == 4 && sizeof(Position) == 4);

public:
   static constexpr char const* slotsFile = "tessel.slots";

   /// Touches no file. @param beforeFormat called before the files, found or new, are formatted
   TesselWriter(Lomi::Platform::DebugHandler const& handler, Mem::NaoRootPath const& rootPath, bool local,
                PruneMode pruneMode, std::function<void()> beforeFormat = {});

   /// Maps the files, creating them if need be; keeps them if they are all there, sound and of this
   /// generation, else formats them. Before the next notify, reserve() the table's capacity.
   /// @throws Lomi::InvalidInitializeException, Lomi::MemoryResourceException
   int attach(Parcel::KestorId kestor);
   void detach();
   /// The table stops serving.
   void onDetach() { detach(); }
   /// Removes the files. @throws Lomi::RuntimeException
   void cleanup();

   /// Who follows; null for nobody. Not owned. Stays over detach and attach.
   void followersIs(Followers* followers) { followers_ = followers; }
   /// Called every few milliseconds within a turn. To be set before attach(). It may call everything here
   /// that is const, and nothing else.
   void longOperationHookIs(std::function<void()> hook) { hook_ = std::move(hook); }

   /// For people who look at the queue's header. Does nothing while detached. May be called at any time, also
   /// in the middle of a turn.
   void figuresIs(u32 followers, u32 resyncs);

   /// Makes room for changes of the slots below `slots`, for good: after a growth, before a row in a new slot
   /// becomes visible. May be called in steps; fewer than before is a load and a comparison.
   /// @throws Lomi::MemoryResourceException with the queue as it was
   void reserve(u32 slots) {
      if (slots > presentSlots_) [[unlikely]]
         reserveMore(slots);
   }
   /// The table has been cut to so many slots. The queue follows when no entry names a slot above, see
   /// chores().
   void trim(u32 slots);

   /// Announces a change of `slot`, after the last store of the change. The slot is below reserve()'s count.
   void notify(Slot slot);
   /// Takes a slot's current entry back, if it has one.
   void tombstone(Slot slot);
   void markShrinkStart();
   void markShrinkEnd();
   /// Not 0 from markShrinkStart() until the entries of that compaction are gone. Asking this after
   /// markShrinkEnd() makes the next notify drop them.
   u64 shrinkMarker();

   /// Work that may call the system: gives memory back, looks whether a compaction's entries are still
   /// needed. The table's writer asks before an operation, outside of any critical section.
   bool choresPending() const { return chores_; }
   void chores();

   /// Checks all that concerns the queue alone. Whether slots and entries fit together is the table's
   /// validator's matter, which asks the functions below; except for the slots that the table doesn't have
   /// any more.
   /// @param mostSlots every slot that an entry names is below
   bool validate(Parcel::KestorId kestor, u32 mostSlots, std::string& error) const;
   /// Positions of the slots from `firstSlot` on: an entry that names the slot, or none.
   bool validateBeyond(u32 firstSlot, std::string& error) const;
   /// @throws Lomi::CorruptionDetectedException unless all files are there in full length
   void validateFile() const;

   struct Notification {
      u32 offset; ///< relative to baseSequence()
      u32 slot;
   };
   u32 count() const { return attached() ? Mem::loadShared(table(generation_).count) : 0; }
   /// @throws Lomi::CorruptionDetectedException at or above count()
   Notification notification(u32 position) const;
   u64 baseSequence() const { return attached() ? Mem::loadShared(header().base[generation_ & 1]) : 0; }
   /// Position of the slot's current entry, noPosition if there is none or the slot is out of range.
   u32 tesselSlot(u32 slot) const;
   u64 corralStart() const { return corralStart_; }
   u64 corralEnd() const { return corralEnd_; }

   /// The last sequence given, 0 if none was.
   Rusk::Sequence tail() const { return next_ - 1; }
   u32 generation() const { return generation_; }
   u64 turns() const { return turns_; }
   u64 mappedSize() const { return primaryMappedSize() + secondaryMappedSize() + slotsWrapper_.mappedSize(); }
   /// 0 for an empty name, and if nobody of that name follows.
   u64 clientQuiesced(std::string const& name) {
      return name.empty() || !followers_ ? 0 : followers_->clientQuiesced(name, tail());
   }
   std::string dump() const;
   /// For tests that watch the files.
   std::array<Mem::ParcelWrapper const*, 4> wrappers() const {
      return {&headerWrapper_, &tables_[0], &tables_[1], &slotsWrapper_};
   }

private:
   static constexpr u32 sliceEntries = 4096;     // of a turn, between two looks at the clock
   static constexpr double sliceSeconds = 0.004; // a turn may come at the end of a slice of the table's own

   struct Found;
   bool adopt(Parcel::KestorId kestor, Found const& found);
   void format(Parcel::KestorId kestor);
   void fillPositions(u32 from, u32 to);
   void follow();
   void resizeFile(Mem::ParcelWrapper& wrapper, u64 size, u32 slots);
   [[gnu::cold, gnu::noinline]] void reserveMore(u32 slots);
   [[gnu::cold, gnu::noinline]] void makeRoom();
   void turn(bool drop);
   u32 carry(u64 floor, u64& newBase);
   u32 findAlive(u32 from, u32 to, u32* alive) const;
   u64 newFloor(bool drop) const;
   u32 nextCapacity(u32 kept) const;
   bool inCorral(u64 sequence) const {
      return corralStart_ != 0 && sequence >= corralStart_ && (corralEnd_ == 0 || sequence <= corralEnd_);
   }
   u32 neededSlots() const;
   u64 neededTableSize(u32 side, u32 slots) const;
   bool cuttable() const;
   void cut();
   void updateChores();
   bool validateEntries(u32 count, u32 mostSlots, std::string& error) const;
   [[noreturn, gnu::cold]] void refuseSlot(u32 slot) const;

   std::function<void()> beforeFormat_;
   std::function<void()> hook_;
   Followers* followers_ = nullptr;
   Mem::ParcelWrapper slotsWrapper_;
   bool const local_;
   PruneMode const pruneMode_;

   // Copies of what stands in the files; the writer never has to read them back.
   QueueEntry* entries_ = nullptr; ///< of the current table
   u32* count_ = nullptr;          ///< its count's place
   u64* nextWord_ = nullptr;
   Position* positions_ = nullptr; ///< tessel.slots
   u32 slotsLength_ = 0;
   u32 used_ = 0;  ///< the current table's count
   u32 limit_ = 0; ///< notify turns at this count: the table's capacity, or 0 to turn at once
   u32 capacity_ = 0;
   u32 generation_ = 0;
   u64 base_ = 0;
   u64 next_ = 1;
   u64 corralStart_ = 0;
   u64 corralEnd_ = 0;
   bool shrinking_ = false;
   bool dropWanted_ = false;
   bool chores_ = false;

   u32 presentSlots_ = 0;  ///< the table's own count, as reserve() and trim() said
   u32 reservedSlots_ = 0; ///< what the files have room for
   u32 namedSlots_ = 0; ///< no entry that lay in the table at the last turn or trim names a slot from here on
   u32 turnedAt_ = 0;   ///< count after the last turn
   u32 patience_ = 0;
   u64 slice_ = 0; ///< ticks of the processor between two calls of the hook
   u64 turns_ = 0;
};

// ---------------------------------------------------------------------------------------------------------------

template <class Slot, class Position> inline void TesselWriter<Slot, Position>::notify(Slot slot) {
   if (used_ >= limit_) [[unlikely]] {
      if (local_) return;
      makeRoom();
   }
   if (slot >= slotsLength_) [[unlikely]]
      refuseSlot(slot);
   u32 const position = used_;
   Mem::storeShared(entries_[position].relative, static_cast<u32>(next_ - base_));
   Mem::storeShared(entries_[position].slot, static_cast<u32>(slot));
   u32 const older = Mem::loadShared(positions_[slot]);
   if (older != noPosition) Mem::storeShared(entries_[older].slot, tombstoneSlot);
   // SYNC(queue-count) store: the entry is complete, and so is the change that it announces.
   Mem::storeShared(*count_, used_ = position + 1);
   // SYNC(queue-next) store
   Mem::storeShared(*nextWord_, ++next_);
   Mem::storeShared(positions_[slot], static_cast<Position>(shrinking_ ? noPosition : position));
   // Not before the count is stored: a follower that goes to sleep now is told of this change or has seen it.
   if (followers_ && followers_->asleep()) [[unlikely]]
      followers_->wake();
}

template <class Slot, class Position> inline void TesselWriter<Slot, Position>::tombstone(Slot slot) {
   if (local_) return;
   if (slot >= slotsLength_) [[unlikely]]
      refuseSlot(slot);
   u32 const older = Mem::loadShared(positions_[slot]);
   if (older == noPosition) return;
   Mem::storeShared(entries_[older].slot, tombstoneSlot);
   Mem::storeShared(positions_[slot], static_cast<Position>(noPosition));
}

extern template class TesselWriter<BasicSlot, u32>;

} // namespace Tessel
