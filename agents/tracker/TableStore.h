// SPDX-License-Identifier: Apache-2.0
// A RowStore on a shared table: opens the table's writer side and hands rows through. While it lives this
// process is the table's one writer; its files stay when it ends.
#pragma once

#include "FlowCounter.h"
#include "FlowTracking/Tables.h"
#include "Lomi/Trace.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Tracker {

/// Listens to the library's traces while a table is opened; they don't go to stderr then.
class OpeningWords {
public:
   explicit OpeningWords(Lomi::Platform::DebugHandler& handler)
      : handler_(handler) {
      handler_.maskIs(0b11);
      Lomi::Platform::traceSinkIs([this](unsigned level, auto, auto, std::string_view text) {
         lost_ |= text.starts_with("all entries from ");
         if (first_.empty() && (level == 0 || text.starts_with("owner file "))) first_ = text;
      });
   }
   ~OpeningWords() {
      Lomi::Platform::traceSinkIs({});
      handler_.maskIs(0b1);
   }
   OpeningWords(OpeningWords const&) = delete;
   OpeningWords& operator=(OpeningWords const&) = delete;
   /// What was wrong with a table that was found and had to be formatted anew, else nothing.
   std::string lost() const { return lost_ ? first_ : std::string(); }

private:
   Lomi::Platform::DebugHandler& handler_;
   bool lost_ = false;
   std::string first_;
};

/// Rows that a tracker's table is laid out for; above it the table grows by tenths instead of doubling.
constexpr unsigned tableSize = 1u << 20;

template <class Record, class Ops> class TableStore final : public RowStore<Record> {
public:
   using typename RowStore<Record>::Key;
   using Value = typename Ops::Value;

   /// @param path of the table below the root
   /// @throws Lomi::InvalidInitializeException: another tracker writes it, or its files can't be made
   ///         Lomi::MemoryResourceException: no room
   explicit TableStore(std::string const& path)
      : handler_(Lomi::Platform::getDebugHandler("Tracker", true))
      , writer_(*handler_, path.c_str(), Mirak::MapDescriptor(tableSize)) {
      OpeningWords const words(*handler_);
      writer_.initialize("hoflow-tracker");
      lost_ = words.lost();
   }

   /// Why the table came back without the rows that an earlier writer left, else nothing.
   std::string const& lost() const { return lost_; }

   bool read(Key const& key, Record& row) const override {
      bool found = false;
      auto const* const value = writer_.lookup(key, found, nullptr);
      if (found) row = *value;
      return found;
   }
   void write(Record const& row) override { writer_.write(Value(row), true); }
   std::uint64_t rows() const override { return writer_.members(); }

   void forEach(std::function<void(Record const&)> const& visit) const override {
      Value value;
      Mirak::IterHint hint;
      for (bool more = writer_.first(value, hint); more;) {
         visit(value);
         Key const key = value.key();
         more = writer_.next(key, value, hint);
      }
   }

   void removeAll() override {
      std::vector<Key> keys;
      keys.reserve(rows());
      forEach([&](Record const& row) { keys.push_back(row.key()); });
      Value removed;
      for (Key const& key : keys) writer_.remove(key, removed);
   }

private:
   std::shared_ptr<Lomi::Platform::DebugHandler> handler_;
   Mirak::MirakWriter<Ops> writer_;
   std::string lost_;
};

using Ip4Store = TableStore<FlowTracking::HoIpFlowCounter, FlowTracking::HoIpFlowCounterOps>;
using Ip6Store = TableStore<FlowTracking::HoIp6FlowCounter, FlowTracking::HoIp6FlowCounterOps>;

} // namespace Tracker
