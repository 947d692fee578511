// SPDX-License-Identifier: Apache-2.0
// LMDB, mapped, without sync, on the same tmpfs: MDB_WRITEMAP | MDB_NOSYNC | MDB_NOMETASYNC | MDB_NORDAHEAD |
// MDB_NOTLS. A B+tree over the 36 raw key bytes, the whole row as its value.
//
// Twice. "lmdb" commits each write and begins each read anew: like every other contender here, a row is
// visible to the others when the call returns, and a read sees the newest row. "lmdb, batches of 1000" puts
// 1000 operations into a transaction: rows become visible together, up to 999 calls late, a reader sees a
// snapshot up to 1000 calls old, and a crash of the writer loses the open batch. The second is what bulk work
// would use; it isn't the same promise. Misleading: without sync a crash of the machine (not of the process)
// can damage it; on tmpfs that is no loss.
#include "core/Contender.h"

#include <lmdb.h>

#include <sys/stat.h>
#include <unistd.h>

namespace Bench {
namespace {

void must(int result, char const* what) {
   if (result != MDB_SUCCESS) wrong("lmdb", std::string(what) + ": " + mdb_strerror(result));
}

/// An open environment and its one database.
struct Environment {
   MDB_env* env = nullptr;
   MDB_dbi table = 0;

   Environment(std::string const& file, bool writer) {
      must(mdb_env_create(&env), "mdb_env_create");
      must(mdb_env_set_mapsize(env, 8ull << 30), "mdb_env_set_mapsize");
      unsigned const shared = MDB_NOSUBDIR | MDB_NORDAHEAD | MDB_NOTLS;
      unsigned const writing = MDB_WRITEMAP | MDB_NOSYNC | MDB_NOMETASYNC;
      must(mdb_env_open(env, file.c_str(), shared | (writer ? writing : MDB_RDONLY), 0600), "mdb_env_open");
      MDB_txn* txn = nullptr;
      must(mdb_txn_begin(env, nullptr, writer ? 0 : MDB_RDONLY, &txn), "mdb_txn_begin");
      must(mdb_dbi_open(txn, nullptr, 0, &table), "mdb_dbi_open");
      must(mdb_txn_commit(txn), "mdb_txn_commit");
   }
   ~Environment() { mdb_env_close(env); }
   Environment(Environment const&) = delete;
};

MDB_val bytesOf(void const* at, std::size_t size) { return {size, const_cast<void*>(at)}; }

constexpr Traits singleTraits{"lmdb", true, true,
                              true,   true, "one transaction an operation; WRITEMAP, no sync"};
constexpr Traits batchTraits{"lmdb, batches of 1000",
                             true,
                             true,
                             true,
                             true,
                             "1000 operations a transaction: later visible, older snapshots"};

template <int Size> class Lmdb {
public:
   static constexpr Traits const& traits = Size == 1 ? singleTraits : batchTraits;

   explicit Lmdb(Place const& place)
      : file_(fileIn(place))
      , own_(file_, true) {}
   ~Lmdb() {
      settle();
      unlink(file_.c_str());
      unlink((file_ + "-lock").c_str());
   }
   Lmdb(Lmdb const&) = delete;

   void insert(Row const& row, u32) { put(row); }
   void overwrite(Row const& row, u32) { put(row); }
   bool remove(Key const& key, u32) {
      begin();
      MDB_val name = bytesOf(&key, sizeof key);
      int const result = mdb_del(txn_, own_.table, &name, nullptr);
      if (result != MDB_NOTFOUND) must(result, "mdb_del");
      end();
      return result == MDB_SUCCESS;
   }
   void settle() {
      if (txn_) must(mdb_txn_commit(txn_), "mdb_txn_commit");
      txn_ = nullptr;
      open_ = 0;
   }
   u64 bytes() {
      struct stat status {};
      stat(file_.c_str(), &status);
      return static_cast<u64>(status.st_blocks) * 512;
   }

   class Reader {
   public:
      Reader(Place const& place, Lmdb* peer)
         : other_(peer ? nullptr : std::make_unique<Environment>(fileIn(place), false))
         , use_(peer ? peer->own_ : *other_) {
         must(mdb_txn_begin(use_.env, nullptr, MDB_RDONLY, &txn_), "mdb_txn_begin");
         mdb_txn_reset(txn_);
      }
      ~Reader() { mdb_txn_abort(txn_); }
      Reader(Reader const&) = delete;

      bool lookup(Key const& key, u32, Row& row) {
         if (reads_ == 0) must(mdb_txn_renew(txn_), "mdb_txn_renew");
         MDB_val name = bytesOf(&key, sizeof key);
         MDB_val value{};
         int const result = mdb_get(txn_, use_.table, &name, &value);
         if (result == MDB_SUCCESS)
            std::memcpy(&row, value.mv_data, sizeof row);
         else if (result != MDB_NOTFOUND)
            must(result, "mdb_get");
         if (++reads_ == Size) reset();
         return result == MDB_SUCCESS;
      }
      template <class See> void walk(See&& see) {
         if (reads_) reset();
         must(mdb_txn_renew(txn_), "mdb_txn_renew");
         MDB_cursor* cursor = nullptr;
         must(mdb_cursor_open(txn_, use_.table, &cursor), "mdb_cursor_open");
         MDB_val name{};
         MDB_val value{};
         Row row;
         while (mdb_cursor_get(cursor, &name, &value, MDB_NEXT) == MDB_SUCCESS) {
            std::memcpy(&row, value.mv_data, sizeof row);
            see(row);
         }
         mdb_cursor_close(cursor);
         reset();
      }

   private:
      void reset() {
         mdb_txn_reset(txn_);
         reads_ = 0;
      }
      std::unique_ptr<Environment> other_;
      Environment& use_;
      MDB_txn* txn_ = nullptr;
      int reads_ = 0;
   };

private:
   static std::string fileIn(Place const& place) { return place.directory + "/lmdb" + std::to_string(Size); }
   void begin() {
      if (!txn_) must(mdb_txn_begin(own_.env, nullptr, 0, &txn_), "mdb_txn_begin");
   }
   void end() {
      if (++open_ >= Size) settle();
   }
   void put(Row const& row) {
      begin();
      MDB_val name = bytesOf(&row.key, sizeof row.key);
      MDB_val value = bytesOf(&row, sizeof row);
      must(mdb_put(txn_, own_.table, &name, &value, 0), "mdb_put");
      end();
   }

   std::string file_;
   Environment own_;
   MDB_txn* txn_ = nullptr;
   int open_ = 0;
};

} // namespace

std::unique_ptr<Contender> makeLmdb() { return std::make_unique<Adapted<Lmdb<1>>>(); }
std::unique_ptr<Contender> makeLmdbBatched() { return std::make_unique<Adapted<Lmdb<1000>>>(); }

} // namespace Bench
