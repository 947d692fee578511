// SPDX-License-Identifier: Apache-2.0
// The small table of the campaigns on crashes, schedules and kills. A key carries its own hash, so that a
// test chooses bucket, order and collisions; every word of a row follows from its key and a generation, so
// that each row proves itself: a torn one, or one of another key, is told by looking at it alone.
#pragma once

#include "Mirak/MirakReader.h"
#include "Mirak/MirakWriter.h"
#include "Mirak/TesselPos.h"

#include <fmt/format.h>

#include <algorithm>
#include <compare>
#include <cstdlib>
#include <map>
#include <string>

namespace Test {

using Mem::u32;
using Mem::u64;

struct Key {
   static constexpr char const* typeName = "Test::Key";
   static inline bool seeded = false; ///< whether the table's seed has a say in the hash

   u32 hashBits = 0;
   u32 number = 0;

   u32 hash(u32 seed) const { return seeded ? (hashBits ^ seed) * 0x9e3779b1u : hashBits; }
   friend bool operator==(Key, Key) = default;
   bool operator<(Key other) const { return number < other.number; } // only asked among equal hashes
   std::string str() const { return fmt::format("{:#x}/{}", hashBits, number); }
   u64 id() const { return u64{number} << 32 | hashBits; }
};

/// What word `index` of a row must be. Never 0, so a default row proves nothing.
inline u32 rowWord(Key key, u32 generation, u32 index) {
   u64 mix = key.id() * 0x9e3779b97f4a7c15u + (u64{generation} << 20) + index;
   mix = (mix ^ mix >> 31) * 0xd6e8feb86659fd93u;
   return static_cast<u32>(mix >> 32) | 1u;
}

/// @tparam queued whether the table has a change queue
template <u32 Words, bool queued = false> struct Row {
   static_assert(Words >= 2);
   static constexpr bool hasQueue = queued;
   static constexpr char const* typeName = "Test::Row";

   Key ownKey;
   u32 words[Words] = {}; ///< the generation, then words that follow from it

   static Row make(Key key, u32 generation) {
      Row row{key, {generation}};
      for (u32 i = 1; i < Words; ++i) row.words[i] = rowWord(key, generation, i);
      return row;
   }
   friend bool operator==(Row const&, Row const&) = default;
   Key const& key() const { return ownKey; }
   u32 generation() const { return words[0]; }
   bool sound() const {
      for (u32 i = 1; i < Words; ++i)
         if (words[i] != rowWord(ownKey, generation(), i)) return false;
      return true;
   }
   std::string str() const { return fmt::format("{}@{}", ownKey.str(), generation()); }
};

template <class R>
using QueueOf = std::conditional_t<R::hasQueue, Tessel::TesselWriter<Tessel::BasicSlot, Mirak::TesselPos>,
                                   Tessel::DummyTesselWriter>;
template <class R>
using OpsOf =
    Mirak::Ops<Key, R, Mirak::KeyOps<Key, R, Mirak::KeyRetrieval<Key, R, &R::key>, Mirak::Hash<Key, false>>,
               Mirak::ValueOps<Key, R, Mirak::Marshall<R>, Mirak::Allocator<R>>, Mirak::SlotAllocator<Key, R>,
               QueueOf<R>, Mirak::NullPrevValueAnchor>;

/// A table's content: the generation of each key.
struct KeyLess {
   bool operator()(Key a, Key b) const { return a.id() < b.id(); }
};
using Content = std::map<Key, u32, KeyLess>;

/// The table's order, by the hash of `seed`.
inline bool before(Key a, Key b, u32 seed) {
   u32 const x = Lomi::Util::reverse(a.hash(seed)), y = Lomi::Util::reverse(b.hash(seed));
   return x != y ? x < y : a < b;
}

/// A handler that traces nothing: the campaigns provoke failures by the thousand.
inline Lomi::Platform::DebugHandler& quiet() {
   static Lomi::Platform::DebugHandler handler("test");
   static bool const once = (handler.maskIs(0), true);
   (void)once;
   return handler;
}

/// How much less a sanitizer's build does by default.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr u64 slow = 8;
#else
inline constexpr u64 slow = 1;
#endif

/// A number from the environment, else the default.
inline u64 setting(char const* name, u64 otherwise) {
   char const* const text = std::getenv(name);
   return text ? std::strtoull(text, nullptr, 0) : otherwise;
}

} // namespace Test
