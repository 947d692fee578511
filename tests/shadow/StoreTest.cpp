// SPDX-License-Identifier: Apache-2.0
// One slot's change after the other on a real table, with the queue's answer chosen by the test: what the
// copy does, what its client hears, and what it reads in its callbacks.
#include "Support.h"

#include <sys/resource.h>

namespace Test {
namespace {

using Mirak::noSlot;
using Rusk::noSequence;

class Queue final : public Mirak::ShadowQueue {
public:
   bool validateNotif() const override {
      ++asked;
      return valid;
   }
   void consume() override { consumed = true; }
   bool valid = true, consumed = false;
   mutable int asked = 0;
};

/// A store of either kind on a table with one writer.
template <class Store> class Stored {
public:
   static constexpr bool keepsValue =
       std::is_same_v<Store, Mirak::ShadowStore<Mirak::ValueShadowSlot<ShadowOps>>>;

   Stored()
      : writer_((testRoot(), std::filesystem::remove_all(testRoot() + "/stored"), newWriter("stored")))
      , reader_(quiet(), "stored", {}, &counters)
      , store((reader_.initialize("test"), quiet()), reader_, counters, queue, notify, true) {
      // What they were given outlives whatever their client does first.
      notify.changeFn = [this](R const& row) {
         std::string const text = "row " + row.str();
         hear(text);
         EXPECT_EQ(text, "row " + row.str());
      };
      notify.keyFn = [this](Key const& key) {
         std::string const text = "key " + key.str();
         hear(text);
         EXPECT_EQ(text, "key " + key.str());
      };
      notify.keyDelFn = [this](Key const& key) { hear("gone " + key.str()); };
      EXPECT_TRUE(store.initialize());
   }
   u32 put(u32 number, u32 generation) {
      writer_->write(R::make(keyOf(number), generation), true);
      return slotOf(number);
   }
   void remove(u32 number) {
      R removed;
      ASSERT_TRUE(writer_->remove(keyOf(number), removed));
   }
   u32 slotOf(u32 number) {
      R row;
      Mirak::IterHint hint;
      for (bool more = reader_.first(row, hint); more; more = reader_.next(row.key(), row, hint))
         if (row.key() == keyOf(number)) return hint.slot;
      return noSlot;
   }
   /// What the client is told of a row.
   std::string told(u32 number, u32 generation) const {
      R const row = R::make(keyOf(number), generation);
      return keepsValue ? "row " + row.str() : "key " + row.key().str();
   }
   std::string gone(u32 number) const { return "gone " + keyOf(number).str(); }
   /// The generation that a lookup finds, 0 if none.
   u32 get(u32 number) const {
      bool found = true;
      R buffer;
      R const* const row = store.lookup(keyOf(number), found, &buffer);
      EXPECT_TRUE(!found || (row->sound() && row->key() == keyOf(number)));
      return found ? row->generation() : 0;
   }
   /// One call. @return what was heard, with "refused" for false
   Log change(u32 slot, Rusk::Sequence sequence, bool compare = true) {
      log.clear();
      queue.asked = 0;
      if (!store.doSlot(slot, sequence, compare)) log.push_back("refused");
      return log;
   }
   Writer& writer() { return *writer_; }

   Mirak::Reader::Counters counters;
   Queue queue;
   Mem::Notify<Key, R> notify;
   Log log;
   std::function<void(std::string const&)> inCall;

private:
   void hear(std::string const& what) {
      log.push_back(what);
      if (inCall) inCall(what);
   }
   std::unique_ptr<Writer> writer_;
   Mirak::MirakReader<ShadowOps> reader_;

public:
   Store store;
};

template <class Store> class ShadowStoreTest : public testing::Test {};
using Stores =
    testing::Types<Mirak::ShadowStore<Mirak::ValueShadowSlot<ShadowOps>>, Mirak::KeyShadowStore<ShadowOps>>;
TYPED_TEST_SUITE(ShadowStoreTest, Stores);

TYPED_TEST(ShadowStoreTest, EachCaseOfASlotsChange) {
   Stored<TypeParam> copy;
   Log const nothing, refused{"refused"};
   constexpr bool keepsValue = Stored<TypeParam>::keepsValue;

   // out of range, and free on both sides
   EXPECT_EQ(copy.change(5000, 7), nothing);
   u32 const slot = copy.put(1, 1);
   EXPECT_EQ(copy.change(slot + 1, 7), nothing);
   EXPECT_EQ(copy.counters.sequence, 0u);
   // new, by the queue
   EXPECT_EQ(copy.change(slot, 10), Log{copy.told(1, 1)});
   EXPECT_EQ(copy.counters.sequence, 10u);
   // the same again: compared or not
   EXPECT_EQ(copy.change(slot, 11), keepsValue ? nothing : Log{copy.told(1, 1)});
   EXPECT_EQ(copy.change(slot, 12, false), Log{copy.told(1, 1)});
   EXPECT_EQ(copy.change(slot, noSequence, true), keepsValue ? nothing : Log{copy.told(1, 1)});
   EXPECT_EQ(copy.counters.sequence, 12u);
   // other value
   copy.put(1, 2);
   EXPECT_EQ(copy.change(slot, 13), Log{copy.told(1, 2)});
   EXPECT_EQ(copy.get(1), 2u);
   EXPECT_EQ(copy.queue.asked, 0) << "the queue is asked only before something is destroyed";

   // other key: refused, then told in order
   copy.remove(1);
   ASSERT_EQ(copy.put(2, 3), slot);
   copy.queue.valid = false;
   EXPECT_EQ(copy.change(slot, 14), refused);
   EXPECT_EQ(copy.counters.sequence, 13u);
   EXPECT_EQ(copy.store.numSlots(), 8u);
   copy.queue.valid = true;
   EXPECT_EQ(copy.change(slot, 15), (Log{copy.gone(1), copy.told(2, 3)}));
   EXPECT_EQ(copy.counters.sequence, 15u);
   // other key in a sweep: not asked
   copy.remove(2);
   ASSERT_EQ(copy.put(3, 4), slot);
   copy.queue.valid = false;
   EXPECT_EQ(copy.change(slot, noSequence), (Log{copy.gone(2), copy.told(3, 4)}));
   EXPECT_EQ(copy.counters.sequence, 15u);

   // removed: refused, then told; then nothing is there
   copy.remove(3);
   EXPECT_EQ(copy.change(slot, 16), refused);
   copy.queue.valid = true;
   EXPECT_EQ(copy.change(slot, 17), Log{copy.gone(3)});
   EXPECT_EQ(copy.store.numSlots(), 0u) << "an empty copy gives its memory back";
   EXPECT_EQ(copy.change(slot, 18), nothing);
   EXPECT_EQ(copy.counters.sequence, 17u);
   EXPECT_EQ(copy.counters.members, 0u);
   copy.put(4, 5);
   copy.change(slot, 19);
   copy.remove(4);
   EXPECT_EQ(copy.change(slot, noSequence), Log{copy.gone(4)});
}

/// The table's rows are told by a sweep, slot after slot.
TYPED_TEST(ShadowStoreTest, FollowsATableThatWasCutDown) {
   Stored<TypeParam> copy;
   auto const sweep = [&](u32 from, u32 to) {
      for (u32 slot = from; slot < to; ++slot) copy.change(slot, noSequence);
   };
   for (u32 number = 0; number < 33; ++number) ASSERT_EQ(copy.put(number, 1), number);
   sweep(0, 33);
   EXPECT_EQ(copy.store.numSlots(), 64u);
   // A quarter is in use, but the table hasn't been cut yet.
   for (u32 number = 16; number < 33; ++number) copy.remove(number);
   sweep(16, 33);
   EXPECT_EQ(copy.counters.members, 16u);
   EXPECT_EQ(copy.store.numSlots(), 64u);
   // The table has 32 slots. The copy follows with the change that leaves it no more than a quarter.
   for (u32 number = 16; number < 33; ++number) copy.put(number, 2);
   sweep(16, 33);
   for (u32 number = 15; number < 33; ++number) copy.remove(number);
   ASSERT_EQ(copy.writer().capacity(), 32u);
   copy.put(40, 1);
   EXPECT_GE(copy.put(41, 1), 16u);
   sweep(15, 33);
   EXPECT_EQ(copy.counters.members, 17u);
   EXPECT_EQ(copy.store.numSlots(), 64u);
   copy.remove(0);
   sweep(0, 1);
   EXPECT_EQ(copy.store.numSlots(), 32u);
   EXPECT_EQ(copy.counters.shadowSlotShrinks, 1u);
   // A quarter again, but its upper half is in use.
   for (u32 number = 1; number < 9; ++number) copy.remove(number);
   sweep(1, 9);
   EXPECT_EQ(copy.counters.members, 8u);
   EXPECT_EQ(copy.store.numSlots(), 32u);
   EXPECT_EQ(copy.counters.shadowSlotShrinks, 1u);
   EXPECT_EQ(copy.get(41), 1u);
}

/// A row that compaction moved: the new place is told first, the old one is a tombstone by then.
TYPED_TEST(ShadowStoreTest, AMovedRowLeavesNoGap) {
   Stored<TypeParam> copy;
   constexpr bool keepsValue = Stored<TypeParam>::keepsValue;
   u32 const first = copy.put(1, 1), second = copy.put(2, 1);
   copy.change(first, 1);
   copy.change(second, 2);
   // As the queue would tell it, but here the row is put into the other slot by hand.
   copy.remove(1);
   copy.remove(2);
   ASSERT_EQ(copy.put(1, 1), second);
   copy.queue.valid = false;
   EXPECT_EQ(copy.change(first, 3), Log{"refused"});
   copy.queue.valid = true;
   // The second slot's old row goes; the first row is found in its new slot and tells nothing.
   Log const heard = copy.change(second, 4);
   EXPECT_EQ(heard, keepsValue ? Log{copy.gone(2)} : (Log{copy.gone(2), copy.told(1, 1)}));
   EXPECT_EQ(copy.counters.shadowKeyMoves, 1u);
   EXPECT_EQ(copy.change(first, 5), Log{}) << "the old slot is dead";
   EXPECT_EQ(copy.get(1), 1u);
   EXPECT_EQ(copy.counters.members, 1u);
}

TYPED_TEST(ShadowStoreTest, CallbacksReadTheChangeInProgress) {
   Stored<TypeParam> copy;
   u32 const slot = copy.put(1, 1);
   copy.change(slot, 1);
   u32 const other = copy.put(3, 1);
   copy.change(other, 2);
   copy.remove(1);
   ASSERT_EQ(copy.put(2, 2), slot);
   std::vector<u32> seen;
   R const* kept = nullptr;
   copy.inCall = [&](std::string const&) {
      if (copy.get(1) == 0 && seen.empty()) {
         EXPECT_EQ(copy.store.getCacheVersionAnchor().offset, Mem::anchorUnset);
      }
      for (u32 const number : {1, 2, 3}) seen.push_back(copy.get(number));
      bool found;
      kept = copy.store.lookup(keyOf(2), found, nullptr);
      if (found) copy.store.validateVersionAnchor(); // nothing has changed since it was fetched
   };
   auto const before = copy.counters;
   copy.change(slot, 3);
   EXPECT_EQ(seen, (std::vector<u32>{0, 0, 1, 0, 2, 1}));
   // While a key is removed, each other one is looked for in the index; while a row is entered, too.
   EXPECT_EQ(copy.counters.pendingLookupHits - before.pendingLookupHits, 2u + 2u);
   EXPECT_EQ(copy.counters.pendingLookupMisses - before.pendingLookupMisses, 3u + 3u);
   // What a lookup in a callback returned stays what it was over another slot's change.
   ASSERT_NE(kept, nullptr);
   EXPECT_EQ(kept->generation(), 2u);
   copy.inCall = {};
   copy.put(3, 9);
   copy.change(other, 4);
   EXPECT_EQ(kept->generation(), 2u);
   EXPECT_EQ(copy.get(3), 9u);
}

TYPED_TEST(ShadowStoreTest, AnExceptionLosesNothing) {
   Stored<TypeParam> copy;
   u32 const slot = copy.put(1, 1);
   struct Refusal {};
   copy.inCall = [](std::string const&) { throw Refusal(); };
   // A row: the entry counts as taken in.
   EXPECT_THROW(copy.change(slot, 1), Refusal);
   EXPECT_TRUE(copy.queue.consumed);
   EXPECT_EQ(copy.get(1), 1u);
   EXPECT_EQ(copy.counters.pendingLookupHits, 0u) << "the change in progress is forgotten";
   // Another key: the removal was told, the new row has yet to be.
   copy.remove(1);
   ASSERT_EQ(copy.put(2, 2), slot);
   copy.queue.consumed = false;
   EXPECT_THROW(copy.change(slot, 2), Refusal);
   EXPECT_FALSE(copy.queue.consumed);
   copy.inCall = {};
   EXPECT_EQ(copy.get(2), 0u);
   EXPECT_EQ(copy.change(slot, 2), Log{copy.told(2, 2)});
   // A removal.
   copy.remove(2);
   copy.inCall = [](std::string const&) { throw Refusal(); };
   EXPECT_THROW(copy.change(slot, 3), Refusal);
   EXPECT_TRUE(copy.queue.consumed);
   copy.inCall = {};
   EXPECT_EQ(copy.change(slot, 3), Log{});
   EXPECT_EQ(copy.get(2), 0u);

   // No memory for a larger index: the row is told when there is some.
   if (slow > 1) return; // a sanitizer needs memory of its own
   MovingMemory const moving;
   for (u32 const number : {1, 2}) copy.change(copy.put(number, 1), 4);
   u32 const third = copy.put(3, 1);
   rlimit allowed{};
   ASSERT_EQ(::getrlimit(RLIMIT_AS, &allowed), 0);
   rlimit const nothing{1, allowed.rlim_max};
   ::setrlimit(RLIMIT_AS, &nothing);
   EXPECT_ANY_THROW(copy.change(third, 5));
   ::setrlimit(RLIMIT_AS, &allowed);
   EXPECT_EQ(copy.get(3), 0u);
   EXPECT_EQ(copy.change(third, 5), Log{copy.told(3, 1)});
   EXPECT_EQ(copy.get(1) + copy.get(2) + copy.get(3), 3u);
}

/// A keyshadow's copy knows a key that the table has moved or lost.
TEST(KeyShadowStoreTest, ReadsWhatTheTableHasNow) {
   Stored<Mirak::KeyShadowStore<ShadowOps>> copy;
   u32 const first = copy.put(1, 1), second = copy.put(2, 1);
   copy.change(first, 1);
   copy.change(second, 2);
   copy.remove(1);
   copy.remove(2);
   ASSERT_EQ(copy.put(1, 5), second); // moved and rewritten, with nothing told yet
   EXPECT_EQ(copy.get(1), 5u);
   EXPECT_EQ(copy.counters.shadowKeyMismatches, 0u);
   EXPECT_EQ(copy.get(2), 0u) << "its slot holds another row, and the table has none";
   EXPECT_EQ(copy.counters.shadowKeyMismatches, 1u);
   Log walked;
   R row;
   Mirak::IterHint hint;
   for (bool more = copy.store.first(0, row, hint); more; more = copy.store.next(row.key(), row, hint))
      walked.push_back(row.str());
   EXPECT_EQ(walked, Log{R::make(keyOf(1), 5).str()}) << "a key that has gone from the table is skipped";
}

} // namespace
} // namespace Test
