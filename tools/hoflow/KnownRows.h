// SPDX-License-Identifier: Apache-2.0
// Rows of any one type by their keys: what `watch` has told of a table, so that it can say what was.
#pragma once

#include "Mirak/AnyTable.h"
#include "Schema.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_set>

namespace Tool {

class KnownRows {
public:
   /// A row, and the round of walking in which it was met last.
   struct Known {
      std::unique_ptr<std::byte[]> bytes;
      mutable std::uint64_t round;
   };

   KnownRows(Mirak::TableType const& type, Schema const& schema)
      : bytes_(schema.row.info().size)
      , rows_(0, Hash{type}, Equal{type}) {}

   std::size_t size() const { return rows_.size(); }
   std::size_t rowBytes() const { return bytes_; }
   /// The row with that one's key, null if there is none. Good until that row is removed.
   Known const* find(void const* row) const {
      auto const at = rows_.find(row);
      return at == rows_.end() ? nullptr : &*at;
   }
   /// REQUIRES: there is no row with that key.
   void insert(void const* row, std::uint64_t round) {
      auto bytes = std::make_unique<std::byte[]>(bytes_);
      std::memcpy(bytes.get(), row, bytes_);
      rows_.insert(Known{std::move(bytes), round});
   }
   void update(Known const& known, void const* row) { std::memcpy(known.bytes.get(), row, bytes_); }
   void remove(void const* row) {
      if (auto const at = rows_.find(row); at != rows_.end()) rows_.erase(at);
   }
   /// Removes each row that wasn't met in `round`. @param leaving called with each of them before
   template <class Leaving> void keepRound(std::uint64_t round, Leaving&& leaving) {
      for (auto at = rows_.begin(); at != rows_.end();) {
         if (at->round != round) {
            leaving(static_cast<void const*>(at->bytes.get()));
            at = rows_.erase(at);
         } else {
            ++at;
         }
      }
   }

private:
   static void const* rowOf(void const* row) { return row; }
   static void const* rowOf(Known const& known) { return known.bytes.get(); }
   struct Hash {
      using is_transparent = void;
      Mirak::TableType const& type;
      template <class Row> std::size_t operator()(Row const& row) const { return type.keyHash(rowOf(row)); }
   };
   struct Equal {
      using is_transparent = void;
      Mirak::TableType const& type;
      template <class A, class B> bool operator()(A const& a, B const& b) const {
         return !type.keyLess(rowOf(a), rowOf(b)) && !type.keyLess(rowOf(b), rowOf(a));
      }
   };

   std::size_t bytes_;
   std::unordered_set<Known, Hash, Equal> rows_;
};

} // namespace Tool
