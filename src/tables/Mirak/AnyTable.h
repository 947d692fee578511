// SPDX-License-Identifier: Apache-2.0
// Tables whose rows' type is known at run time only, for programs that take any table: a row is a pointer,
// and what it holds is found by its type's name in the registry (Zeb/Registry.h). Each is a reader or a
// writer of its own and nothing more; who knows the type uses MirakReader and MirakWriter themselves. Tables
// that are followed are in AnyFollower.h.
//
// One thread an object. A pointer to a row is good until the next call.
#pragma once

#include "Lomi/Util.h"
#include "Mirak/AnyFollower.h"
#include "Mirak/MirakReader.h"
#include "Mirak/MirakWriter.h"
#include "Mirak/SlotTable.h"

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Mirak {

class AnyReader {
public:
   AnyReader() = default;
   AnyReader(AnyReader const&) = delete;
   AnyReader& operator=(AnyReader const&) = delete;
   virtual ~AnyReader() = default;

   /// Opens what the table's path names now, in place of what was open. Leaves no marker where it finds
   /// damage.
   /// @return false with the reason in `error`
   virtual bool open(std::string& error) = 0;

   /// Null means "no (more) row". @throws as MirakReader
   virtual void const* first() = 0;
   virtual void const* next() = 0;
   /// Doesn't disturb a walk.
   virtual void const* lookup(void const* key) = 0;
   /// Looks the walk's present row up by its key.
   virtual bool findsPresent() = 0;
   /// Of the walk's present row: its key's hash, and whether the row comes behind the one before it.
   virtual u32 hash() const = 0;
   virtual bool inOrder() const = 0;

   virtual u32 members() const = 0;
   virtual u32 buckets() const = 0;
   virtual Reader::Counters counters() const = 0;
   virtual bool filesReplaced() const = 0;
};

class AnyWriter {
public:
   AnyWriter() = default;
   AnyWriter(AnyWriter const&) = delete;
   AnyWriter& operator=(AnyWriter const&) = delete;
   /// Lets the table go; its files stay.
   virtual ~AnyWriter() = default;

   /// Claims the table, adopts or formats it. @throws as MirakWriter::initialize
   virtual void open() = 0;

   /// Stores a row, over the one with its key if there is one. @throws as MirakWriter::write
   virtual void write(void const* row) = 0;
   /// Removes the row that `row` has the key of.
   virtual void remove(void const* row) = 0;
   virtual void const* first() = 0;
   virtual void const* next() = 0;
   virtual u32 members() const = 0;
};

/// What there is to know of a table before one of its type is open.
struct TableType {
   std::string_view valueType; ///< as in the slot file's header and in the registry
   u32 headerSize, slotSize;
   bool hasChangeQueue;
   std::string (*mismatch)(SlotTableHeader const& header); ///< empty if the header is of this type
   /// The order of two rows' keys.
   bool (*keyLess)(void const* rowA, void const* rowB);
   /// A hash of a row's key, the same in all tables.
   u32 (*keyHash)(void const* row);
   /// The handler is to outlive the table. Neither touches a file.
   std::unique_ptr<AnyReader> (*makeReader)(Lomi::Platform::DebugHandler const& handler,
                                            std::string const& name);
   std::unique_ptr<AnyWriter> (*makeWriter)(Lomi::Platform::DebugHandler const& handler,
                                            std::string const& name, MapDescriptor const& descriptor);
   /// Null where the rows' type has no change queue. The client is to outlive the follower.
   std::unique_ptr<AnyFollower> (*makeFollower)(std::string const& name, AnyFollower::Client& client);
};

// --- how they are made ---

/// The bytes of a row as one. They need no alignment.
template <class Value> Value valueAt(void const* row) {
   Value value;
   std::memcpy(static_cast<void*>(&value), row, sizeof value);
   return value;
}

template <class Ops> class AnyReaderOf final : public AnyReader {
   using Key = typename Ops::Key;
   using Value = typename Ops::Value;

public:
   AnyReaderOf(Lomi::Platform::DebugHandler const& handler, std::string name)
      : handler_(handler)
      , name_(std::move(name)) {}

   bool open(std::string& error) override {
      if (reader_) reader_->detach(false);
      reader_.emplace(handler_, name_, Ops());
      reader_->corruptionMarkerIs(false);
      if (!reader_->initialize("any")) {
         error = reader_->initializeError();
         return false;
      }
      ops_.keyOps.hashSeed = reader_->headerCopy().hashSeed;
      return true;
   }
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
   void const* lookup(void const* key) override {
      bool found = false;
      reader_->lookup(*static_cast<Key const*>(key), found, &found_);
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
   Reader::Counters counters() const override { return reader_->readerCounters(); }
   bool filesReplaced() const override { return reader_->filesReplaced(); }

private:
   void const* present(bool more) {
      walked_ += more;
      return more ? &row_ : nullptr;
   }

   Lomi::Platform::DebugHandler const& handler_;
   std::string const name_;
   Ops ops_;
   std::optional<MirakReader<Ops>> reader_;
   Value row_, found_;
   IterHint hint_;
   Key last_{};
   u32 lastRhash_ = 0;
   std::uint64_t walked_ = 0;
};

template <class Ops> class AnyWriterOf final : public AnyWriter {
   using Value = typename Ops::Value;

public:
   AnyWriterOf(Lomi::Platform::DebugHandler const& handler, std::string const& name,
               MapDescriptor const& descriptor)
      : writer_(handler, name.c_str(), descriptor) {}

   void open() override { writer_.initialize("any"); }
   void write(void const* row) override { writer_.write(valueAt<Value>(row), true); }
   void remove(void const* row) override {
      Value removed;
      writer_.remove(valueAt<Value>(row).fwkKey(), removed);
   }
   void const* first() override {
      hint_ = {};
      return writer_.first(row_, hint_) ? &row_ : nullptr;
   }
   void const* next() override {
      typename Ops::Key const last = row_.fwkKey();
      return writer_.next(last, row_, hint_) ? &row_ : nullptr;
   }
   u32 members() const override { return writer_.members(); }

private:
   MirakWriter<Ops> writer_;
   Value row_;
   IterHint hint_;
};

template <class Ops> TableType tableTypeOf() {
   using Value = typename Ops::Value;
   return {
       Value::typeName,
       SlotTable<Ops>::headerSize,
       SlotTable<Ops>::slotSize,
       Ops::hasChangeQueue,
       [](SlotTableHeader const& header) { return SlotTable<Ops>::typeMismatch(header); },
       [](void const* a, void const* b) { return valueAt<Value>(a).fwkKey() < valueAt<Value>(b).fwkKey(); },
       [](void const* row) { return Ops().hash(valueAt<Value>(row).fwkKey()); },
       [](Lomi::Platform::DebugHandler const& handler, std::string const& name)
           -> std::unique_ptr<AnyReader> { return std::make_unique<AnyReaderOf<Ops>>(handler, name); },
       [](Lomi::Platform::DebugHandler const& handler, std::string const& name,
          MapDescriptor const& descriptor) -> std::unique_ptr<AnyWriter> {
          return std::make_unique<AnyWriterOf<Ops>>(handler, name, descriptor);
       },
       []([[maybe_unused]] std::string const& name,
          [[maybe_unused]] AnyFollower::Client& client) -> std::unique_ptr<AnyFollower> {
          if constexpr (Ops::hasChangeQueue) return std::make_unique<AnyFollowerOf<Ops>>(name, client);
          return nullptr;
       }};
}

} // namespace Mirak
