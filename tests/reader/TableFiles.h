// SPDX-License-Identifier: Apache-2.0
// A table's files, made byte by byte from the layout and without the code under test: header words at their
// offsets, chains in table order, links, checksum. So a reader that finds its rows here agrees with the
// layout, not only with the writer. Words can be changed afterwards, also under an open reader.
#pragma once

#include "Parcel/KestorFile.h"
#include "Scratch.h"
#include "TestTable.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <vector>

using Test::Key;
using Test::u32;
using Test::u64;
using Row = Test::Row<9>; // 44 bytes: not a multiple of 8
using Ops = Test::OpsOf<Row>;
using Reader = Mirak::MirakReader<Ops>;

namespace Layout {
inline constexpr u32 slotSize = 64; // 16 + 44, rounded up to 8
inline constexpr u32 headerSize = 584 + slotSize;
inline constexpr u32 kestor = 12, valueType = 20, valueSize = 532, maxSlots = 540, hash = 548, occupied = 552,
                     freeSlots = 556, mostSlots = 560, hashSeed = 564, numSlotsVersion = 568, numSlots = 572,
                     scratchpad = 576, lookaside = 584;
inline constexpr u32 linkNext = 4, word = 8, rhash = 12, value = 16;
inline constexpr u32 bucketKestor = 12, bucketVersion = 16, bucketCount = 20, heads = 24;
inline u32 slot(u32 index) { return headerSize + index * slotSize; }
inline u32 head(u32 bucket) { return heads + 8 * bucket; }
} // namespace Layout

inline u32 reversed(u32 word, u32 bits = 32) {
   u32 out = 0;
   for (u32 i = 0; i < bits; ++i)
      if (word >> i & 1) out |= 1u << (bits - 1 - i);
   return out;
}

class TableFiles {
public:
   static constexpr u32 id = 0x00070123; // "291:7"
   static constexpr u32 seed = 0x5eed;

   /// Rows go into slots 0, 1, ... in the order given.
   TableFiles(std::vector<Row> rows, u32 capacity, u32 buckets)
      : rows_(std::move(rows))
      , slots_((Layout::headerSize + capacity * Layout::slotSize + 4095) / 4096 * 4096)
      , buckets_(Layout::heads + 8 * buckets) {
      writeHeaders(capacity, buckets);
      for (u32 i = 0; i < capacity; ++i) {
         u32 const at = Layout::slot(i);
         set(slots_, at, 4);
         set(slots_, at + Layout::linkNext, i + 1 < capacity ? i + 1 : 0xffffffff); // on the free list
         if (i >= rows_.size()) continue;
         set(slots_, at + Layout::word, 5); // written once, occupied
         set(slots_, at + Layout::rhash, reversed(rows_[i].key().hash(seed)));
         std::memcpy(&slots_[at + Layout::value], &rows_[i], sizeof(Row));
      }
      chain(buckets);
      store();
   }

   std::string path(char const* file) const { return directory().str() + "/" + file; }
   Mem::NaoRootPath directory() const { return scratch_.table(); }
   std::vector<Row> const& rows() const { return rows_; }
   /// The slots of the rows in table order.
   std::vector<u32> const& order() const { return order_; }

