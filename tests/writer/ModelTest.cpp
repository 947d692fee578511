// SPDX-License-Identifier: Apache-2.0
// The writer, and a reader beside it, against a map: random operations, and after every few of them the whole
// table by every way in; between them walks that live through it all.
// Keys carry their own hashes, so that chains are as even, as uneven or as long as a case wants them. The
// seed is printed with a failure; HOFLOW_SEED sets it, HOFLOW_STEPS the length.
#include "Dice.h"
#include "Fixture.h"

#include "Mirak/MirakReader.h"

#include <random>

namespace Test {
namespace {

enum class Hashing { good, identity, twins, constant };

struct Case {
   char const* name;
   Hashing hashing;
   u32 keys; ///< size of the key universe
   Mirak::MapDescriptor descriptor;
   bool moveAlways = false;
   friend void PrintTo(Case const& one, std::ostream* out) { *out << one.name; }
};

Mirak::MapDescriptor sized(u32 rows, bool local = false, bool heap = false, bool fixed = false,
                           bool shrink = true) {
   Mirak::MapDescriptor d(rows);
   d.local = local;
   d.heap = heap;
   d.fixedSize = fixed;
   d.shrinkBuckets_ = shrink;
   return d;
}

using Small = Row<3>; // 20 bytes: a 4-byte tail, and padding behind it
using Wide = Row<61>; // 8 slots in the first page
using Queued = Row<3, true>;
using Huge = Row<1201>; // longer than a page: the table begins with one slot

template <class R> class Model {
public:
   Model(Case const& setup, u64 seed)
      : setup_(setup)
      , random_(seed)
      , name_(fmt::format("model/{}-{}", setup.name, sizeof(R))) {
      std::filesystem::remove_all(testRoot() + "/" + name_);
      for (u32 i = 0; i < setup.keys; ++i) universe_.push_back(keyOf(i));
      open();
   }

   void run(u64 steps) {
      for (u64 step = 0; step < steps; ++step) {
         // In waves, so that the table grows and shrinks as a whole, too.
         growing_ = step / (4 * setup_.keys) % 2 == 0;
         one();
         if (testing::Test::HasFatalFailure()) {
            ADD_FAILURE() << "step " << step;
            return;
         }
         if (step < 100 || step % (1 + setup_.keys / 8) == 0) {
            ASSERT_EQ(difference(*writer_, content_, universe_), "") << "step " << step;
            if (reader_) {
               ASSERT_EQ(judgeAll<R>(*reader_, content_, seed(), universe_), "") << "step " << step;
            }
         }
      }
   }
   Mirak::Writer::Counters counters() const { return total_; }
   Mirak::Reader::Counters readerCounters() const { return reader_->readerCounters(); }

private:
   Key keyOf(u32 i) const {
      switch (setup_.hashing) {
      case Hashing::twins:
         return {i % 5 * 0x40000001u, i};
      case Hashing::constant:
         return {0x80000001u, i};
      default:
         return {i, i / 2}; // neighbours' order by number differs from their order by hash
      }
   }
   void open() {
      Key::seeded = setup_.hashing == Hashing::good;
      writer_ = Test::open<R>(name_, setup_.descriptor, quiet());
      if (setup_.descriptor.local || reader_) return;
      reader_ = std::make_unique<Mirak::MirakReader<OpsOf<R>>>(quiet(), name_, OpsOf<R>{});
      if (!reader_->initialize("test")) throw std::logic_error(reader_->initializeError());
   }
   u32 seed() const { return Mem::loadShared(writer_->slotTable().header().hashSeed); }
   Key any() { return universe_[random_() % universe_.size()]; }

   void one() {
      u32 const dice = random_() % 100;
      Key const key = any();
      bool const known = content_.count(key) != 0;
      if (dice < (growing_ ? 45 : 3)) {
         put(key, dice % 8 != 0);
      } else if (dice < 60) {
         remove(key);
      } else if (dice < 70) {
         bool found;
         writer_->lookup(key, found, nullptr);
         ASSERT_EQ(found, known);
         if (found) {
            put(key, true);
            ASSERT_THROW(writer_->validateVersionAnchor(), Mem::VersionMismatchException);
         }
      } else if (dice < 76 && (growing_ || known)) {
         direct(key, known);
      } else if (dice < 80) {
         R* const place = writer_->directUpdate(key);
         ASSERT_EQ(place != nullptr, known);
         if (!place) return;
         *place = R::make(key, content_[key] = ++generation_);
         writer_->directCommit();
      } else if (dice < 90) {
         remember();
      } else if (dice < 99) {
         resume();
      } else if (random_() % 4 == 0) {
         restart();
      }
   }
   bool full(Key key) const {
      return setup_.descriptor.fixedSize && !content_.count(key) && content_.size() == setup_.descriptor.size;
   }
   void put(Key key, bool overwrite) {
      R const row = R::make(key, ++generation_);
      if (full(key)) {
         ASSERT_THROW(writer_->write(row, overwrite), Mirak::TableFullException);
         return;
      }
      bool const stays = content_.count(key) && !overwrite;
      R const* const stored = writer_->write(row, overwrite);
      if (!stays) content_[key] = generation_;
      ASSERT_EQ(stored->generation(), content_[key]);
   }
   void remove(Key key) {
      R removed;
      auto const row = content_.find(key);
      ASSERT_EQ(writer_->remove(key, removed), row != content_.end());
      if (row == content_.end()) return;
      ASSERT_TRUE(removed.key() == key && removed.generation() == row->second && removed.sound());
      content_.erase(row);
   }
   void direct(Key key, bool known) {
      R const row = R::make(key, ++generation_);
      if (full(key)) {
         ASSERT_THROW(writer_->directWrite(row), Mirak::TableFullException);
         return;
      }
      writer_->directWrite(row);
      bool found;
      R const* const seen = writer_->lookup(key, found, nullptr);
      ASSERT_EQ(found, known); // not before the commit
      if (known) {
         ASSERT_EQ(seen->generation(), content_[key]);
      }
      writer_->directCommit();
      content_[key] = generation_;
   }

   /// A place in a walk, kept for later.
   void remember() {
      R row;
      Mirak::IterHint hint;
      bool more = writer_->first(row, hint);
      for (u32 steps = random_() % 20; more && steps > 0; --steps) more = writer_->next(row.key(), row, hint);
      if (!more) return;
      Place const place{row.key(), hint};
      if (places_.size() < 32) places_.push_back(place);
      places_[random_() % places_.size()] = place;
   }
   /// Whatever happened since, the walk goes on behind the key. A hint of another place must only do no harm.
   void resume() {
      if (places_.empty()) return;
      auto [key, hint] = places_[random_() % places_.size()];
      if (random_() % 8 == 0) {
         R row;
         if (writer_->next(any(), row, hint)) {
            ASSERT_TRUE(content_.count(row.key()) && row.sound());
         }
         return;
      }
      resume(*writer_, key, hint);
      if (reader_) resume(*reader_, key, hint);
   }
   template <class Table> void resume(Table const& table, Key key, Mirak::IterHint hint) {
      R row;
      std::optional<Key> wanted;
      for (auto const& [other, generation] : content_)
         if (before(key, other, seed()) && (!wanted || before(other, *wanted, seed()))) wanted = other;
      ASSERT_EQ(table.next(key, row, hint), wanted.has_value()) << key.str();
      if (wanted) {
         ASSERT_EQ(row.key(), *wanted) << row.str() << " wanted " << wanted->str();
      }
   }
   /// Everything of a file survives the writer, nothing of private memory.
   void restart() {
      auto const& header = writer_->slotTable().header();
      u64 const pad = random_();
      writer_->scratchpadIs(pad);
      u32 const seed = this->seed(), most = Mem::loadShared(header.mostSlots);
      auto const kestor = writer_->kestorId();
      note();
      bool const sameObject = random_() % 2;
      writer_->detach(false);
      ASSERT_EQ(writer_->mountStatus(), Mem::MountStatus::notMounted);
      if (sameObject)
         writer_->initialize("again");
      else
         open();
      auto const& now = writer_->slotTable().header();
      if (setup_.descriptor.local) {
         content_.clear();
         places_.clear();
         ASSERT_EQ(writer_->kestorId().high, 0);
      } else {
         ASSERT_EQ(writer_->kestorId(), kestor);
         ASSERT_EQ(writer_->scratchpad(), pad);
         ASSERT_EQ(Mem::loadShared(now.hashSeed), seed);
         ASSERT_EQ(Mem::loadShared(now.mostSlots), most);
      }
   }

public:
   void note() {
      auto const c = writer_->writerCounters();
      total_.slotGrows += c.slotGrows;
      total_.slotShrinks += c.slotShrinks;
      total_.slotsMoved += c.slotsMoved;
      total_.bucketGrows += c.bucketGrows;
      total_.bucketShrinks += c.bucketShrinks;
      total_.nextSlowPath += c.nextSlowPath;
      total_.remaps += c.remaps + writer_->hashMap().buckets().remaps();
   }

private:
   Case const& setup_;
   std::mt19937_64 random_;
   std::string name_;
   std::vector<Key> universe_;
   std::unique_ptr<WriterOf<R>> writer_;
   std::unique_ptr<Mirak::MirakReader<OpsOf<R>>> reader_; ///< none beside private memory
   Content content_;
   struct Place {
      Key key;
      Mirak::IterHint hint;
   };
   std::vector<Place> places_;
   bool growing_ = true;
   u32 generation_ = 0;
   Mirak::Writer::Counters total_;
};

std::vector<Case> const cases = {
    {"good", Hashing::good, 700, sized(1000)},
    {"identity", Hashing::identity, 700, sized(100)},
    {"twins", Hashing::twins, 120, sized(4)},
    {"constant", Hashing::constant, 40, sized(1)},
    {"moving", Hashing::good, 700, sized(10), true},
    {"moving twins", Hashing::twins, 120, sized(1), true},
    {"fixed", Hashing::good, 300, sized(150, false, false, true)},
    {"fixed at one", Hashing::identity, 4, sized(1, false, false, true)},
    {"never fewer buckets", Hashing::identity, 700, sized(10, false, false, false, false)},
    {"local pages", Hashing::good, 700, sized(100, true)},
    {"local heap", Hashing::identity, 700, sized(10, true, true)},
};

class WriterModel : public testing::TestWithParam<Case> {
protected:
   template <class R> void run(u64 steps) {
      u64 const seed = setting("HOFLOW_SEED", std::random_device{}());
      SCOPED_TRACE(fmt::format("HOFLOW_SEED={}", seed));
      Mem::ParcelWrapper::moveAlways = GetParam().moveAlways;
      Model<R> model(GetParam(), seed);
      model.run(setting("HOFLOW_STEPS", steps));
      Mem::ParcelWrapper::moveAlways = false;
      if (HasFatalFailure()) return;
      model.note();
      auto const done = model.counters();
      // What the case is about happened.
      if (GetParam().keys >= 700) {
         EXPECT_TRUE(done.bucketGrows > 0 && done.slotGrows > 0 && done.nextSlowPath > 0);
         // A local table is emptied by each restart, and its tides don't rise far.
         EXPECT_TRUE(GetParam().descriptor.local || (done.slotShrinks > 0 && done.slotsMoved > 0));
      }
      if (GetParam().keys >= 700 && GetParam().descriptor.shrinkBuckets_) {
         EXPECT_GT(done.bucketShrinks, 0u);
      }
      if (GetParam().moveAlways) {
         EXPECT_GT(done.remaps, 0u);
      }
      if (!GetParam().descriptor.local) {
         EXPECT_GT(model.readerCounters().nextSlowPath, 0u);
      }
      if (GetParam().keys >= 700 && !GetParam().descriptor.local) {
         EXPECT_TRUE(model.readerCounters().slotResizes > 2 && model.readerCounters().buckets.resizes > 0);
      }
   }
};

TEST_P(WriterModel, Small) { run<Small>(12000); }
TEST_P(WriterModel, Wide) { run<Wide>(12000); }
TEST_P(WriterModel, WithAQueue) {
   SmallTables const small(8);
   run<Queued>(12000);
}

class WriterModelOfHugeRows : public WriterModel {};
TEST_P(WriterModelOfHugeRows, FromOneSlotOn) { run<Huge>(GetParam().keys < 700 ? 800 : 8000); }

std::string nameOf(testing::TestParamInfo<Case> const& one) {
   std::string name = one.param.name;
   std::replace(name.begin(), name.end(), ' ', '_');
   return name;
}
/// The short ones, and tables so large that their growth is prepared in pieces.
std::vector<Case> hugeCases() {
   std::vector<Case> some = {{"prepared", Hashing::good, 700, sized(1000)},
                             {"prepared and moving", Hashing::identity, 700, sized(100), true}};
   std::copy_if(cases.begin(), cases.end(), std::back_inserter(some),
                [](auto const& one) { return one.keys <= 120; });
   return some;
}
INSTANTIATE_TEST_SUITE_P(Cases, WriterModel, testing::ValuesIn(cases), nameOf);
INSTANTIATE_TEST_SUITE_P(Cases, WriterModelOfHugeRows, testing::ValuesIn(hugeCases()), nameOf);

} // namespace
} // namespace Test
