// SPDX-License-Identifier: Apache-2.0
// liburcu's cds_lfht, the lock-free resizable hash table, with the QSBR flavour: the one whose readers pay
// nothing but a quiescent state now and then (here every 64 calls).
//
// Configuration: no automatic resize; the insert that brings the load to 1 doubles the buckets by
// cds_lfht_resize, from 64 on, so that growth is inside the insert as it is for us (large steps use its own
// helper threads). It never shrinks. With CDS_LFHT_AUTO_RESIZE it grows in a thread on another core, and on a
// loaded machine the version in Debian 12 was seen to stop growing for good at 64 buckets (lookups of 33 us
// at 50,000 rows). Hash CRC-32C over the 36 bytes. Rows lie in nodes from a pool that is touched before the
// clock runs. An overwrite is cds_lfht_replace with a new node; old nodes come back to the pool after a grace
// period, one synchronize_rcu for each 1024 of them.
//
// Misleading: all memory belongs to one process; readers are threads, and must report quiescent states.
// cds_lfht lets any number of threads write; with one writer that strength is paid for and not used.
#include "core/Contender.h"
#include "peers/PeerHash.h"

#include <urcu-qsbr.h>
#include <urcu/rculfhash.h>

#include <malloc.h>
#include <thread>

namespace Bench {
namespace {

struct Node {
   cds_lfht_node link;
   Row row;
};

Node* nodeOf(cds_lfht_node* link) { return caa_container_of(link, Node, link); }

int matches(cds_lfht_node* link, void const* key) {
   return sameKey(nodeOf(link)->row.key, *static_cast<Key const*>(key));
}

class Lfht {
public:
   static constexpr Traits traits{
       "cds_lfht", true, false, true, true, "QSBR, doubled by the insert that fills it, nodes from a pool"};
   static constexpr std::size_t deferred = 1024;

   explicit Lfht(Place const& place) {
      rcu_register_thread();
      heapBefore_ = heap();
      table_ = cds_lfht_new(buckets_, buckets_, 0, 0, nullptr);
      if (!table_) wrong("cds_lfht", "cds_lfht_new failed");
      pool_.resize(place.rows + 4 * deferred);
      for (std::size_t n = pool_.size(); n-- > 0;) free_.push_back(&pool_[n]);
      old_.reserve(deferred);
   }
   ~Lfht() {
      cds_lfht_iter at;
      cds_lfht_first(table_, &at);
      while (cds_lfht_node* node = cds_lfht_iter_get_node(&at)) {
         cds_lfht_del(table_, node);
         cds_lfht_next(table_, &at);
      }
      synchronize_rcu();
      rcu_thread_offline(); // its resize thread may have to finish first, and that waits for us
      if (cds_lfht_destroy(table_, nullptr) != 0) std::fputs("cds_lfht_destroy failed\n", stderr);
      rcu_thread_online();
      rcu_unregister_thread();
   }
   Lfht(Lfht const&) = delete;

   void insert(Row const& row, u32) {
      tick();
      Node* const node = take(row);
      cds_lfht_add(table_, peerHash(row.key), &node->link);
      if (++rows_ <= buckets_) return;
      buckets_ *= 2;
      cds_lfht_resize(table_, buckets_);
   }
   void overwrite(Row const& row, u32) {
      tick();
      cds_lfht_iter at;
      u32 const hash = peerHash(row.key);
      cds_lfht_lookup(table_, hash, matches, &row.key, &at);
      cds_lfht_node* const old = cds_lfht_iter_get_node(&at);
      if (!old) wrong("cds_lfht", "a row to overwrite is absent");
      Node* const node = take(row);
      cds_lfht_replace(table_, &at, hash, matches, &row.key, &node->link);
      retire(old);
   }
   bool remove(Key const& key, u32) {
      tick();
      cds_lfht_iter at;
      cds_lfht_lookup(table_, peerHash(key), matches, &key, &at);
      cds_lfht_node* const node = cds_lfht_iter_get_node(&at);
      if (!node || cds_lfht_del(table_, node) != 0) return false;
      retire(node);
      --rows_;
      return true;
   }
   void settle() {
      synchronize_rcu();
      for (Node* node : old_) free_.push_back(node);
      old_.clear();
   }
   // What the allocator holds for table and nodes; the pool's slack of 4096 nodes is left out.
   u64 bytes() {
      return heap() - heapBefore_ - 4 * deferred * sizeof(Node) - free_.capacity() * sizeof(Node*);
   }

   class Reader {
   public:
      Reader(Place const&, Lfht* peer)
         : table_(peer->table_)
         , concurrent_(std::this_thread::get_id() != peer->writer_) {
         if (concurrent_) rcu_register_thread();
      }
      ~Reader() {
         if (concurrent_) rcu_unregister_thread();
      }
      Reader(Reader const&) = delete;

      bool lookup(Key const& key, u32, Row& row) {
         if (++calls_ % 64 == 0) rcu_quiescent_state();
         cds_lfht_iter at;
         cds_lfht_lookup(table_, peerHash(key), matches, &key, &at);
         cds_lfht_node* const node = cds_lfht_iter_get_node(&at);
         if (node) std::memcpy(&row, &nodeOf(node)->row, sizeof row);
         return node;
      }
      template <class See> void walk(See&& see) {
         cds_lfht_iter at;
         Row row;
         cds_lfht_first(table_, &at);
         while (cds_lfht_node* node = cds_lfht_iter_get_node(&at)) {
            std::memcpy(&row, &nodeOf(node)->row, sizeof row);
            see(row);
            cds_lfht_next(table_, &at);
         }
         rcu_quiescent_state();
      }

   private:
      cds_lfht* table_;
      bool concurrent_;
      u32 calls_ = 0;
   };

private:
   static u64 heap() {
      struct mallinfo2 const info = mallinfo2();
      return info.uordblks + info.hblkhd;
   }
   void tick() {
      if (++calls_ % 64 == 0) rcu_quiescent_state();
   }
   Node* take(Row const& row) {
      if (free_.empty()) settle();
      Node* const node = free_.back();
      free_.pop_back();
      cds_lfht_node_init(&node->link);
      std::memcpy(&node->row, &row, sizeof row);
      return node;
   }
   void retire(cds_lfht_node* link) {
      old_.push_back(nodeOf(link));
      if (old_.size() >= deferred) settle();
   }

   cds_lfht* table_ = nullptr;
   u64 heapBefore_ = 0;
   u64 rows_ = 0;
   u64 buckets_ = 64;
   u32 calls_ = 0;
   std::thread::id writer_ = std::this_thread::get_id();
   std::vector<Node> pool_;
   std::vector<Node*> free_;
   std::vector<Node*> old_;
};

} // namespace

std::unique_ptr<Contender> makeLfht() { return std::make_unique<Adapted<Lfht>>(); }

} // namespace Bench
