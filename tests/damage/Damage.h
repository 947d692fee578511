// SPDX-License-Identifier: Apache-2.0
// A small table of known shape, damage to its bytes, and what everybody may say then: a reader that has the
// files open, one that opens them afterwards, and the next writer.
//
// The table: 8 buckets, 8 rows; keys carry their own hashes, so the chains are
//
//   bucket 0: slots 0, 1, 2 -> 4   2: slots 3, 4 (equal hashes) -> 6   1: slots 5, 6 -> 5   7: slot 7, end of
//   the table 4, 6, 5, 3: empty              free slots 8 to 63, in this order. `lookaside` holds the row of
//   slot 3
#pragma once

#include "Fixture.h"

#include "Mirak/MirakReader.h"

#include <cstddef>
#include <set>

namespace Test {

namespace fs = std::filesystem;

using R = Row<5>; // 28 bytes: a 4-byte tail, and padding behind it
using Writer = WriterOf<R>;
using Reader = Mirak::MirakReader<OpsOf<R>>;
using Header = Mirak::SlotTableHeader;

constexpr u32 slotSize = sizeof(Writer::Slot);
constexpr u32 headerSize = sizeof(Header) + slotSize;
static_assert(slotSize == 48);
constexpr u32 slotAt(u32 index) { return headerSize + index * slotSize; }
constexpr u32 entryAt(u32 bucket) { return 24 + 8 * bucket; }

inline std::vector<Key> const rowKeys = {{0, 1}, {16, 1}, {8, 1}, {2, 1}, {2, 2}, {1, 1}, {9, 1}, {7, 1}};
inline std::vector<Key> const absentKeys = {{24, 1}, {2, 3}, {4, 1}, {15, 1}, {0, 0}};

/// Bytes changed in one file.
struct Change {
   std::string file;
   u64 offset;
   std::string bytes;
};
inline Change put32(std::string file, u64 offset, u32 value) {
   return {std::move(file), offset, std::string(reinterpret_cast<char const*>(&value), 4)};
}

using Files = std::map<std::string, std::string>;

inline Mirak::MapDescriptor const& small() {
   static Mirak::MapDescriptor const descriptor(50);
   return descriptor;
}

/// The sound table's files.
inline Files const& soundFiles() {
   static Files const files = [] {
      auto writer = open<R>("sound", small(), quiet());
      R removed;
      while (writer->buckets() > 8) {
         writer->write(R::make({0, 0}, 1), true);
         writer->remove({0, 0}, removed);
      }
      for (u32 i = 0; i < rowKeys.size(); ++i) writer->write(R::make(rowKeys[i], i), true);
      writer->write(R::make(rowKeys[3], 3), true);
      if (writer->buckets() != 8 || writer->capacity() != 64) std::abort();
      writer.reset();
      Files all;
      for (auto const& entry : fs::directory_iterator(testRoot() + "/sound")) {
         std::ifstream in(entry.path(), std::ios::binary);
         all[entry.path().filename()] = std::string(std::istreambuf_iterator<char>(in), {});
      }
      return all;
   }();
   return files;
}

inline u32 word(std::string const& file, u64 offset) {
   u32 value;
   std::memcpy(&value, soundFiles().at(file).data() + offset, 4);
   return value;
}

inline Content soundContent() {
   Content content;
   for (u32 i = 0; i < rowKeys.size(); ++i) content[rowKeys[i]] = i;
   return content;
}

/// Ends an operation that goes on for ever: each loop over shared words loads.
class Bounded final : public Mem::Seam::Observer {
public:
   explicit Bounded(u64 loads)
      : left_(loads) {
      Mem::Seam::observer = this;
   }
   ~Bounded() override { Mem::Seam::observer = nullptr; }
   void beforeLoad(void const*, std::size_t) override {
      if (left_-- == 0) throw std::logic_error("endless loop");
   }

private:
   u64 left_;
};

/// What a reader made of a table.
struct Seen {
   u32 wrong = 0;     ///< rows that are not in the table, or twice in a walk: never allowed
   u32 missed = 0;    ///< rows that it did not find
   u32 reformats = 0; ///< operations that said that the table was formatted anew
   std::set<std::string> errors;
   bool clean() const { return wrong == 0 && missed == 0 && reformats == 0 && errors.empty(); }
   bool says(std::string_view text) const {
      return std::any_of(errors.begin(), errors.end(),
                         [&](std::string const& error) { return error.find(text) != std::string::npos; });
   }
   std::string text() const {
      return fmt::format("wrong:{} missed:{} reformats:{} errors:{}", wrong, missed, reformats,
                         fmt::join(errors, "; "));
   }
};

/// Rows whose own bytes were changed. Nobody can tell a changed value from a right one, so as it stands now
/// such a row is right, too.
struct Spoiled {
   std::vector<R> rows;
   std::set<u64> lost; ///< ids of the keys that they had
   bool is(R const& row) const {
      return std::any_of(rows.begin(), rows.end(),
                         [&](R const& other) { return !std::memcmp(&row, &other, sizeof row); });
   }
};

/// Looks every key up and walks the table, with hints and without.
inline Seen read(Reader& reader, Content const& content, Spoiled const& spoiled) {
   Seen seen;
   auto const right = [&](R const& row) {
      auto const wanted = content.find(row.key());
      return (wanted != content.end() && wanted->second == row.generation() && row.sound()) ||
             spoiled.is(row);
   };
   auto const guarded = [&](auto&& act) {
      Bounded const bound(20000);
      try {
         act();
      } catch (Mirak::TableReformattedException const&) {
         ++seen.reformats;
      } catch (Lomi::CorruptionDetectedException const& e) {
         seen.errors.insert(e.what());
      } catch (Lomi::MemoryResourceException const& e) {
         seen.errors.insert(e.what());
      }
   };
   for (auto const& keys : {rowKeys, absentKeys})
      for (Key key : keys)
         guarded([&] {
            bool found;
            R buffer;
            R const* const row = reader.lookup(key, found, &buffer);
            if (found && (row->key() != key || !right(*row))) ++seen.wrong;
            if (!found && content.count(key) && !spoiled.lost.count(key.id())) ++seen.missed;
         });
   for (bool hinted : {true, false})
      guarded([&] {
         R row;
         Mirak::IterHint hint;
         std::set<u64> met;
         std::optional<Key> last;
         for (bool more = reader.first(row, hint); more; more = reader.next(row.key(), row, hint)) {
            bool const ascends = !last || before(*last, row.key(), 0) || !spoiled.rows.empty();
            // A changed key may be that of another row, which the walk meets in its own right.
            bool const again = !spoiled.is(row) && !met.insert(row.key().id()).second;
            if (!right(row) || !ascends || again) ++seen.wrong;
            last = row.key();
            if (!hinted) hint = {};
         }
         for (auto const& [key, generation] : content)
            seen.missed += !met.count(key.id()) && !spoiled.lost.count(key.id());
      });
   return seen;
}

inline std::unique_ptr<Reader> newReader() {
   return std::make_unique<Reader>(quiet(), "damaged", OpsOf<R>{});
}

/// One directory with the table in it, sound at first.
class Bed {
public:
   Bed() {
      soundFiles();
      fs::remove_all(at());
      fs::create_directories(at());
      for (auto const& [name, bytes] : soundFiles()) std::ofstream(at() / name, std::ios::binary) << bytes;
   }
   static fs::path at() { return testRoot() + "/damaged"; }

