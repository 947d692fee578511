// SPDX-License-Identifier: Apache-2.0
// A hash set of Boost in a mapped file, behind Boost's interprocess_sharable_mutex: what one writes in an
// afternoon when two processes have to share a table.
//
// Configuration: boost::unordered_set of rows with the allocator of managed_mapped_file, on the same tmpfs,
// hash CRC-32C over the 36 key bytes; it grows by its own rehash inside an insert. Each lookup takes the
// mutex shared and each write takes it alone; a walk holds it shared from end to end.
//
// Misleading: the file's size is fixed at creation (it is made large and sparse). An uncontended mutex is
// cheap in one thread; the figures with a busy writer show what it costs. A process that dies in a write
// leaves it locked.
#include "core/Contender.h"
#include "peers/PeerHash.h"

#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/managed_mapped_file.hpp>
#include <boost/interprocess/sync/interprocess_sharable_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/interprocess/sync/sharable_lock.hpp>
#include <boost/unordered_set.hpp>

#include <unistd.h>

namespace Bench {
namespace {

namespace bip = boost::interprocess;

struct HashOfKey {
   std::size_t operator()(Row const& row) const { return peerHash(row.key); }
   std::size_t operator()(Key const& key) const { return peerHash(key); }
};
struct SameKey {
   bool operator()(Row const& left, Row const& right) const { return sameKey(left.key, right.key); }
   bool operator()(Key const& left, Row const& right) const { return sameKey(left, right.key); }
   bool operator()(Row const& left, Key const& right) const { return sameKey(left.key, right); }
};

class Interprocess {
public:
   static constexpr Traits traits{"boost::interprocess",
                                  true,
                                  true,
                                  true,
                                  true,
                                  "unordered_set in a mapped file, interprocess_sharable_mutex"};
   using Allocator = bip::allocator<Row, bip::managed_mapped_file::segment_manager>;
   using Set = boost::unordered_set<Row, HashOfKey, SameKey, Allocator>;
   using Mutex = bip::interprocess_sharable_mutex;
   using Write = bip::scoped_lock<Mutex>;
   using Read = bip::sharable_lock<Mutex>;

   explicit Interprocess(Place const& place)
      : file_(fileIn(place))
      , map_(bip::create_only, file_.c_str(), place.rows * 400 + (32u << 20)) {
      set_ = map_.construct<Set>("rows")(16, HashOfKey(), SameKey(), map_.get_segment_manager());
      mutex_ = map_.construct<Mutex>("mutex")();
   }
   ~Interprocess() { unlink(file_.c_str()); }
   Interprocess(Interprocess const&) = delete;

   void insert(Row const& row, u32) {
      Write const lock(*mutex_);
      set_->insert(row);
   }
   void overwrite(Row const& row, u32) {
      Write const lock(*mutex_);
      auto const at = set_->find(row);
      if (at == set_->end()) wrong("boost::interprocess", "a row to overwrite is absent");
      std::memcpy(const_cast<Row*>(&*at), &row, sizeof row); // the key stays as it is
   }
   bool remove(Key const& key, u32) {
      Write const lock(*mutex_);
      auto const at = set_->find(key, HashOfKey(), SameKey());
      if (at == set_->end()) return false;
      set_->erase(at);
      return true;
   }
   void settle() {}
   u64 bytes() { return map_.get_size() - map_.get_free_memory(); }

   class Reader {
   public:
      Reader(Place const& place, Interprocess* peer) {
         if (!peer) other_ = bip::managed_mapped_file(bip::open_only, fileIn(place).c_str());
         set_ = peer ? peer->set_ : other_.find<Set>("rows").first;
         mutex_ = peer ? peer->mutex_ : other_.find<Mutex>("mutex").first;
      }
      bool lookup(Key const& key, u32, Row& row) {
         Read const lock(*mutex_);
         auto const at = set_->find(key, HashOfKey(), SameKey());
         bool const found = at != set_->end();
         if (found) std::memcpy(&row, &*at, sizeof row);
         return found;
      }
      template <class See> void walk(See&& see) {
         Read const lock(*mutex_);
         Row row;
         for (Row const& each : *set_) {
            std::memcpy(&row, &each, sizeof row);
            see(row);
         }
      }

   private:
      bip::managed_mapped_file other_;
      Set* set_ = nullptr;
      Mutex* mutex_ = nullptr;
   };

private:
   static std::string fileIn(Place const& place) { return place.directory + "/boost"; }
   std::string file_;
   bip::managed_mapped_file map_;
   Set* set_ = nullptr;
   Mutex* mutex_ = nullptr;
};

} // namespace

std::unique_ptr<Contender> makeInterprocess() { return std::make_unique<Adapted<Interprocess>>(); }

} // namespace Bench
