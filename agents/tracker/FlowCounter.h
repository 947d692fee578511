// SPDX-License-Identifier: Apache-2.0
// Counts the packets of one family into one table, so that its rows are exact however often the tracker is
// killed.
//
// The promise: when a tracker ends, the table holds the rows of exactly the packets that its capture gave,
// each counted once, whatever was killed before it and whatever the table held.
//
// How. Each packet of the family adds 1 to `packets` of exactly one row, packets are applied in the capture's
// order, and a row is stored whole or not at all: a writer that is killed inside the store leaves either the
// old or the new row, or a table that the next writer finds half done and formats anew, empty. So at every
// moment, at every store, the table is the result of the first k packets of the family, and k is the sum of
// `packets` over its rows. The mark of progress and the row are one store; nothing can fall between them. No
// word beside the table is needed, and a table that came back empty simply has k = 0, whatever the other
// family's table says.
//
// At start the counter takes that k, but believes nothing: the table may hold another capture, or rows that
// someone else changed. It recounts the first k packets of the family in private memory. If every row then
// equals its row in the table, times included, and the table has no row more, the table is what this capture
// gives, and counting goes on in the table from packet k + 1. Running a tracker again on a counted capture
// therefore changes nothing, and on a capture that has grown it adds the rest. If anything differs, the
// table's rows are removed, the recounted rows are stored, and counting goes on from there. Killed in that,
// the table is no beginning of this capture or of any other (or it is, and then that is right): the next
// start finds out by the same rule.
//
// The recount takes memory for the flows of those k packets, once per start; counting takes none.
//
// All this is for packets that come again at each start. Those of an interface don't: there the rows that are
// found are believed, and counting goes on in them.
//
// Used on one thread, the one that owns the table.
#pragma once

#include "RowStore.h"
#include "SeededHash.h"
#include "Zeb/Seconds.h"

#include <cstdint>
#include <unordered_map>

namespace Tracker {

template <class Record> class FlowCounter {
public:
   using Key = typename Record::Key;

   /// @param live the packets are new ones at each start
   explicit FlowCounter(Agents::RowStore<Record>& table, bool live = false)
      : table_(table) {
      std::uint64_t foundBytes = 0;
      table_.forEach([&](Record const& row) { found_ += row.packets(), foundBytes += row.bytes(); });
      foundRows_ = table_.rows();
      if (live)
         packets_ = kept_ = found_, bytes_ = foundBytes;
      else
         recounting_ = foundRows_ != 0;
   }

   /// Counts one packet. Packets come in the capture's order.
   void count(Key const& key, std::uint64_t bytes, Zeb::Seconds time) {
      ++packets_;
      bytes_ += bytes;
      if (recounting_) [[unlikely]]
         return recount(key, bytes, time);
      Record row(key);
      bool const known = table_.read(key, row);
      add(row, known, bytes, time);
      table_.write(row);
      ++stores_;
   }

   /// To be called once all packets of the capture were given: a table that holds more than they amount to
   /// is none of this capture's.
   void finish() {
      if (recounting_) startOver();
   }

   /// Of this capture so far; once `finish` was called they are also what the table holds. Of an interface
   /// what the table holds.
   std::uint64_t packets() const { return packets_; }
   std::uint64_t bytes() const { return bytes_; }
   std::uint64_t rows() const { return table_.rows(); }
   /// Packets that an earlier run had counted and that were taken over.
   std::uint64_t packetsKept() const { return kept_; }
   /// Rows that were removed because this capture doesn't account for them.
   std::uint64_t rowsRemoved() const { return removed_; }
   /// Rows stored by this run.
   std::uint64_t stores() const { return stores_; }

private:
   static void add(Record& row, bool known, std::uint64_t bytes, Zeb::Seconds time) {
      if (!known) row.createTimeIs(time);
      row.updateTimeIs(time);
      row.packetsInc(1);
      row.bytesInc(bytes);
   }

   void recount(Key const& key, std::uint64_t bytes, Zeb::Seconds time) {
      auto const [place, isNew] = expected_.try_emplace(key, key);
      add(place->second, !isNew, bytes, time);
      Record row(key);
      // A row that is missing or began at another time settles it at the first packet, for most foreign
      // captures.
      if (isNew && (!table_.read(key, row) || row.createTime() != time)) return startOver();
      if (packets_ < found_) return;
      if (packets_ > found_ || !proven()) return startOver();
      kept_ = packets_;
      stopRecounting();
   }

   bool proven() const {
      if (expected_.size() != table_.rows()) return false;
      for (auto const& [key, wanted] : expected_) {
         Record row(key);
         if (!table_.read(key, row) || !(row == wanted)) return false;
      }
      return true;
   }

   void startOver() {
      removed_ = foundRows_;
      table_.removeAll();
      for (auto const& [key, row] : expected_) {
         table_.write(row);
         ++stores_;
      }
      stopRecounting();
   }

   void stopRecounting() {
      recounting_ = false;
      decltype(expected_)().swap(expected_);
   }

   Agents::RowStore<Record>& table_;
   std::uint64_t packets_ = 0, bytes_ = 0, stores_ = 0, kept_ = 0, removed_ = 0;
   // Of the start: what the table held, and its recount.
   std::uint64_t found_ = 0, foundRows_ = 0;
   bool recounting_ = false;
   std::unordered_map<Key, Record, Agents::SeededHash<Key>> expected_;
};

} // namespace Tracker
