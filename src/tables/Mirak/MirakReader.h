// SPDX-License-Identifier: Apache-2.0
// Mirak::MirakReader: the back end of a collection in reader mode. It owns the mapping of the slot file
// (SlotReader.h) and the index over it (MirakCore/ReaderHashMap.h), opens and validates the files, and wraps
// every read in the one loop that follows resizes and decides whether an exception means damage.
//
// It polls nothing and is told nothing: it sees the table as it is at each call. It stores nothing into the
// table's files and needs no more than read rights. Reacting to changes is the shadow's business.
//
// Guarantees of lookup, first, next and getValue:
//   R1  what is returned was true at some moment of the call: neither file changed its size and no re-format
//       of the table began before the last of its loads
//   R2  a resize during the call is followed and the call repeated: each repeat needs a new resize by the
//       writer, so there is no limit
//   R3  Mirak::TableReformattedException: the writer formatted the table anew. Not damage; detach,
//       initialize, start over
//   R4  any other Lomi::CorruptionDetectedException: the files hold what no writer leaves there. The object
//       stays usable
//   R5  Lomi::MemoryResourceException: the kernel refused a mapping. The next call tries again
// How a re-format is noticed: it takes away the kestor file before it destroys anything, stores its
// generation into the slot header before anything else, draws another hash seed, and moves the bucket count's
// version.
//
// One thread per object: its buffer, its anchor and its mappings are its own and unguarded.
#pragma once

#include "Mirak/Exception.h"
#include "Mirak/MirakInterface.h"
#include "Mirak/Operations.h"
#include "Mirak/SlotReader.h"
#include "MirakCore/ReaderHashMap.h"
#include "Parcel/KestorFile.h"

#include <functional>
#include <memory>
#include <string>