   u32 slotWord(u32 at) const { return get("slots", at); }
   u32 bucketWord(u32 at) const { return get("buckets", at); }
   void slotWordIs(u32 at, u32 value) const { put("slots", at, value); }
   void bucketWordIs(u32 at, u32 value) const { put("buckets", at, value); }
   /// Makes the header's checksum right again.
   void checksumIs() const {
      unsigned char bytes[584];
      std::ifstream(path("slots"), std::ios::binary).read(reinterpret_cast<char*>(bytes), sizeof bytes);
      slotWordIs(Layout::hash, checksum(bytes));
   }
   void kestorFileIs(Parcel::KestorId kestor) const {
      Parcel::KestorFile(handler(), directory(), false).write(kestor);
   }
   void removeKestorFile() const { Parcel::KestorFile(handler(), directory(), false).remove(); }
   bool marked() const { return std::filesystem::exists(path("corruption-detected")); }

private:
   using Bytes = std::vector<unsigned char>;
   static void set(Bytes& bytes, u32 at, u32 value) {
      for (u32 i = 0; i < 4; ++i) bytes.at(at + i) = static_cast<unsigned char>(value >> 8 * i);
   }
   static u32 checksum(unsigned char const* header) {
      u32 sum = 0x811c9dc5;
      auto const mix = [&](u32 at, u32 length) {
         for (u32 i = 0; i < length; ++i) sum = (sum ^ header[at + i]) * 0x01000193u;
      };
      mix(20, 512);
      mix(532, 4);
      mix(536, 4);
      mix(540, 4);
      mix(544, 2);
      mix(564, 4);
      return sum;
   }
   void writeHeaders(u32 capacity, u32 buckets) {
      std::memcpy(&slots_[0], "MIRAKSLT", 8);
      set(slots_, 8, 24);
      set(slots_, Layout::kestor, id);
      set(slots_, 16, 1);
      std::strcpy(reinterpret_cast<char*>(&slots_[Layout::valueType]), Row::typeName);
      set(slots_, Layout::valueSize, sizeof(Row));
      set(slots_, 536, Layout::slotSize);
      set(slots_, Layout::maxSlots, 1000);
      set(slots_, Layout::occupied, static_cast<u32>(rows_.size()));
      set(slots_, Layout::freeSlots, rows_.size() < capacity ? static_cast<u32>(rows_.size()) : 0xffffffff);
      set(slots_, Layout::mostSlots, capacity);
      set(slots_, Layout::hashSeed, seed);
      set(slots_, Layout::numSlotsVersion, 3);
      set(slots_, Layout::numSlots, capacity);
      set(slots_, Layout::hash, checksum(slots_.data()));
      set(slots_, Layout::lookaside + Layout::linkNext, 0xffffffff);
      std::memcpy(&buckets_[0], "MIRAKBKT", 8);
      set(buckets_, 8, 1);
      set(buckets_, Layout::bucketKestor, id);
      set(buckets_, Layout::bucketVersion, 9);
      set(buckets_, Layout::bucketCount, buckets);
   }
   void chain(u32 buckets) {
      for (u32 i = 0; i < rows_.size(); ++i) order_.push_back(i);
      std::sort(order_.begin(), order_.end(),
                [&](u32 a, u32 b) { return Test::before(rows_[a].key(), rows_[b].key(), seed); });
      u32 bits = 0;
      while (1u << bits < buckets) ++bits;
      std::size_t at = 0;
      for (u32 place = 0; place < buckets; ++place) {
         u32 const bucket = reversed(place, bits);
         u32 const next = place + 1 < buckets ? 0x80000000 | reversed(place + 1, bits) : 0xffffffff;
         Bytes* file = &buckets_;
         u32 link = Layout::head(bucket);
         for (; at < order_.size() && rows_[order_[at]].key().hash(seed) % buckets == bucket; ++at) {
            set(*file, link, 8);
            set(*file, link + Layout::linkNext, order_[at]);
            file = &slots_;
            link = Layout::slot(order_[at]);
         }
         set(*file, link, 8);
         set(*file, link + Layout::linkNext, next);
      }
   }
   void store() const {
      directory().makeDirectories();
      auto const write = [](std::string const& file, Bytes const& bytes) {
         std::ofstream(file, std::ios::binary)
             .write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
      };
      write(path("slots"), slots_);
      write(path("buckets"), buckets_);
      kestorFileIs(Parcel::KestorId(id));
   }
   u32 get(char const* file, u32 at) const {
      unsigned char bytes[4] = {};
      std::ifstream in(path(file), std::ios::binary);
      in.seekg(at);
      in.read(reinterpret_cast<char*>(bytes), 4);
      return bytes[0] | bytes[1] << 8u | bytes[2] << 16u | u32{bytes[3]} << 24u;
   }
   void put(char const* file, u32 at, u32 value) const {
      Bytes bytes(4);
      set(bytes, 0, value);
      std::fstream out(path(file), std::ios::binary | std::ios::in | std::ios::out);
      out.seekp(at);
      out.write(reinterpret_cast<char const*>(bytes.data()), 4);
   }

   Scratch scratch_;
   std::vector<Row> rows_;
   Bytes slots_, buckets_;
   std::vector<u32> order_;
};

/// Rows whose hashes are 0, 1, 2, ... times `step`, then `equal` rows that share the last hash.
inline std::vector<Row> someRows(u32 count, u32 step = 1, u32 equal = 0) {
   std::vector<Row> rows;
   for (u32 i = 0; i < count; ++i) rows.push_back(Row::make({i * step, 0}, 1));
   for (u32 i = 1; i <= equal; ++i) rows.push_back(Row::make({(count - 1) * step, i}, 1));
   return rows;
}

/// The whole walk's keys, at most `limit` of them; what it throws passes.
inline std::vector<Key> walked(Reader const& reader, std::size_t limit = 100000) {
   std::vector<Key> keys;
   Row row;
   Mirak::IterHint hint;
   for (bool more = reader.first(row, hint); more && keys.size() < limit;
        more = reader.next(row.key(), row, hint))
      keys.push_back(row.key());
   return keys;
}
