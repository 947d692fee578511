// SPDX-License-Identifier: Apache-2.0
// A table that is open for reading, whatever its rows are: the one place where the seven types are told
// apart. Everything above it works on a row as a pointer and a Schema.
//
// It never writes: files are opened O_RDONLY, and the reader leaves no marker where it finds damage.
#pragma once

#include "Lomi/Exception.h"
#include "Mirak/Counters.h"
#include "Mirak/Exception.h"
#include "Mirak/SlotTable.h"
#include "Schema.h"

#include <memory>
#include <span>
#include <string>

namespace Tool {

class Table {
public:
   using u32 = std::uint32_t;

   virtual ~Table() = default;
   virtual Schema const& schema() const = 0;

   /// Rows. A returned pointer is good until the next of these calls, null means "no (more) row".
   /// @throws Mirak::TableReformattedException: the writer formatted the table anew, reopen() and start over
   /// @throws Lomi::CorruptionDetectedException, Lomi::MemoryResourceException
   virtual void const* first() = 0;
   virtual void const* next() = 0;
   /// @param key the key's fields as keyOf() takes them. Doesn't disturb a walk.
   virtual void const* lookup(std::span<Cell const> key) = 0;
   /// Looks the walk's present row up by its key.
   virtual bool findsPresent() = 0;

   /// Of the walk's present row: the key's hash, and whether the row comes behind the one before it.
   virtual u32 hash() const = 0;
   virtual bool inOrder() const = 0;

   virtual u32 members() const = 0;
   virtual u32 buckets() const = 0;
   virtual Mirak::Reader::Counters counters() const = 0;
   virtual bool filesReplaced() const = 0;

   /// Opens what the path names now. @throws Failure, as openTable()
   void reopen();
   std::string const& name() const { return name_; }

protected:
   explicit Table(std::string name)
      : name_(std::move(name)) {}
   virtual bool attach(std::string& error) = 0;
   virtual void detach() = 0;

private:
   std::string name_;
};

struct TypeFacts {
   std::string_view valueType;
   std::uint32_t headerSize, slotSize;
   Schema const& (*schema)();
   std::string (*mismatch)(Mirak::SlotTableHeader const& header); ///< empty if the header is of this type
   std::unique_ptr<Table> (*make)(std::string name);
};

/// Null if there is no such type.
TypeFacts const* typeNamed(std::string_view valueType);

/// Opens the table of that name, which must be a whole one.
/// @throws Failure that names the file, what is wrong with it and what to do
std::unique_ptr<Table> openTable(std::string const& name);

} // namespace Tool