namespace Mirak {

template <class Ops> class HOFLOW_EXPORT MirakReader : public MirakInterface<Ops> {
public:
   using OpsType = Ops;
   using typename MirakInterface<Ops>::Key;
   using typename MirakInterface<Ops>::Value;
   using SlotTableType = SlotReaderTable<Ops>;

   /// Touches no file. @param name the table's path below the root
   /// @param counters where to count; null: the object has its own
   MirakReader(Lomi::Platform::DebugHandler const& handler, std::string name, Ops const& ops,
               Reader::Counters* counters = nullptr);
   ~MirakReader() override { release(); }

   /// Opens the table. Harmless when it is open. On false nothing is held, and initializeError() says what is
   /// missing or wrong, with the file's name.
   /// @throws Lomi::InvalidInitializeException on a processor without 8-byte atomic accesses
   bool initialize(std::string const& event) override;
   void detach(bool force) override;
   /// Why the last initialize() returned false; empty after one that returned true.
   std::string const& initializeError() const { return initializeError_; }
   bool damageFound() const override { return damageFound_; }
   /// True when the path leads to other files than those that are mapped: the table was removed, and perhaps
   /// made again. Always false while detached.
   bool filesReplaced() const;

   u32 members() const override;
   u32 buckets() const override { return buckets_.buckets().numBuckets(); }
   u32 minSize() const override { return 0; }
   u32 maxSize() const override;
   u32 capacity() const override { return slots_.capacity(); }
   MirakType type() const override { return MirakType::reader; }
   bool quiesced() const override { return this->initialized(); }
   Reader::Counters readerCounters() const override;
   Mem::NaoRootPath rootPath() const override { return rootPath_; }
   std::string mirakName() const override { return rootPath_.dirName(); }
   Mem::MountStatus mountStatus() const override {
      return this->initialized() ? Mem::MountStatus::mounted : Mem::MountStatus::notMounted;
   }
   Parcel::KestorId kestorId() const override { return kestorId_; }

   Value const* lookup(Key const& key, bool& found, void* buffer) const override;
   bool first(Value& value, IterHint& hint) const override;
   bool next(Key const& key, Value& value, IterHint& hint) const override;
   /// Reads the row of one slot. @param defaultOut sizeof(Value) bytes that take the default row if the slot
   /// holds none, or null. @return whether it holds one
   bool getValue(u32 slot, Value& buffer, void* defaultOut) const;
   /// Asks for the lines of a slot that getValue() will read soon. Any number will do.
   [[gnu::always_inline]] void prefetch(u32 slot) const {
      if (slot < slots_.capacity()) Mem::prefetchWhole(slots_.slots().base[slot]);
   }
   /// The place in the table's order of the row that a slot may hold: a guess. Any number will do.
   u32 peekHash(u32 slot) const {
      return slot < slots_.capacity() ? SlotTableType::loadWordAndHash(slots_.slots().base[slot]).rhash : 0;
   }

   void validateVersionAnchor() const override { validateVersionAnchor(slots_.anchor()); }
   /// The same for an anchor that was kept. @throws Mem::VersionMismatchException
   void validateVersionAnchor(Mem::VersionAnchor const& anchor) const;
   Mem::CacheVersionAnchor getCacheVersionAnchor() const override {
      return {slots_.anchor().word, slots_.anchor().offset};
   }

   // --- for a shadow, which keeps a copy of the table that is read ---

   Ops const& ops() const { return ops_; }                              ///< with the open table's hash seed
   Mem::VersionAnchor const& anchor() const { return slots_.anchor(); } ///< of the last read
   /// An anchor for its owner to keep: it follows the mappings.
   Mem::VersionAnchor& mappedAnchor() { return slots_.mappedAnchor(); }
   /// Slots that the file has at this moment; capacity() says how many of them are mapped. 0 while detached.
   u32 headerCapacity() const;
   /// Follows both files to their present sizes. @return whether either had moved
   /// @throws what following throws, or Mirak::TableReformattedException
   bool resize() const { return follow(); }

   /// Both files' headers in words.
   std::string dumpHeaders() const;
   /// A copy of the slot file's header, its counters perhaps of different moments. REQUIRES: initialized.
   SlotTableHeader headerCopy() const;
   /// Whether an initialize() that meets damage leaves the marker "corruption-detected" beside the files, for
   /// people and for other programs to see. True unless set; a program that only looks says false.
   void corruptionMarkerIs(bool wanted) { corruptionMarker_ = wanted; }
   /// Called before each repeat of an operation.
   void betweenRetriesIs(std::function<void()> hook) { betweenRetries_ = std::move(hook); }

private:
   friend class MirakCore::ReaderHashMap<MirakReader>;

   bool open(std::string const& event);
   bool validateBuckets();
   bool validateSlots();
   bool fail(char const* what, std::string const& file, std::string const& why);
   bool mapsFilesOfPath() const;
   bool failCorrupt(char const* what, std::string const& file, std::string const& why);
   void release();

   template <class Operation> auto retried(Operation&& operation) const {
      return retried(operation, [] {});
   }
   template <class Operation, class Between> auto retried(Operation&& operation, Between&& between) const;
   bool settled() const;
   static bool overlaps(Key const* key, void const* buffer);
   Value const* lookupApart(Key const& key, bool& found, void* buffer) const;
   [[gnu::cold, gnu::noinline]] bool follow() const;
   [[gnu::cold, gnu::noinline]] bool followAfterThrow() const;
   [[gnu::cold, gnu::noinline]] void retry() const;
   bool sameFormat() const;
   void checkGeneration() const;
   void checkKestorFile() const;
   [[noreturn, gnu::cold, gnu::noinline]] void reformatted(Parcel::KestorId found) const;

   // Constant after construction.
   Lomi::Platform::DebugHandler const& debugHandler_;
   Mem::NaoRootPath rootPath_;
   std::unique_ptr<Reader::Counters> ownCounters_;
   Reader::Counters& counters_;
   std::function<void()> betweenRetries_;
   bool corruptionMarker_ = true;

   // Of the open table. Reading follows resizes, so it changes the mappings.
   Ops ops_; ///< its hash seed is the table's
   mutable SlotReaderTable<Ops> slots_;
   mutable MirakCore::ReaderHashMap<MirakReader> buckets_;
   Parcel::KestorId kestorId_; ///< as read by initialize()
   std::string initializeError_;
   bool damageFound_ = false;
   mutable Value buffer_; ///< for a lookup without a caller's buffer
};

/// Runs one read until no resize overlaps it.
template <class Ops>
template <class Operation, class Between>
[[gnu::always_inline]] inline auto MirakReader<Ops>::retried(Operation&& operation, Between&& between) const {
   for (;;) {
      // What throws while following must leave this loop, so nothing but the operation stands in the try.
      decltype(operation()) result{};
      try {
         result = operation();
      } catch (Lomi::CorruptionDetectedException const&) {
         if (!followAfterThrow()) throw; // neither file moved: this is damage
         retry();
         between();
         continue;
      }
      if (settled()) [[likely]]
         return result;
      if (!follow()) return result;
      retry();
      between();
   }
}

/// True when nothing that the operation read can have been cut off or re-formatted meanwhile.
template <class Ops> [[gnu::always_inline]] inline bool MirakReader<Ops>::settled() const {
   auto const* header = slots_.header();
   if (!header) return true;
   // SYNC(kestor) load: it follows all loads of the operation, so if any of them saw a re-format, this one
   // does. The seed shares the slot count's line.
   return !slots_.moved() && !buckets_.buckets().moved() &&
          Mem::loadShared(header->kestor) == kestorId_.value() &&
          Mem::loadShared(header->hashSeed) == ops_.keyOps.hashSeed;
}

template <class Ops>
auto MirakReader<Ops>::lookup(Key const& key, bool& found, void* buffer) const -> Value const* {
   ++counters_.lookups;
   if (auto const* header = slots_.header()) {
      // The words that are asked last; a busy writer keeps their lines in its own cache.
      Mem::prefetchShared(&header->numSlots);
      Mem::prefetchShared(buckets_.buckets().header());
   }
   if (overlaps(&key, buffer ? buffer : &buffer_)) [[unlikely]] {
      Key const own = key; // the row is copied over it
      return lookupApart(own, found, buffer);
   }
   return lookupApart(key, found, buffer);
}

/// Whether a key lies where a row is going to be copied to.
template <class Ops> bool MirakReader<Ops>::overlaps(Key const* key, void const* buffer) {
   auto const keyAt = reinterpret_cast<std::uintptr_t>(key);
   auto const bufferAt = reinterpret_cast<std::uintptr_t>(buffer);
   return keyAt < bufferAt + sizeof(Value) && bufferAt < keyAt + sizeof(Key);
}

template <class Ops>
[[gnu::always_inline]] inline auto MirakReader<Ops>::lookupApart(Key const& key, bool& found,
                                                                 void* buffer) const -> Value const* {
   Value const* const value = retried([&] { return buckets_.lookup(key, found, buffer); });
   if (!found) {
      slots_.resetAnchor();
      if (buffer) std::memcpy(buffer, &Ops::typeDefault(), sizeof(Value));
   }
   return value;
}

template <class Ops> bool MirakReader<Ops>::first(Value& value, IterHint& hint) const {
   bool const found = retried([&] {
      bool const any = buckets_.first(0, value, hint);
      if (!any) value = Ops::typeDefault();
      return any;
   });
   if (!found) slots_.resetAnchor();
   return found;
}

template <class Ops> bool MirakReader<Ops>::next(Key const& key, Value& value, IterHint& hint) const {
   Key const own = key; // it may lie in `value`
   // A hint of before a resize may name a bucket of the old index: a repeat searches by the key.
   bool const found = retried([&] { return buckets_.next(own, value, hint); }, [&] { hint.bucket = noSlot; });
   if (!found) slots_.resetAnchor();
   return found;
}

template <class Ops> bool MirakReader<Ops>::getValue(u32 slot, Value& buffer, void* defaultOut) const {
   bool const occupied =
       retried([&] { return slot < slots_.capacity() && slots_.getValue(slot, buffer).occupied(); });
   if (!occupied) {
      slots_.resetAnchor();
      if (defaultOut) std::memcpy(defaultOut, &Ops::typeDefault(), sizeof(Value));
   }
   return occupied;
}

} // namespace Mirak

#include "Mirak/MirakReaderLifecycle.h"
