// SPDX-License-Identifier: Apache-2.0
// One template over the table policies, and the list of the seven. See Table.h.
#include "Table.h"

#include "Files.h"
#include "FlowTracking/Tables.h"
#include "Lomi/Util.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <thread>

namespace Tool {

using Mem::u32;

namespace {

template <class Ops> class TableOf final : public Table {
   using Key = typename Ops::Key;
   using Value = typename Ops::Value;

public:
   explicit TableOf(std::string name)
      : Table(std::move(name)) {}

   Schema const& schema() const override { return schemaOf<Value>(); }

   void const* first() override {
      hint_ = {};
      walked_ = 0;
      return present(reader_->first(row_, hint_));
   }
   void const* next() override {
      last_ = row_.fwkKey();
      lastRhash_ = Lomi::Util::reverse(hash());
      return present(reader_->next(last_, row_, hint_));
   }
   void const* lookup(std::span<Cell const> key) override {
      bool found = false;
      reader_->lookup(keyOf<Key>(key), found, &found_);
      return found ? &found_ : nullptr;
   }
   bool findsPresent() override {
      bool found = false;
      reader_->lookup(row_.fwkKey(), found, &found_);
      return found;
   }
   u32 hash() const override { return ops_.hash(row_.fwkKey()); }
   bool inOrder() const override {
      if (walked_ < 2) return true;
      u32 const rhash = Lomi::Util::reverse(hash());
      return lastRhash_ < rhash || (lastRhash_ == rhash && last_ < row_.fwkKey());
   }

   u32 members() const override { return reader_->members(); }
   u32 buckets() const override { return reader_->buckets(); }
   Mirak::Reader::Counters counters() const override { return reader_->readerCounters(); }
   bool filesReplaced() const override { return reader_->filesReplaced(); }

private:
   void const* present(bool more) {
      walked_ += more;
      return more ? &row_ : nullptr;
   }
   bool attach(std::string& error) override {
      reader_.emplace(quietHandler(), name(), Ops());
      reader_->corruptionMarkerIs(false);
      if (!reader_->initialize("tool")) {
         error = reader_->initializeError();
         return false;
      }
      ops_.keyOps.hashSeed = reader_->headerCopy().hashSeed;
      return true;
   }
   void detach() override {
      if (reader_) reader_->detach(false);
   }

   Ops ops_;
   std::optional<Mirak::MirakReader<Ops>> reader_;
   Value row_, found_;
   Mirak::IterHint hint_;
   Key last_{};
   u32 lastRhash_ = 0;
   std::uint64_t walked_ = 0;
};

template <class Ops> TypeFacts factsOf() {
   using Layout = Mirak::SlotTable<Ops>;
   return {Ops::Value::typeName,
           Layout::headerSize,
           Layout::slotSize,
           &schemaOf<typename Ops::Value>,
           [](Mirak::SlotTableHeader const& header) { return Layout::typeMismatch(header); },
           [](std::string name) -> std::unique_ptr<Table> {
              return std::make_unique<TableOf<Ops>>(std::move(name));
           }};
}

template <class... Ops> std::array<TypeFacts, sizeof...(Ops)> allFacts() { return {factsOf<Ops>()...}; }

} // namespace

TypeFacts const* typeNamed(std::string_view valueType) {
   using namespace FlowTracking;
   static auto const all =
       allFacts<HoIpFlowConfigOps, HoIp6FlowConfigOps, HoIpFlowStatusOps, HoIp6FlowStatusOps,
                HoIpFlowCounterOps, HoIp6FlowCounterOps, HosStateCounterOps>();
   auto const at = std::find_if(all.begin(), all.end(),
                                [&](TypeFacts const& facts) { return facts.valueType == valueType; });
   return at == all.end() ? nullptr : &*at;
}

void Table::reopen() {
   using namespace std::chrono_literals;
   // A writer that starts, or formats the table anew, is through in a moment; but it may do so again.
   for (int attempt = 0;; ++attempt) {
      detach();
      std::string error;
      if (attach(error)) return;
      Inspection const seen = inspect(name_);
      if (seen.state != State::ok) throw seen.failure();
      if (seen.type->schema().valueType != schema().valueType)
         throw Failure{Exit::incomplete, fmt::format("{}: now holds {}", seen.path, seen.type->valueType),
                       "the table was replaced by one of another type; ask again"};
      if (attempt == 10) throw Failure{Exit::cantOpen, error, "the table changes all the time; try again"};
      std::this_thread::sleep_for(20ms);
   }
}

std::unique_ptr<Table> openTable(std::string const& name) {
   Inspection const seen = inspect(name);
   if (seen.state != State::ok) throw seen.failure();
   auto table = seen.type->make(name);
   table->reopen();
   return table;
}

} // namespace Tool
