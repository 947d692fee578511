// SPDX-License-Identifier: Apache-2.0
// DPDK's rte_hash with its lock-free reader-writer concurrency, one writer.
//
// Configuration: RTE_HASH_EXTRA_FLAGS_RW_CONCURRENCY_LF, its own default hash (CRC-32C over the 36 bytes),
// data pointer per key. rte_hash stores the key and one pointer; the 84-byte row lies in a pool of our own
// and is copied out on a hit. An overwrite puts a new row under the key (rte_hash_add_key_data), since
// storing into the old one would show readers halves of rows; the old row and the positions of removed keys
// come back after a grace period, one rte_rcu_qsbr_synchronize for each 1024 of them. Readers report a
// quiescent state every 64 calls. It can't grow: it is created for 5/4 of the final number of rows, and the
// pool is touched before the clock runs.
//
// Misleading: insert has no growth in it and no first touch of memory; all memory belongs to one process
// (--no-huge has no shared memory), so nothing survives a restart; readers here are threads. EAL runs with 4
// KiB pages.
#include "core/Contender.h"

#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_hash.h>
#include <rte_rcu_qsbr.h>

#include <cstdlib>

#include <sched.h>
#include <thread>

namespace Bench {
namespace {

void startEal(int core) {
   static bool started = false;
   if (started) return;
   started = true;
   std::string lcores = "0@" + std::to_string(core);
   std::vector<std::string> words{"bench",       "--no-huge",   "--no-pci", "--no-telemetry",
                                  "--no-shconf", "-m",          "512",      "--lcores",
                                  lcores,        "--log-level", "3"};
   std::vector<char*> argv;
   for (std::string& word : words) argv.push_back(word.data());
   // EAL puts its caller under the default scheduler, which a run may have left on purpose (chrt).
   int const policy = sched_getscheduler(0);
   sched_param parameters{};
   sched_getparam(0, &parameters);
   if (rte_eal_init(static_cast<int>(argv.size()), argv.data()) < 0) {
      wrong("rte_hash", std::string("rte_eal_init: ") + rte_strerror(rte_errno));
   }
   sched_setscheduler(0, policy, &parameters);
}

class RteHash {
public:
   static constexpr Traits traits{
       "rte_hash", false, false,
       true,       true,  "RW_CONCURRENCY_LF, CRC hash, row by pointer, created at 5/4 of the final size"};
   static constexpr u32 deferred = 1024;

   explicit RteHash(Place const& place) {
      startEal(place.core);
      u32 const entries = static_cast<u32>(place.rows + place.rows / 4 + 2 * deferred);
      rte_hash_parameters parameters{};
      static int serial = 0;
      std::string const name = "bench" + std::to_string(serial++);
      parameters.name = name.c_str();
      parameters.entries = entries;
      parameters.key_len = sizeof(Key);
      parameters.socket_id = 0;
      parameters.extra_flag = RTE_HASH_EXTRA_FLAGS_RW_CONCURRENCY_LF;
      hash_ = rte_hash_create(&parameters);
      if (!hash_) wrong("rte_hash", std::string("rte_hash_create: ") + rte_strerror(rte_errno));
      pool_.resize(entries);
      for (u32 n = entries; n-- > 0;) freeRows_.push_back(&pool_[n]);
      size_t const size = rte_rcu_qsbr_get_memsize(1);
      qsbr_ = static_cast<rte_rcu_qsbr*>(std::aligned_alloc(64, (size + 63) / 64 * 64));
      rte_rcu_qsbr_init(qsbr_, 1);
      oldRows_.reserve(deferred);
      oldPositions_.reserve(deferred);
   }
   ~RteHash() {
      rte_hash_free(hash_);
      std::free(qsbr_);
   }
   RteHash(RteHash const&) = delete;

