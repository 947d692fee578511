// SPDX-License-Identifier: Apache-2.0
// What `watch` says: a line, or a JSON object, for each row that is new, changed or removed, and for what
// happens to the table as a whole. Whoever follows the table calls; nothing here knows how it is followed.
//
// A client of a table hears "this row is now so" and "this key is gone". What was before is kept here, of the
// rows that pass the filter; so a row that begins to pass it is new, and one that ceases to is removed.
#pragma once

#include "Commands.h"
#include "KnownRows.h"
#include "Query.h"

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace Tool {

class Changes {
public:
   /// @param most changes that are told, 0 for all; those behind the last are taken in silently
   Changes(Common const& common, std::string const& table, Mirak::TableType const& type, Filter filter,
           std::uint64_t most);

   /// How the rows are told of that are met first, while the table's rows are taken in for the first time.
   /// They are no changes, and don't count as such.
   enum class Present { silent, told };
   void takingIn(Present how) { mode_ = how == Present::told ? Mode::present : Mode::silent; }
   void takenIn() { mode_ = Mode::changes; }

   void changed(void const* row);
   /// @param row anything with the key
   void removed(void const* row);
   /// Rows that no changed() names until endRound() are removed then.
   void beginRound() { ++round_; }
   void endRound();
   /// All rows are gone.
   void clear();

   /// Something happens to the table: one of the words that `hoflow watch --help` lists.
   void event(std::string_view what, nlohmann::ordered_json facts, std::string_view text = {});

   /// Changes that were told.
   std::uint64_t told() const { return told_; }
   bool enough() const { return most_ != 0 && told_ >= most_; }
   std::string const& table() const { return table_; }
   Schema const& schema() const { return schema_; }

private:
   enum class Mode { silent, present, changes };
   void tellNew(void const* row);
   void tellChanged(void const* was, void const* is);
   void tellRemoved(void const* row);
   void tellRow(std::string_view what, std::string_view side, void const* row);
   bool mayTell();
   bool looksDifferent(void const* a, void const* b) const;
   void begin(std::string_view what);
   void appendFields(void const* row, bool keys);
   void endLine();

   Common const& common_;
   std::string const table_;
   Schema const& schema_;
   Filter const filter_;
   std::uint64_t const most_;
   KnownRows known_;
   Mode mode_ = Mode::changes;
   std::uint64_t round_ = 0;
   std::uint64_t told_ = 0;
};

} // namespace Tool
