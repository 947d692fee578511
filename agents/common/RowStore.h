// SPDX-License-Identifier: Apache-2.0
// What an agent's logic needs of a table that it writes, so that the logic can be tested without any; and one
// collection of an entity as such a store.
#pragma once

#include "Mirak/IterHint.h"

#include <cstdint>
#include <functional>

namespace Agents {

template <class Record> class RowStore {
public:
   using Key = typename Record::Key;
   virtual ~RowStore() = default;
   /// Fills `row` and returns true if there is one.
   virtual bool read(Key const& key, Record& row) const = 0;
   /// Stores a row, whole or not at all.
   virtual void write(Record const& row) = 0;
   /// Removes a row if there is one.
   virtual void remove(Key const& key) = 0;
   virtual std::uint64_t rows() const = 0;
   virtual void forEach(std::function<void(Record const&)> const& visit) const = 0;
   virtual void removeAll() = 0;
};

/// @tparam rowIs, rowDel, delAll the entity's operations on the collection
template <class Entity, class Attribute, auto rowIs, auto rowDel, auto delAll>
class TableStore final : public RowStore<typename Attribute::Record> {
   using Collection = typename Attribute::Map;

public:
   using Record = typename Attribute::Record;
   using typename RowStore<Record>::Key;

   TableStore(Entity& entity, Collection& collection)
      : entity_(entity)
      , collection_(collection) {}

   // Reads go to the back end: a table that is found damaged by one is an exception, which the agent reports.
   bool read(Key const& key, Record& row) const override {
      bool found = false;
      auto const* const value = collection_.back().lookup(key, found, nullptr);
      if (found) row = *value;
      return found;
   }
   void write(Record const& row) override { (entity_.*rowIs)(row); }
   void remove(Key const& key) override { (entity_.*rowDel)(key); }
   std::uint64_t rows() const override { return collection_.members(); }
   void forEach(std::function<void(Record const&)> const& visit) const override {
      auto const& table = collection_.back();
      typename Collection::Value value;
      Mirak::IterHint hint;
      for (bool more = table.first(value, hint); more; more = table.next(value.key(), value, hint))
         visit(value);
   }
   void removeAll() override { (entity_.*delAll)(); }

private:
   Entity& entity_;
   Collection& collection_;
};

} // namespace Agents