   void insert(Row const& row, u32) {
      Row* const place = takeRow();
      std::memcpy(place, &row, sizeof row);
      if (rte_hash_add_key_data(hash_, &row.key, place) != 0) wrong("rte_hash", "an insert failed: no room");
   }
   void overwrite(Row const& row, u32) {
      void* old = nullptr;
      if (rte_hash_lookup_data(hash_, &row.key, &old) < 0) wrong("rte_hash", "a row to overwrite is absent");
      Row* const place = takeRow();
      std::memcpy(place, &row, sizeof row);
      rte_hash_add_key_data(hash_, &row.key, place);
      oldRows_.push_back(static_cast<Row*>(old));
      if (oldRows_.size() >= deferred) settle();
   }
   bool remove(Key const& key, u32) {
      void* old = nullptr;
      if (rte_hash_lookup_data(hash_, &key, &old) < 0) return false;
      int const position = rte_hash_del_key(hash_, &key);
      oldRows_.push_back(static_cast<Row*>(old));
      oldPositions_.push_back(position);
      if (oldRows_.size() >= deferred) settle();
      return true;
   }
   void settle() {
      rte_rcu_qsbr_synchronize(qsbr_, RTE_QSBR_THRID_INVALID);
      for (Row* row : oldRows_) freeRows_.push_back(row);
      for (int const position : oldPositions_) rte_hash_free_key_with_position(hash_, position);
      oldRows_.clear();
      oldPositions_.clear();
   }
   u64 bytes() {
      // rte_hash tells no size: 64-byte buckets of 8 for the next power of two, key slots of 8 bytes of data
      // and the key rounded up to 16, a ring of 4 bytes a key; and our rows.
      u64 const entries = pool_.size();
      u64 power = 8;
      while (power < entries) power *= 2;
      return power * 8 + (entries + 1) * 48 + power * 4 + entries * sizeof(Row);
   }

   class Reader {
   public:
      Reader(Place const&, RteHash* table)
         : hash_(table->hash_)
         , qsbr_(table->qsbr_)
         , concurrent_(std::this_thread::get_id() != table->writer_) {
         // A reader on the writer's own thread is never inside a read while the writer waits: nothing to
         // announce.
         if (!concurrent_) return;
         rte_rcu_qsbr_thread_register(qsbr_, 0);
         rte_rcu_qsbr_thread_online(qsbr_, 0);
      }
      ~Reader() {
         if (!concurrent_) return;
         rte_rcu_qsbr_thread_offline(qsbr_, 0);
         rte_rcu_qsbr_thread_unregister(qsbr_, 0);
      }
      Reader(Reader const&) = delete;

      bool lookup(Key const& key, u32, Row& row) {
         if (++calls_ % 64 == 0 && concurrent_) rte_rcu_qsbr_quiescent(qsbr_, 0);
         void* data = nullptr;
         bool const found = rte_hash_lookup_data(hash_, &key, &data) >= 0;
         if (found) std::memcpy(&row, data, sizeof row);
         return found;
      }
      template <class See> void walk(See&& see) {
         void const* key = nullptr;
         void* data = nullptr;
         u32 next = 0;
         Row row;
         while (rte_hash_iterate(hash_, &key, &data, &next) >= 0) {
            std::memcpy(&row, data, sizeof row);
            see(row);
         }
      }

   private:
      rte_hash* hash_;
      rte_rcu_qsbr* qsbr_;
      bool concurrent_;
      u32 calls_ = 0;
   };

private:
   Row* takeRow() {
      if (freeRows_.empty()) settle();
      Row* const row = freeRows_.back();
      freeRows_.pop_back();
      return row;
   }

   rte_hash* hash_ = nullptr;
   rte_rcu_qsbr* qsbr_ = nullptr;
   std::thread::id writer_ = std::this_thread::get_id();
   std::vector<Row> pool_;
   std::vector<Row*> freeRows_;
   std::vector<Row*> oldRows_;
   std::vector<int> oldPositions_;
};

} // namespace

std::unique_ptr<Contender> makeRteHash() { return std::make_unique<Adapted<RteHash>>(); }

} // namespace Bench
