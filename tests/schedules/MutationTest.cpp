// SPDX-License-Identifier: Apache-2.0
// The driver finds mistakes: each case takes a recorded run of the real writer, breaks one rule of its order
// (as a careless writer would) and expects violations. The same run unbroken has none.
#include "Campaign.h"

#include <gtest/gtest.h>

namespace Test {
namespace {

using S = Small;
constexpr std::size_t numSlots = offsetof(Mirak::SlotTableHeader, numSlots), numBuckets = 16;

template <class R> std::size_t violations(Scenario<R> const& scenario, Recording<R> const& recording) {
   Campaign<R> campaign(scenario, recording);
   for (auto const& operation : campaign.operations())
      if (!scenario.restarts || operation.name.starts_with("lookup 0x0")) campaign.oneStop(operation);
   return campaign.finish().violations.size();
}

/// Runs the scenario as it is and as `break_` leaves its events.
template <class R, class Break>
void findsIt(
    Scenario<R> const& scenario, Break const& break_,
    std::function<void(Image&)> const& prepare = [](Image&) {}) {
   auto recording = record(scenario, "recorded");
   prepare(recording.before);
   EXPECT_EQ(violations(scenario, recording), 0u) << scenario.name;
   break_(recording.events, recording.before);
   EXPECT_GT(violations(scenario, recording), 0u) << scenario.name;
}

/// The one store of `length` bytes at `offset` of `file`.
std::size_t storeAt(Events const& events, std::string const& file, std::size_t offset,
                    std::size_t length = 8) {
   for (std::size_t i = 0; i < events.size(); ++i)
      if (events[i].kind == Event::Kind::store && events[i].file == file && events[i].offset == offset &&
          events[i].length == length)
         return i;
   throw std::logic_error("no such store");
}

void move(Events& events, std::size_t from, std::size_t to) {
   Event event = std::move(events[from]);
   events.erase(events.begin() + static_cast<long>(from));
   events.insert(events.begin() + static_cast<long>(to), std::move(event));
}

void wordIs(Event& event, u32 word) { std::memcpy(event.bytes.data(), &word, 4); }
u32 wordOf(Event const& event) {
   u32 word;
   std::memcpy(&word, event.bytes.data(), 4);
   return word;
}

Scenario<S> const inserting{"insert", fixedOf(4), holding<S>(4, {key(0), key(2)}), {puts<S>(key(4))}};
Scenario<S> const overwriting{"overwrite", fixedOf(4), holding<S>(4, {key(0), key(4)}), {puts<S>(key(4))}};
Scenario<S> const overwritingTwice{
    "overwrite twice", fixedOf(4), holding<S>(4, {key(4)}), {puts<S>(key(4)), puts<S>(key(4))}};
Scenario<S> const reusing{"remove, insert another",
                          fixedOf(4),
                          holding<S>(4, {key(0), key(4), key(2)}),
                          {removes<S>(key(4)), puts<S>(key(1))}};
Scenario<S> const growing = bucketScenarios()[1], shrinking = bucketScenarios()[2]; // 4 to 8, 8 to 4
Scenario<S> const regrowing = pairScenarios()[6];

using Table = Mirak::SlotTable<OpsOf<S>>;
constexpr std::size_t kestor = 12, hashSeed = offsetof(Mirak::SlotTableHeader, hashSeed);

/// Moves the store that publishes the bucket count by some events.
void movePublish(Events& events, int by) {
   std::size_t const publish = storeAt(events, "buckets", numBuckets);
   move(events, publish, publish + static_cast<std::size_t>(by));
}
/// Each store to a link of a row keeps the version that was there.
void keepLinkVersions(Events& events, Image const& before) {
   auto const& bytes = before.files.at("slots").bytes;
   for (Event& event : events)
      if (event.kind == Event::Kind::store && event.length == 8 && event.file == "slots" &&
          event.offset >= Table::headerSize && (event.offset - Table::headerSize) % Table::slotSize == 0)
         std::memcpy(event.bytes.data(), bytes.data() + event.offset, 4);
}
/// Kestor file, kestor, seed, the bucket count's version: each of them alone would warn a reader.
bool warnsOfReformat(Event const& event) {
   if (event.kind == Event::Kind::unlink) return event.file == "kestor";
   if (event.kind != Event::Kind::store) return false;
   if (event.file == "slots") return event.offset == kestor || event.offset == hashSeed;
   return event.file == "buckets" && (event.offset == kestor || event.offset == numBuckets);
}

struct Mutant {
   char const* name;
   Scenario<S> const& scenario;
   void (*break_)(Events&, Image const&);
};
Mutant const mutants[] = {
    // Of an insert: section, free list, ..., own link, word + 2, value, word + 4, [predecessor's link],
    // section.
    {"RowPublishedBeforeItIsFilled", inserting,
     [](Events& events, Image const&) { move(events, events.size() - 2, 1); }},
    // Of an overwrite: section, lookaside rhash, its value (3), word + 2 [5], value (3), word + 4 [9],
    // section.
    {"ValueStoredBeforeLookasideIsUp", overwriting, [](Events& events, Image const&) { move(events, 5, 8); }},
    {"LookasideUpBeforeItIsFilled", overwriting, [](Events& events, Image const&) { move(events, 5, 1); }},
    {"WordThatDoesntCount", overwritingTwice,
     [](Events& events, Image const&) {
        for (std::size_t act : {std::size_t{0}, events.size() / 2}) {
           u32 const before = wordOf(events[act + 5]) - 2;
           wordIs(events[act + 9], before);
           events[act + 5] = events[act + 9];
        }
     }},
    {"LinkVersionThatStandsStill", reusing, keepLinkVersions},
    {"BucketCountBeforeTheBuckets", growing, [](Events& events, Image const&) { movePublish(events, -4); }},
    {"ChainsCutBeforeTheCount", growing, [](Events& events, Image const&) { movePublish(events, 2); }},
    {"BucketCountFallsBeforeTheChainsAreJoined", shrinking,
     [](Events& events, Image const&) { movePublish(events, -4); }},
    {"BucketVersionThatStandsStill", regrowing,
     [](Events& events, Image const&) {
        Event& publish = events[storeAt(events, "buckets", numBuckets)];
        wordIs(publish, wordOf(publish) - 1);
     }},
};

class Mutation : public testing::TestWithParam<Mutant> {};
TEST_P(Mutation, IsFound) { findsIt(GetParam().scenario, GetParam().break_); }
INSTANTIATE_TEST_SUITE_P(Orders, Mutation, testing::ValuesIn(mutants),
                         [](auto const& mutant) { return mutant.param.name; });

/// A shrink once left rows behind the end of the file's slots; a growth must not show them.
TEST(MutationOfSlots, SlotCountBeforeTheSlotsAreFormatted) {
   findsIt(
       slotScenarios()[0],
       [](Events& events, Image const&) { move(events, storeAt(events, "slots", numSlots), 1); },
       [](Image& image) {
          using Slots = Mirak::SlotTable<OpsOf<Wide>>;
          auto& bytes = image.files.at("slots").bytes;
          std::fill(bytes.begin() + Slots::headerSize + 8 * Slots::slotSize, bytes.end(), '\5');
       });
}

// Of a move: rhash, free list, value (32), word, own link, predecessor's link, old slot's link, old word.
Scenario<Wide> const compacting = compactionScenarios()[0];
std::size_t slotAt(u32 slot, std::size_t field = 0) {
   using Slots = Mirak::SlotTable<OpsOf<Wide>>;
   return Slots::headerSize + slot * Slots::slotSize + field;
}
constexpr std::size_t wordField = offsetof(Mirak::SlotTable<OpsOf<Wide>>::Slot, versionFlags);

TEST(MutationOfCompaction, OldLinkLeftAloneByAMove) {
   findsIt(compacting, [](Events& events, Image const&) {
      events.erase(events.begin() + static_cast<long>(storeAt(events, "slots", slotAt(9))));
   });
}
TEST(MutationOfCompaction, OldSlotFallsBeforeTheNewOneIsLinked) {
   findsIt(compacting, [](Events& events, Image const&) {
      std::size_t const falls = storeAt(events, "slots", slotAt(9, wordField), 4);
      move(events, falls, falls - 2);
   });
}
TEST(MutationOfCompaction, MovedRowLinkedBeforeItIsWhole) {
   findsIt(compacting, [](Events& events, Image const&) {
      std::size_t const links = storeAt(events, "slots", slotAt(1)); // the predecessor is the row that stays
      move(events, links, links - 20);
   });
}
TEST(MutationOfCompaction, SlotCountFallsBeforeTheRowsAreMoved) {
   findsIt(compacting,
           [](Events& events, Image const&) { move(events, storeAt(events, "slots", numSlots), 1); });
}
TEST(MutationOfStart, GenerationStoredLast) {
   auto const start = startOn<S>("re-format", [](Bench<S>& b) {
      b.poke("slots", offsetof(Mirak::SlotTableHeader, runtimeFlags), "\1");
   });
   Key::seeded = true;
   findsIt(start, [](Events& events, Image const&) {
      std::stable_partition(events.begin(), events.end(), [](Event const& e) { return !warnsOfReformat(e); });
   });
   Key::seeded = false;
}

} // namespace
} // namespace Test
