// SPDX-License-Identifier: Apache-2.0
// Damage to every field of every file, one at a time. The first table gives the fields with what they mean;
// the sweep behind it puts other numbers into every word, whatever it means.
#include "Damage.h"

#include <sys/stat.h>

namespace Test {
namespace {

/// What a reader that has the files open makes of the damage.
enum class Open {
   unaware,     ///< nothing: it doesn't look there, or what it finds is right
   reformatted, ///< takes it for a re-format
   guarded      ///< right rows, refusals, or rows not found; never a wrong one
};

struct Field {
   char const* name;
   std::vector<Change> changes;
   bool sum;         ///< the header's checksum is made right again
   char const* says; ///< what the writer's traces have; empty: it adopts every row
   Open open = Open::guarded;
   char const* refusal = "";    ///< what a reader is told that opens the files afterwards; empty: it may
   char const* readerSays = ""; ///< what some operation of the reader that has them open throws
};

Change header(std::size_t offset, u32 value) { return put32("slots", offset, value); }
Change header16(std::size_t offset, Mem::u16 value) {
   return {"slots", offset, std::string(reinterpret_cast<char const*>(&value), 2)};
}
Change slot(u32 index, u32 part, u32 value) { return put32("slots", slotAt(index) + part, value); }
Change entry(u32 bucket, u32 next) { return put32("buckets", entryAt(bucket) + 4, next); }
constexpr u32 next = 4, flags = 8, rhash = 12, key = 16, value = 24;
constexpr u32 none = 0xffffffff, end = 0x80000000;
#define AT(field) offsetof(Header, field)

std::vector<Field> fields() {
   u32 const occupied = word("slots", slotAt(1) + flags), freeWord = word("slots", slotAt(20) + flags);
   auto const O = Open::unaware;
   auto const G = Open::guarded;
   return {
       // clang-format off
      {"nothing", {}, false, "", O},
      // slot file, header
      {"magic", {header(AT(magic), 0)}, false, "bad magic: ", O, "bad magic: "},
      {"version", {header(AT(version), 25)}, false, "bad version: 25", O, "bad version: 25"},
      {"kestor", {header(AT(kestor), 77)}, false, "failed to attach to existing files", Open::reformatted,
       "bad kestor:77:0 wanted:"},
      {"platform", {header(AT(platform), 2)}, false, "bad platform specification: unknown(2) expecting: x86",
       O, "bad platform specification: "},
      {"valueType", {header(AT(valueType), 0)}, false, "checksum fail: ", O, "checksum fail: "},
      {"another type", {header(AT(valueType), 0x41)}, true,
       "holds values of type \"A\", wanted \"Test::Row\"", O, "holds values of type \"A\""},
      {"type without end", {{"slots", AT(valueType), std::string(512, 'x')}}, true,
       "holds values of type \"xxx", O, "holds values of type \"xxx"},
      {"bytes behind the type's name", {header(AT(valueType) + 100, 0x41)}, true, "", O},
      {"valueSize", {header(AT(valueSize), 29)}, false, "checksum fail: ", O, "checksum fail: "},
      {"slotSize", {header(AT(slotSize), 56)}, true,
       "has valueSize:28 slotSize:56, wanted valueSize:28 slotSize:48", O, "has valueSize:28 slotSize:56"},
      {"maxSlots", {header(AT(maxSlots), 51)}, false, "checksum fail: ", O, "checksum fail: "},
      {"constFlags", {header16(AT(constFlags), 2)}, true, "has constFlags:0x2", O, "has constFlags:0x2"},
      {"critical section", {header16(AT(runtimeFlags), 1)}, false, "bad critical section runtimeFlags:1", O},
      {"other runtimeFlags", {header16(AT(runtimeFlags), 0xfffe)}, false, "", O},
      {"hash", {header(AT(hash), 0)}, false, "checksum fail: ", O, "checksum fail: "},
      {"occupiedSlots above", {header(AT(occupiedSlots), 65)}, false, "bad occupiedSlots: 65 num slots: 64",
       O, "bad occupiedSlots: 65 num slots: 64"},
      {"occupiedSlots + 1", {header(AT(occupiedSlots), 9)}, false, "mismatch header->occupiedSlots:9 count:8",
       O},
      {"occupiedSlots - 1", {header(AT(occupiedSlots), 7)}, false,
       "walkedSlots:8 is greater than header->occupiedSlots:7", O},
      {"freeSlots is the capacity", {header(AT(freeSlots), 64)}, false, "bad freeSlots: 64 slots: 64", O,
       "bad freeSlots: 64 slots: 64"},
      {"freeSlots empty", {header(AT(freeSlots), none)}, false,
       "bad slotCount:8 occupiedSlots:8 freeSlots:0 capacity:64", O},
      {"freeSlots one on", {header(AT(freeSlots), 9)}, false,
       "bad slotCount:63 occupiedSlots:8 freeSlots:55 capacity:64", O},
      {"freeSlots occupied", {header(AT(freeSlots), 3)}, false, "corrupted free slot not marked as empty: 3",
       O},
      {"mostSlots", {header(AT(mostSlots), 63)}, false, "bad mostSlots:63 numSlots:64", O,
       "bad mostSlots:63 numSlots:64"},
      {"mostSlots above", {header(AT(mostSlots), 1000)}, false, "", O},
      {"hashSeed", {header(AT(hashSeed), 1)}, false, "checksum fail: ", Open::reformatted, "checksum fail: "},
      {"numSlots' version", {header(AT(numSlots), 9)}, false, "", O},
      {"numSlots above", {header(AT(numSlots) + 4, 65)}, false, "bad mostSlots:64 numSlots:65", O,
       "bad mostSlots:64 numSlots:65"},
      {"numSlots above, with mostSlots", {header(AT(numSlots) + 4, 4000), header(AT(mostSlots), 4000)}, false,
       "bad shmem size:", G, "bad shmem size:"},
      {"numSlots beyond any file, and told", {header(AT(numSlots), 9), header(AT(numSlots) + 4, none),
       header(AT(mostSlots), none)}, false, "bad numSlots: 4294967295 message: ", G,
       "bad numSlots: 4294967295 message: ", "bad newNumSlots:4294967295 message:"},
      {"numSlots above the file, and told", {header(AT(numSlots), 9), header(AT(numSlots) + 4, 4000),
       header(AT(mostSlots), 4000)}, false, "bad shmem size:", G, "bad shmem size:",
       "4000 slots. Requested file resize to "},
      {"numSlots below", {header(AT(numSlots) + 4, 32)}, false, "out-of-range index: 32 max:31", O},
      {"numSlots below the rows", {header(AT(numSlots) + 4, 7)}, false, "bad occupiedSlots: 8 num slots: 7",
       G, "bad occupiedSlots: 8 num slots: 7"},
      {"numSlots 0", {header(AT(numSlots) + 4, 0)}, false, "bad occupiedSlots: 8 num slots: 0", G,
       "bad occupiedSlots: 8 num slots: 0"},
      {"numSlots 0, and told", {header(AT(numSlots), 1), header(AT(numSlots) + 4, 0)}, false,
       "bad occupiedSlots: 8 num slots: 0", G, "bad occupiedSlots: "},
      {"scratchpad", {header(AT(scratchpad), 1)}, false, "", O},
      {"lookaside", {{"slots", sizeof(Header), std::string(slotSize, 'x')}}, false, "", O},
      // slots of rows
      {"link's version", {slot(1, 0, 77)}, false, "", O},
      {"link to itself", {slot(1, next, 1)}, false, "duplicate slot: 1", G, "",
       "hash chain cycle detected, slotCount:65 capacity:64"},
      {"link back", {slot(2, next, 0)}, false, "duplicate slot: 0", G, "", "hash chain cycle detected"},
      {"link to a free slot", {slot(1, next, 20)}, false, "slow-path slot:20 not marked as occupied key:", G,
       "", "slot:20 not marked as occupied key:"},
      {"link to another chain", {slot(1, next, 5)}, false, "corrupt key detected, slotId: 5", G, "",
       "corrupt key detected"},
      {"link out of range", {slot(1, next, 64)}, false, "out-of-range index: 64 max:63", G, "",
       "out-of-range index:64 numSlots:64"},
      {"link over a row", {slot(0, next, 2)}, false, "mismatch header->occupiedSlots:8 count:7", G},
      {"link to the end", {slot(0, next, none)}, false, "thinks we've reached the end of the table", G, "",
       "has bucket: 0 with next bucket: 0 and numBuckets: 8"},
      {"link to another bucket", {slot(2, next, end | 3)}, false,
       "has bucket: 0 with next bucket: 3 and numBuckets: 8", G, "", "has bucket: 0 with next bucket: 3"},
      {"link to a bucket of twice the table", {slot(2, next, end | 8)}, false,
       "has bucket: 0 with next bucket: 8 and numBuckets: 8", G, "", "out-of-range, index:8 max:7"},
      {"last link begins anew", {slot(7, next, end)}, false, "duplicate slot: 0", G, "",
       "has bucket: 7 with next bucket: 0"},
      {"OCCUPIED of a head", {slot(0, flags, occupied - 1)}, false,
       "slotId: 0 from bucket: 0 not marked as occupied", G, "", "slot:0 not marked as occupied key:"},
      {"OCCUPIED behind a head", {slot(1, flags, occupied - 1)}, false,
       "slow-path slot:1 not marked as occupied key:", G, "", "slow-path slot:1 not marked as occupied key:"},
      {"LOOKASIDE of a head", {slot(5, flags, occupied + 2)}, false, "stuck LOOKASIDE bit: 0x", G, "",
       "corrupt key detected"},
      {"LOOKASIDE behind a head", {slot(1, flags, occupied + 2)}, false, "stuck LOOKASIDE bit: 0x", G, "",
       "corrupt key detected"},
      {"LOOKASIDE where the row is right", {slot(3, flags, word("slots", slotAt(3) + flags) + 2)}, false,
       "stuck LOOKASIDE bit: 0x", O},
      {"versionFlags' count", {slot(1, flags, occupied + 4)}, false, "", O},
      {"rhash of a head", {slot(0, rhash, 1)}, false,
       "corrupt rhash detected, slotId: 0 slot.rhash:00000001 rhash:00000000", G},
      {"rhash raised", {slot(1, rhash, none)}, false,
       "corrupt rhash detected, slotId: 1 slot.rhash:ffffffff rhash:8000000", G, "",
       "corrupt rhash detected, slotId: 1 slot.rhash:ffffffff rhash:08000000"},
      {"rhash lowered", {slot(1, rhash, 0)}, false, "mismatch header->occupiedSlots:8 count:7", G},
      {"key of a head", {slot(0, key, 1)}, false, "corrupt key detected, slotId: 0", G, "",
       "corrupt key detected, key:"},
      {"key behind a head", {slot(6, key, 2)}, false, "corrupt key detected, slotId: 6", G, "",
       "corrupt key detected. key:"},
      {"key, in its bucket", {slot(1, key, 32)}, false, "corrupt rhash detected, slotId: 1", G},
      {"twins exchanged", {slot(3, key + 4, 3)}, false, "rows out of order or one key twice", G},
      {"one key twice", {slot(4, key + 4, 1)}, false, "rows out of order or one key twice", G},
      {"value", {slot(1, value, 77)}, false, "", O},
      {"padding", {slot(1, 44, 77)}, false, "", O},
      // free slots
      {"free link's version", {slot(20, 0, 77)}, false, "", O},
      {"free list's loop", {slot(20, next, 10)}, false, "duplicate freeSlot detected: 10", O},
      {"free list cut", {slot(20, next, none)}, false,
       "bad slotCount:21 occupiedSlots:8 freeSlots:13 capacity:64", O},
      {"free link just out of range", {slot(20, next, 64)}, false, "out-of-range index: 64 max:63", O},
      {"free link out of range", {slot(20, next, 65)}, false,
       "corrupted free slot detected with out of bound index: 65", O},
      {"free link to a row", {slot(20, next, 2)}, false, "corrupted free slot not marked as empty: 2", O},
      {"free slot OCCUPIED", {slot(20, flags, freeWord | 1)}, false,
       "corrupted free slot not marked as empty: 20", O},
      {"free slot LOOKASIDE", {slot(20, flags, freeWord | 2)}, false, "stuck LOOKASIDE bit: 0x2", O},
      {"free slot's rest", {slot(20, rhash, 77), slot(20, key, 77), slot(20, value, 77)}, false, "", O},
      // bucket file
      {"bucket magic", {put32("buckets", 0, 0)}, false, "bad bucket magic: ", O, "bad bucket magic: "},
      {"bucket version", {put32("buckets", 8, 2)}, false, "bad bucket version: 2", O,
       "bad bucket version: 2"},
      {"bucket kestor", {put32("buckets", 12, 77)}, false, "failed to attach to existing files", O,
       "bad bucket kestor:77:0 wanted:"},
      {"numBuckets' version", {put32("buckets", 16, 99)}, false, "", O},
      {"numBuckets 0", {put32("buckets", 20, 0)}, false, "bad numBuckets: 0, wanted a power of two", O,
       "bad numBuckets: 0"},
      {"numBuckets 0, and told", {put32("buckets", 16, 99), put32("buckets", 20, 0)}, false,
       "bad numBuckets: 0", G, "bad numBuckets: 0", "numBuckets"},
      {"numBuckets 7, and told", {put32("buckets", 16, 99), put32("buckets", 20, 7)}, false,
       "bad numBuckets: 7", G, "bad numBuckets: 7", "numBuckets"},
      {"numBuckets above the file, and told", {put32("buckets", 16, 99), put32("buckets", 20, 1 << 20)},
       false, "bad bucket file size:", G, "bad bucket file size:", "bucket"},
      {"numBuckets beyond any file, and told", {put32("buckets", 16, 99), put32("buckets", 20, end)}, false,
       "bad numBuckets: 2147483648", G, "bad numBuckets: ", "numBuckets"},
      {"numBuckets doubled", {put32("buckets", 20, 16)}, false, "corrupt key detected, slotId: 2", O},
      {"numBuckets halved", {put32("buckets", 20, 4)}, false,
       "has bucket: 0 with next bucket: 4 and numBuckets: 4", O},
      {"numBuckets 1", {put32("buckets", 20, 1)}, false,
       "has bucket: 0 with next bucket: 4 and numBuckets: 1", O},
      {"head's version", {put32("buckets", entryAt(0), 77)}, false, "", O},
      {"head to a free slot", {entry(2, 20)}, false, "slotId: 20 from bucket: 2 not marked as occupied", G,
       "", "slot:20 not marked as occupied key:"},
      {"head to another chain", {entry(4, 5)}, false, "corrupt key detected, slotId: 5", G, "",
       "corrupt key detected"},
      {"head into its chain", {entry(2, 4)}, false, "mismatch header->occupiedSlots:8 count:7", G},
      {"head out of range", {entry(4, 64)}, false, "out-of-range index: 64 max:63", G, "",
       "out-of-range index:64 numSlots:64"},
      {"head at the end of the table", {entry(4, none)}, false,
       "thinks we've reached the end of the table, but we're in bucket 4 when there are numBuckets: 8", G, "",
       "has bucket: 4 with next bucket: 0"},
      {"head to another bucket", {entry(4, end | 6)}, false,
       "has bucket: 4 with next bucket: 6 and numBuckets: 8", G, "", "has bucket: 4 with next bucket: 6"},
      {"head to no bucket", {entry(4, end | 0x7ffffff)}, false,
       "has bucket: 4 with next bucket: 134217727 and numBuckets: 8", G, "",
       "has bucket: 4 with next bucket: 134217727"},
      {"bucket left out", {entry(2, end | 6)}, false, "mismatch header->occupiedSlots:8 count:6", G},
      // small files
      {"kestor file's magic", {put32("kestor", 0, 0)}, false, "failed to attach to existing files", O,
       "failed to read kestor file"},
      {"kestor file's id", {put32("kestor", 8, 77)}, false, "failed to attach to existing files", O,
       "failed to read kestor file"},
      {"kestor file's sum", {put32("kestor", 12, 0)}, false, "failed to attach to existing files", O,
       "failed to read kestor file"},
      {"owner file's magic", {put32("owner", 0, 0)}, false,
       "owner file validation failed, dumping owner file string: ", O},
      {"owner file's type", {put32("owner", 40, 0)}, false,
       "owner file validation failed, dumping owner file string: ", O},
       {"owner file, and the coming generation in the slot file",
       {put32("owner", 40, 0), header(AT(kestor), word("slots", AT(kestor)) + 0x10000)}, false,
       "re-formatted successfully", Open::reformatted, "bad kestor:"},
       // clang-format on
   };
}

TEST(Damage, EveryField) {
   for (auto const& field : fields()) {
      SCOPED_TRACE(field.name);
      Bed bed;
      auto const inside = newReader();
      ASSERT_TRUE(inside->initialize("before"));
      EXPECT_TRUE(read(*inside, soundContent(), {}).clean());
      for (auto const& change : field.changes) bed.spoil(change);
      if (field.sum) bed.sumIs();

      Seen const seen = read(*inside, soundContent(), bed.spoiled);
      EXPECT_EQ(seen.wrong, 0u) << seen.text();
      if (field.open == Open::unaware) {
         EXPECT_TRUE(seen.clean()) << seen.text();
      }
      EXPECT_EQ(seen.reformats > 0, field.open == Open::reformatted) << seen.text();
      if (*field.readerSays) {
         EXPECT_TRUE(seen.says(field.readerSays)) << seen.text();
      }
      bed.mend(field.changes);
      Seen const again = read(*inside, soundContent(), {});
      EXPECT_TRUE(again.clean()) << "mended: " << again.text();
      for (auto const& change : field.changes) bed.spoil(change);
      if (field.sum) bed.sumIs();

      auto const later = newReader();
      bool const opened = later->initialize("after");
      if (*field.refusal) {
         EXPECT_FALSE(opened);
         EXPECT_NE(later->initializeError().find(field.refusal), std::string::npos)
             << later->initializeError();
         EXPECT_NE(later->initializeError().find(Bed::at().string() + "/"), std::string::npos);
         // What can't be right is marked as damage; another type is the asker's mistake.
         std::string_view const why = field.refusal;
         EXPECT_EQ(fs::exists(Bed::at() / "corruption-detected"),
                   why.starts_with("bad ") || why.starts_with("checksum "));
      } else {
         ASSERT_TRUE(opened) << later->initializeError();
         Seen const then = read(*later, soundContent(), bed.spoiled);
         EXPECT_EQ(then.wrong, 0u) << then.text();
         if (!*field.says) {
            EXPECT_TRUE(then.clean()) << then.text();
         }
      }

      Traces traces;
      EXPECT_EQ(bed.restart(traces), "") << traces.text();
      EXPECT_EQ(bed.adopted, !*field.says) << traces.text();
      if (*field.says) {
         EXPECT_TRUE(traces.has(0, field.says) || traces.has(1, field.says)) << traces.text();
      }
      Seen const last = read(*inside, {}, {});
      if (!bed.adopted) {
         EXPECT_TRUE(last.reformats > 0 && last.errors.empty() && last.wrong == 0) << last.text();
      }
   }
}

// Whatever number stands in whatever word: no crash, no loop, no wrong row, and the writer's word holds.
TEST(Damage, EveryWord) {
   u32 adopted = 0, formatted = 0;
   auto const strike = [&](std::string const& file, u64 offset) {
      u32 const old = word(file, offset);
      for (u32 now : {0u, 1u, none, end, old + 1, old - 1, old ^ 4, old ^ 0x10000u, old * 2}) {
         if (now == old) continue;
         SCOPED_TRACE(fmt::format("{} at {}: {:#x} for {:#x}", file, offset, now, old));
         Bed bed;
         auto const inside = newReader();
         ASSERT_TRUE(inside->initialize("before"));
         bed.spoil(put32(file, offset, now));
         Seen const seen = read(*inside, soundContent(), bed.spoiled);
         EXPECT_EQ(seen.wrong, 0u) << seen.text();
         auto const later = newReader();
         if (later->initialize("after")) {
            Seen const then = read(*later, soundContent(), bed.spoiled);
            EXPECT_EQ(then.wrong, 0u) << then.text();
         }
         Traces traces;
         EXPECT_EQ(bed.restart(traces), "") << traces.text();
         ++(bed.adopted ? adopted : formatted);
      }
   };
   for (u64 at = 0; at < headerSize; at += at >= 24 && at < 524 ? 100 : 4) strike("slots", at);
   for (u32 s : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 63u})
      for (u64 at = 0; at < 28; at += 4) strike("slots", slotAt(s) + at);
   for (u64 at = 0; at < entryAt(8); at += 4) strike("buckets", at);
   for (u64 at = 0; at < 16; at += 4) strike("kestor", at);
   for (u64 at = 0; at < 664; at += at >= 36 && at < 640 ? 60 : 4) strike("owner", at);
   EXPECT_GT(adopted, 200u);
   EXPECT_GT(formatted, 200u);
}

/// Something else in a file's place.
struct Found {
   std::string file, state;
   char const* refusal; ///< to a reader, behind the file's path; null: it opens
   enum { adopted, formatted, refused } start;
};

void put(fs::path const& at, std::string const& state) {
   if (state.ends_with(" bytes")) fs::resize_file(at, std::stoul(state));
   if (state == "absent" || state == "directory" || state == "link" || state == "pipe")
      fs::rename(at, Bed::at() / "aside");
   if (state == "directory") fs::create_directory(at);
   if (state == "link") fs::create_symlink("aside", at);
   if (state == "pipe") {
      ASSERT_EQ(mkfifo(at.c_str(), 0644), 0);
   }
}

// Files of a table are trusted together or not at all.
TEST(Damage, FilesThatAreNone) {
   Found const findings[] = {
       {"slots", "absent", "no shared memory region", Found::formatted},
       {"slots", "0 bytes", "no shared memory region", Found::formatted},
       {"slots", "100 bytes", "bad header file size: 100 wanted:632", Found::formatted},
       {"slots", "3000 bytes", "bad shmem size:3000 wanted:4096 for 64 slots", Found::formatted},
       {"slots", "12288 bytes", nullptr, Found::adopted},
       {"slots", "5368709120 bytes", "bad file size", Found::formatted}, // longer than anybody can map
       {"slots", "directory", "bad header file size: ", Found::refused},
       {"slots", "link", "bad header file size: ", Found::refused},
       {"slots", "pipe", "no shared memory region", Found::refused},
       {"buckets", "absent", "no shared memory region", Found::formatted},
       {"buckets", "0 bytes", "no shared memory region", Found::formatted},
       {"buckets", "20 bytes", "bad bucket file size:20 wanted:24", Found::formatted},
       {"buckets", "64 bytes", "bad bucket file size:64 wanted:88 for 8 buckets", Found::formatted},
       {"buckets", "12288 bytes", nullptr, Found::adopted},
       {"buckets", "5368709120 bytes", nullptr, Found::adopted},
       {"buckets", "directory", "", Found::refused},
       {"buckets", "link", "", Found::refused},
       {"buckets", "pipe", "", Found::refused},
       {"kestor", "absent", "absent or unreadable", Found::formatted},
       {"kestor", "0 bytes", "absent or unreadable", Found::formatted},
       {"kestor", "15 bytes", "absent or unreadable", Found::formatted},
       {"kestor", "17 bytes", "absent or unreadable", Found::formatted},
       {"kestor", "directory", "absent or unreadable", Found::refused},
       {"kestor", "link", "absent or unreadable", Found::refused},
       {"kestor", "pipe", "absent or unreadable", Found::refused},
       {"owner", "absent", nullptr, Found::formatted},
       {"owner", "0 bytes", nullptr, Found::formatted},
       {"owner", "663 bytes", nullptr, Found::formatted},
       {"owner", "directory", nullptr, Found::refused},
       {"owner", "link", nullptr, Found::refused},
   };
   for (auto const& [file, state, refusal, start] : findings) {
      SCOPED_TRACE(file + " " + state);
      Bed bed;
      fs::path const at = Bed::at() / file;
      put(at, state);
      auto const reader = newReader();
      EXPECT_EQ(reader->initialize("test"), !refusal) << reader->initializeError();
      if (refusal) {
         EXPECT_NE(reader->initializeError().find(at.string() + ": " + refusal), std::string::npos)
             << reader->initializeError();
         bool found = true;
         reader->lookup(rowKeys[0], found, nullptr);
         EXPECT_FALSE(found);
         EXPECT_EQ(reader->capacity() + reader->buckets() + reader->kestorId().value(), 0u);
         auto const held = reader->readerCounters();
         EXPECT_EQ(held.slotBytesMapped + held.buckets.bytesMapped, 0u);
      }
      Traces traces;
      std::string said;
      try {
         said = bed.restart(traces);
      } catch (Lomi::Exception const& e) {
         EXPECT_EQ(start, Found::refused) << e.what();
         EXPECT_NE(std::string(e.what()).find(file), std::string::npos) << e.what();
         continue;
      }
      EXPECT_EQ(said, "") << traces.text();
      EXPECT_EQ(start, bed.adopted ? Found::adopted : Found::formatted);
   }
}

} // namespace
} // namespace Test
