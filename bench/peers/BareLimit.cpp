// SPDX-License-Identifier: Apache-2.0
// The bare limit: what two dependent random reads and a copy of the row cost on this machine, with no
// hashing, no comparing, no chains and no protection. It is told where each key is (the query's ordinal). The
// distance to it is what a table's own work costs.
//
// A miss is the first of the two reads alone. Insert and overwrite store the row where the index says; the
// walk reads rows in memory order, which no walk of a hash table does. Misleading if read as a target: it
// can't answer "is this key here?".
#include "core/Contender.h"

#include <algorithm>
#include <bit>
#include <numeric>
#include <random>

namespace Bench {
namespace {

class BareLimit {
public:
   static constexpr Traits traits{
       "bare limit", false, false,
       false,        false, "two dependent random reads and a copy of the row; created at final size"};

   // Slots as far apart as the rows of a real table with a link and a sequence word each.
   struct Slot {
      alignas(8) char bytes[104];
   };
   static constexpr u32 none = 0xffffffff;

   explicit BareLimit(Place const& place)
      : index_(std::bit_ceil(2 * place.rows), none)
      , slots_(place.rows)
      , places_(place.rows) {
      std::mt19937_64 random(7);
      std::iota(places_.begin(), places_.end(), 0u);
      std::shuffle(places_.begin(), places_.end(), random);
   }

   void insert(Row const& row, u32 ordinal) {
      u32 const at = places_[ordinal];
      std::memcpy(slots_[at].bytes, &row, sizeof row);
      entry(ordinal) = at;
   }
   void overwrite(Row const& row, u32 ordinal) {
      std::memcpy(slots_[entry(ordinal)].bytes, &row, sizeof row);
   }
   bool remove(Key const&, u32 ordinal) {
      u32& at = entry(ordinal);
      if (at == none) return false;
      slots_[at].bytes[96] = 0; // the row's place is given back with one store, as any table must
      at = none;
      return true;
   }
   void settle() {}
   u64 bytes() { return index_.size() * sizeof(u32) + slots_.size() * sizeof(Slot); }

   class Reader {
   public:
      Reader(Place const&, BareLimit* limit)
         : limit_(*limit) {}

      bool lookup(Key const&, u32 ordinal, Row& row) {
         u32 const at = limit_.entry(ordinal);
         if (at == none) return false;
         std::memcpy(&row, limit_.slots_[at].bytes, sizeof row);
         return true;
      }
      template <class See> void walk(See&& see) {
         Row row;
         for (Slot const& slot : limit_.slots_) {
            std::memcpy(&row, slot.bytes, sizeof row);
            see(row);
         }
      }

   private:
      BareLimit& limit_;
   };

private:
   // An odd factor spreads the ordinals over the index without a collision.
   u32& entry(u32 ordinal) { return index_[ordinal * 0x9e3779b1u & (index_.size() - 1)]; }

   std::vector<u32> index_;
   std::vector<Slot> slots_;
   std::vector<u32> places_;
};

} // namespace

std::unique_ptr<Contender> makeBareLimit() { return std::make_unique<Adapted<BareLimit>>(); }

} // namespace Bench
