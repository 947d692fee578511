// SPDX-License-Identifier: Apache-2.0
// Whether what a reader saw could be seen: against the contents that the table had while it read. Each check
// returns what is wrong, in words, or nothing.
#pragma once

#include "TestTable.h"

#include <set>
#include <stdexcept>
#include <vector>

namespace Test {

/// Thrown by an observer when a reader goes on and on.
struct Endless : std::runtime_error {
   using std::runtime_error::runtime_error;
};

template <class R> class Judge {
public:
   /// The contents from `lowest` to `highest` were there meanwhile, in this order.
   Judge(std::vector<Content> const& contents, std::size_t lowest, std::size_t highest, u32 seed)
      : contents_(contents)
      , lowest_(lowest)
      , highest_(highest)
      , seed_(seed) {}

   /// Exactly the answer of one moment.
   std::string lookup(Key key, bool found, R const& row) const {
      if (found && (row.key() != key || !row.sound())) return "torn or foreign row " + row.str();
      for (std::size_t i = lowest_; i <= highest_; ++i) {
         auto const at = contents_[i].find(key);
         bool const there = at != contents_[i].end();
         if (found ? there && at->second == row.generation() : !there) return {};
      }
      return found ? "wrong row " + row.str() : "false absence of " + key.str();
   }
   /// The row behind `after` (null: the first), or the end: nothing that stayed may be stepped over. What
   /// came or went meanwhile may be seen or not.
   std::string step(Key const* after, bool found, R const& row) const {
      if (found) {
         if (std::string wrong = known(row); !wrong.empty()) return wrong;
         if (after && !before(*after, row.key(), seed_))
            return row.str() + " doesn't come after " + after->str();
      }
      for (auto const& [key, generation] : contents_[lowest_])
         if (stays(key) && (!after || before(*after, key, seed_)) &&
             (!found || before(key, row.key(), seed_)))
            return "stepped over " + key.str();
      return {};
   }
   /// The same for all rows at once.
   std::string walk(std::vector<R> const& rows) const {
      std::set<Key, KeyLess> seen;
      for (std::size_t i = 0; i < rows.size(); ++i) {
         if (std::string wrong = known(rows[i]); !wrong.empty()) return wrong;
         if (i > 0 && !before(rows[i - 1].key(), rows[i].key(), seed_))
            return rows[i].str() + " doesn't come after " + rows[i - 1].str();
         seen.insert(rows[i].key());
      }
      for (auto const& [key, generation] : contents_[lowest_])
         if (stays(key) && !seen.count(key)) return "a walk without " + key.str();
      return {};
   }

   /// A whole row that some content had.
   std::string known(R const& row) const {
      if (!row.sound()) return "torn row " + row.str();
      for (std::size_t i = lowest_; i <= highest_; ++i) {
         auto const at = contents_[i].find(row.key());
         if (at != contents_[i].end() && at->second == row.generation()) return {};
      }
      return "wrong row " + row.str();
   }

private:
   bool stays(Key key) const {
      for (std::size_t i = lowest_; i <= highest_; ++i)
         if (!contents_[i].count(key)) return false;
      return true;
   }

   std::vector<Content> const& contents_;
   std::size_t lowest_, highest_;
   u32 seed_;
};

/// All rows by a walk, from hint to hint or from key to key. `next` is called with a key inside the value, as
/// loops are written.
template <class R, class Table>
std::vector<R> walkAll(Table const& table, std::size_t limit = 100000, bool hinted = true) {
   std::vector<R> rows;
   R row;
   Mirak::IterHint hint;
   for (bool more = table.first(row, hint); more; more = table.next(row.key(), row, hint)) {
      rows.push_back(row);
      if (rows.size() > limit) throw Endless("the walk doesn't end");
      if (!hinted) hint = {};
   }
   return rows;
}

/// The keys of all contents, and some that are in none.
inline std::vector<Key> keysOf(std::vector<Content> const& contents) {
   std::set<Key, KeyLess> keys = {{5, 77}, {2, 78}, {0, 79}, {0x80000001u, 80}, {0xffffffffu, 81}};
   for (auto const& content : contents)
      for (auto const& [key, generation] : content) keys.insert(key);
   return {keys.begin(), keys.end()};
}

/// Looks every key up and walks, through any of the tables, whose content must be exactly `content`.
/// @param others keys to look up, too
template <class R, class Table>
std::string judgeAll(Table const& table, Content const& content, u32 seed,
                     std::vector<Key> const& others = {}) {
   std::vector<Content> const only{content};
   Judge<R> const judge(only, 0, 0, seed);
   std::vector<Key> keys = keysOf(only);
   keys.insert(keys.end(), others.begin(), others.end());
   for (Key key : keys) {
      bool found = false;
      R row;
      R const at = *table.lookup(key, found, &row);
      if (std::string wrong = judge.lookup(key, found, at); !wrong.empty()) return wrong;
   }
   std::string const wrong = judge.walk(walkAll<R>(table));
   return wrong.empty() ? judge.walk(walkAll<R>(table, 100000, false)) : wrong;
}

} // namespace Test
