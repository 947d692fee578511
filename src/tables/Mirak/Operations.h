// SPDX-License-Identifier: Apache-2.0
// Mirak::Ops: the policy type of a table. It names the key, the value, how a key is found in a value and
// hashed, and which change queue the writer feeds. Every class of the table family is a template over it.
//
// An Ops object carries the hash seed of one open table. It is a member of each writer and reader, never
// shared and never static: two tables of one process have different seeds.
#pragma once

#include "Lomi/Export.h"
#include "Mirak/SlotLink.h"
#include "Tessel/DummyTesselWriter.h"
#include "Zeb/Hash.h"

#include <type_traits>

namespace Mirak {

/// Finds the key in a value; the stored key is the front of the stored value.
template <class Key, class Value, auto retrieve> struct HOFLOW_EXPORT KeyRetrieval {
   static Key const& key(Value const& value) { return (value.*retrieve)(); }
};

/// Hashes a key with a table's seed. A one-byte key without a hash of its own is hashed as that byte.
template <class Key, bool> struct HOFLOW_EXPORT Hash {
   static u32 hash(Key const& key, u32 seed) {
      if constexpr (requires { key.hash(seed); }) {
         return key.hash(seed);
      } else {
         static_assert(sizeof(Key) == 1 && std::is_trivially_copyable_v<Key>);
         return Zeb::hashSingleAttr<unsigned char>(seed, reinterpret_cast<unsigned char const&>(key));
      }
   }
};

template <class KeyType, class Value, class Retrieval, class Hasher> struct HOFLOW_EXPORT KeyOps {
   u32 hashSeed = 0; ///< of the open table; set at attach, constant until detach

   static KeyType const& key(Value const& value) { return Retrieval::key(value); }
   u32 hash(KeyType const& key) const { return Hasher::hash(key, hashSeed); }
};

/// Copies values as bytes and adds nothing.
template <class Value> struct HOFLOW_EXPORT Marshall {
   static_assert(std::is_trivially_copyable_v<Value>);
   static_assert(sizeof(Value) % 4 == 0, "values are copied in words of 8 and 4 bytes");
};

/// Supplies the default value that a failed lookup hands back.
template <class Value> struct HOFLOW_EXPORT Allocator {
   static Value const& typeDefault() {
      static Value const type_default{};
      return type_default;
   }
};

template <class Key, class Value, class Marshalling, class Allocating> struct HOFLOW_EXPORT ValueOps {
   static Value const& typeDefault() { return Allocating::typeDefault(); }
};

/// Names the policy slot of slot allocation; SlotWriterTable does the work.
template <class Key, class Value> struct HOFLOW_EXPORT SlotAllocator {};

/// No table keeps the previous value of an overwritten entry.
struct HOFLOW_EXPORT NullPrevValueAnchor {};

template <class KeyType, class ValueType, class KeyOperations, class ValueOperations, class SlotAlloc,
          class TesselWriterType, class PrevValueAnchor>
struct HOFLOW_EXPORT Ops {
   using Key = KeyType;
   using Value = ValueType;
   using TesselWriter = TesselWriterType;
   /// Known without the queue's definition: readers of a table need not know how its queue is written.
   static constexpr bool hasChangeQueue = !std::is_same_v<TesselWriterType, Tessel::DummyTesselWriter>;
   static_assert(std::is_same_v<PrevValueAnchor, NullPrevValueAnchor>, "previous values are not supported");
   static_assert(std::is_trivially_copyable_v<Key> && std::is_trivially_copyable_v<Value>);

   KeyOperations keyOps;

   static Key const& key(Value const& value) { return KeyOperations::key(value); }
   static Value const& typeDefault() { return ValueOperations::typeDefault(); }
   u32 hash(Key const& key) const { return keyOps.hash(key); }
};

} // namespace Mirak