   /// In place, as a stray store would do it.
   void spoil(Change const& change) {
      std::fstream out(at() / change.file, std::ios::in | std::ios::out | std::ios::binary);
      out.seekp(static_cast<std::streamoff>(change.offset));
      out.write(change.bytes.data(), static_cast<std::streamsize>(change.bytes.size()));
      if (change.file != "slots") return;
      out.flush();
      for (u32 i = 0; i < rowKeys.size(); ++i) {
         u64 const row = slotAt(i) + 16;
         if (change.offset >= row + sizeof(R) || change.offset + change.bytes.size() <= row) continue;
         R now;
         out.seekg(static_cast<std::streamoff>(row));
         out.read(reinterpret_cast<char*>(&now), sizeof now);
         spoiled.rows.push_back(now);
         spoiled.lost.insert(rowKeys[i].id());
      }
   }
   /// Puts back what was there.
   void mend(std::vector<Change> const& changes) {
      for (auto const& [file, offset, bytes] : changes)
         spoil({file, offset, soundFiles().at(file).substr(offset, bytes.size())});
      spoiled = {};
   }
   /// The checksum of the slot header as it stands now.
   void sumIs() {
      std::fstream file(at() / "slots", std::ios::in | std::ios::out | std::ios::binary);
      Header header;
      file.read(reinterpret_cast<char*>(&header), sizeof header);
      header.hash = header.checksum();
      file.seekp(0);
      file.write(reinterpret_cast<char const*>(&header), sizeof header);
   }

   /// Starts a writer on what is there, and holds it to its word: it keeps every row whose bytes were left
   /// alone, or formats the table and says so, and works from then on. Empty if so.
   std::string restart(Traces const& traces) {
      std::unique_ptr<Writer> writer;
      Bounded const bound(2'000'000);
      writer = open<R>("damaged", small());
      adopted = !traces.has(1, "will be lost");
      if (adopted && writer->members() != rowKeys.size()) return fmt::format("members:{}", writer->members());
      if (!adopted && writer->members() != 0) return "rows in a formatted table";
      bool found;
      if (adopted)
         for (u32 i = 0; i < rowKeys.size(); ++i)
            if (!spoiled.lost.count(rowKeys[i].id())) {
               auto const* row = writer->lookup(rowKeys[i], found, nullptr);
               if (!found || row->generation() != i || !row->sound()) return "lost " + rowKeys[i].str();
            }
      if (fs::exists(at() / "corruption-detected")) return "marker is left";
      R row;
      Mirak::IterHint hint;
      while (writer->first(row, hint)) writer->remove(Key(row.key()), row);
      Content content;
      for (u32 i = 0; i < 100; ++i) writer->write(R::make({i * 7, i}, content[{i * 7, i}] = i), true);
      return difference<R>(*writer, content, rowKeys);
   }

   Spoiled spoiled;
   bool adopted = false; ///< by the last restart
};

} // namespace Test
