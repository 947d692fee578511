// SPDX-License-Identifier: Apache-2.0
// Every access to a word that another process may read goes through this header, and nothing else does.
//
// Roles. One writer process stores; any number of reader processes load from read-only mappings. A reader
// never stores. Nothing here locks, fences or does a read-modify-write: on x86-64 each function below is
// plain moves (a test disassembles the hot paths to keep it so). Orders are fixed here once: every load is an
// acquire, every store a release, so that a load which sees a store also sees all that the writer stored
// before it, and loads stay in program order. The algorithms above contain no memory_order of their own.
//
// Widths. A link and a version pair (8 bytes, 8-aligned) are one access: a reader never pairs an old version
// with a new value. Values are copied in 8-byte words with a 4-byte tail; a row's padding behind its last
// 4-byte word is never touched. A copy of several words may be torn; the caller's sequence word proves that
// it wasn't.
//
// The test build (HOFLOW_TEST_SEAM) calls Mem::Seam before each access, see Mem/Seam.h. Other builds compile
// to the bare access.
#pragma once

#include "Mem/Seam.h"

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Mem {

using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;

static_assert(std::endian::native == std::endian::little, "the file format is little-endian");
static_assert(std::atomic_ref<u64>::is_always_lock_free, "a version pair must be one access");
static_assert(std::atomic_ref<u32>::is_always_lock_free, "a shared word must be one access");

/// An 8-byte pair that lies in a shared file: `version` first, then the value. Load and store it whole.
template <class T> struct alignas(8) VersionedRef {
   static_assert(sizeof(T) == 4, "version and value make one 8-byte access");
   u32 version;
   T value;
};

/// Loads one shared word of 2, 4 or 8 bytes. On a PROT_READ page a plain load is all that happens.
template <class Word> inline Word loadShared(Word const& word) {
   static_assert(std::is_integral_v<Word> && sizeof(Word) <= 8);
   Seam::load(&word, sizeof(Word));
   return std::atomic_ref<Word>(const_cast<Word&>(word)).load(std::memory_order_acquire);
}

/// Stores one shared word. Writer only. Whatever was stored before is visible to a load that sees it.
template <class Word> inline void storeShared(Word& word, Word value) {
   static_assert(std::is_integral_v<Word> && sizeof(Word) <= 8);
   Seam::store(&word, &value, sizeof(Word));
   std::atomic_ref<Word>(word).store(value, std::memory_order_release);
}

/// Loads a pair (a link, a versioned count) in one 8-byte access.
template <class Pair> inline Pair loadPair(Pair const& pair) {
   static_assert(sizeof(Pair) == 8 && alignof(Pair) == 8 && std::is_trivially_copyable_v<Pair>);
   Seam::load(&pair, 8);
   static_assert(std::atomic_ref<Pair>::is_always_lock_free);
   return std::atomic_ref<Pair>(const_cast<Pair&>(pair)).load(std::memory_order_acquire);
}

/// Stores a pair in one 8-byte access. Writer only. This is the store by which links and counts are
/// published.
template <class Pair> inline void publishPair(Pair& pair, Pair value) {
   static_assert(sizeof(Pair) == 8 && alignof(Pair) == 8 && std::is_trivially_copyable_v<Pair>);
   Seam::store(&pair, &value, 8);
   std::atomic_ref<Pair>(pair).store(value, std::memory_order_release);
}

/// Copies `bytes` (a multiple of 4) from an 8-aligned shared place into private memory, word by word.
[[gnu::always_inline]] inline void loadShared(void* into, void const* shared, std::size_t bytes) {
   auto* out = static_cast<char*>(into);
   auto* in = static_cast<char const*>(shared);
   std::size_t at = 0;
#pragma GCC unroll 16
   for (; at + 8 <= bytes; at += 8) {
      u64 const word = loadShared(*reinterpret_cast<u64 const*>(in + at));
      std::memcpy(out + at, &word, 8);
   }
   if (at < bytes) {
      u32 const word = loadShared(*reinterpret_cast<u32 const*>(in + at));
      std::memcpy(out + at, &word, 4);
   }
}

/// The same for a size that is known when compiled: one move for each word, no loop.
template <std::size_t bytes>
[[gnu::always_inline]] inline void loadSharedRow(void* into, void const* shared) {
   static_assert(bytes % 4 == 0);
   auto* out = static_cast<char*>(into);
   auto* in = static_cast<char const*>(shared);
#pragma GCC unroll 64
   for (std::size_t at = 0; at < bytes / 8 * 8; at += 8) {
      u64 const word = loadShared(*reinterpret_cast<u64 const*>(in + at));
      std::memcpy(out + at, &word, 8);
   }
   if constexpr (bytes % 8 != 0) {
      u32 const word = loadShared(*reinterpret_cast<u32 const*>(in + bytes - 4));
      std::memcpy(out + bytes - 4, &word, 4);
   }
}

/// Copies `bytes` (a multiple of 4) of private memory to an 8-aligned shared place, word by word. Writer
/// only.
[[gnu::always_inline]] inline void storeShared(void* shared, void const* from, std::size_t bytes) {
   auto* out = static_cast<char*>(shared);
   auto* in = static_cast<char const*>(from);
   std::size_t at = 0;
#pragma GCC unroll 16
   for (; at + 8 <= bytes; at += 8) {
      u64 word;
      std::memcpy(&word, in + at, 8);
      storeShared(*reinterpret_cast<u64*>(out + at), word);
   }
   if (at < bytes) {
      u32 word;
      std::memcpy(&word, in + at, 4);
      storeShared(*reinterpret_cast<u32*>(out + at), word);
   }
}

/// Looks at a pair ahead of need, only to prefetch what it may point at. Nothing may be decided by its value:
/// it is no access in the protocol's sense, orders nothing and passes no seam.
template <class Pair> inline Pair peekPair(Pair const& pair) {
   static_assert(sizeof(Pair) == 8 && alignof(Pair) == 8 && std::is_trivially_copyable_v<Pair>);
   return std::atomic_ref<Pair>(const_cast<Pair&>(pair)).load(std::memory_order_relaxed);
}

/// Asks the processor to bring a line close, shared or not. No access in the protocol's sense: no value is
/// used. Always inline: as a call it would be dropped, since it has no effect that the compiler knows of.
[[gnu::always_inline]] inline void prefetchShared(void const* at) { __builtin_prefetch(at, 0, 3); }
/// The same for all lines of an object, at any address.
template <class T> [[gnu::always_inline]] inline void prefetchWhole(T const& object) {
   auto const* const at = reinterpret_cast<char const*>(&object);
   for (std::size_t line = 0; line < sizeof(T); line += 64) prefetchShared(at + line);
   prefetchShared(at + sizeof(T) - 1);
}
/// The same for a line that the writer is about to store to: it comes without the other processors' copies.
/// The builtin would need a compiler flag for it; processors without the instruction do nothing.
[[gnu::always_inline]] inline void prefetchSharedForStore(void const* at) {
   asm volatile("prefetchw %0" : : "m"(*static_cast<char const*>(at)));
}

} // namespace Mem
