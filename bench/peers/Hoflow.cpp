// SPDX-License-Identifier: Apache-2.0
// Our own table: Mirak::MirakWriter and Mirak::MirakReader on shared files in /dev/shm, at their defaults,
// through the back end interface. It starts with its smallest size and grows inside `write`; removal shrinks
// index and slots. The second contender has all its slots from the start and keeps them, as most peers do;
// its index grows and shrinks all the same. Reads go through a reader's own read-only mapping
// of the same files, as in another process; the writer's own lookups are not measured.
//
// Misleading: descriptor size is the number of rows, so that the slots double up to it and never grow by
// tenths. In the single-thread figures writer and reader share one core's caches, which in two processes they
// don't.
#include "core/Machine.h"
#include "peers/HoflowTable.h"

namespace Bench {
namespace {

constexpr Traits growing{
    "hoflow", true, true, true, false, "MirakWriter and MirakReader on files in /dev/shm, no change queue"};
constexpr Traits fixed{"hoflow (fixed)", false, true, true, false, "all slots made at the start"};

template <bool fixedSize> class Hoflow {
public:
   static constexpr Traits traits = fixedSize ? fixed : growing;

   explicit Hoflow(Place const& place)
      : directory_(place.directory)
      , table_(openWriter(place, fixedSize)) {}
   ~Hoflow() { table_->detach(false); }
   Hoflow(Hoflow const&) = delete;

   void insert(Row const& row, u32) { table_->write(tableRow(row), true); }
   void overwrite(Row const& row, u32) { table_->write(tableRow(row), true); }
   bool remove(Key const& key, u32) { return table_->remove(tableKey(key), tableRow(removed_)); }
   void settle() {}
   u64 bytes() { return blocksUnder(directory_); }

   class Reader {
   public:
      Reader(Place const& place, Hoflow*)
         : table_(openReader(place)) {}
      ~Reader() { table_->detach(false); }
      Reader(Reader const&) = delete;

      bool lookup(Key const& key, u32, Row& row) {
         bool found;
         table_->lookup(tableKey(key), found, &row);
         return found;
      }
      template <class See> void walk(See&& see) {
         Row row;
         Mirak::IterHint hint;
         bool more = table_->first(tableRow(row), hint);
         while (more) {
            see(row);
            more = table_->next(tableKey(row.key), tableRow(row), hint);
         }
      }

   private:
      std::unique_ptr<Table> table_;
   };

private:
   std::string directory_;
   std::unique_ptr<Table> table_;
   Row removed_;
};

} // namespace

std::unique_ptr<Contender> makeHoflow() { return std::make_unique<Adapted<Hoflow<false>>>(); }
std::unique_ptr<Contender> makeHoflowFixed() { return std::make_unique<Adapted<Hoflow<true>>>(); }

} // namespace Bench
