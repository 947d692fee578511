// SPDX-License-Identifier: Apache-2.0
// A table that is open for reading, whatever its rows are: a row is a pointer and a Schema.
//
// It never writes: files are opened O_RDONLY, and the reader leaves no marker where it finds damage.
#pragma once

#include "Lomi/Exception.h"
#include "Mirak/AnyTable.h"
#include "Mirak/Exception.h"
#include "Schema.h"

#include <cstdint>
#include <memory>
#include <string>

namespace Tool {

/// A table under its name, opened again where its writer replaced it.
class Table {
public:
   Table(std::string name, Mirak::TableType const& type);

   Schema const& schema() const { return schema_; }
   std::string const& name() const { return name_; }

   /// Opens what the path names now. @throws Failure, as openTable()
   void reopen();

   /// Rows. A returned pointer is good until the next of these calls, null means "no (more) row".
   /// @throws Mirak::TableReformattedException: the writer formatted the table anew, reopen() and start over
   /// @throws Lomi::CorruptionDetectedException, Lomi::MemoryResourceException
   void const* first() { return reader_->first(); }
   void const* next() { return reader_->next(); }
   void const* lookup(void const* key) { return reader_->lookup(key); }
   bool findsPresent() { return reader_->findsPresent(); }
   /// Of the walk's present row: the key's hash, and whether the row comes behind the one before it.
   std::uint32_t hash() const { return reader_->hash(); }
   bool inOrder() const { return reader_->inOrder(); }

   std::uint32_t members() const { return reader_->members(); }
   std::uint32_t buckets() const { return reader_->buckets(); }
   Mirak::Reader::Counters counters() const { return reader_->counters(); }
   bool filesReplaced() const { return reader_->filesReplaced(); }

private:
   std::string const name_;
   Schema const& schema_;
   std::unique_ptr<Mirak::AnyReader> const reader_;
};

/// Opens the table of that name, which must be a whole one.
/// @throws Failure that names the file, what is wrong with it and what to do
std::unique_ptr<Table> openTable(std::string const& name);

} // namespace Tool
