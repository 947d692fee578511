// SPDX-License-Identifier: Apache-2.0
// The local slots of a shadow: a copy of the shared slot with the same number, and a node of the local index
// (ShadowHashMap.h) at once. A full shadow keeps the row, a keyshadow its key alone.
//
// Zeroed memory is a dead slot; what a dead slot holds beside its links means nothing.
#pragma once

#include "Mirak/Operations.h"

namespace Mirak {

template <class Ops> struct ValueShadowSlot {
   using OpsType = Ops;
   static constexpr bool keepsValue = true;

   ValueShadowSlot* next;  ///< in the hash chain, null at its end
   ValueShadowSlot** prev; ///< what points to this slot: a bucket, or the slot before it; null: in no chain
   u32 hash;               ///< the key's, bits reversed
   typename Ops::Value value;

   bool dead() const { return !next && !prev; }
   typename Ops::Key const& rowKey() const { return Ops::key(value); }
   bool holds(typename Ops::Value const& row) const { return value == row; }
   void take(typename Ops::Value const& row) { value = row; }
   void clear() { value = Ops::typeDefault(); }
};

template <class Ops> struct KeyShadowSlot {
   using OpsType = Ops;
   static constexpr bool keepsValue = false;

   KeyShadowSlot* next;
   KeyShadowSlot** prev;
   u32 hash;
   typename Ops::Key key;

   bool dead() const { return !next && !prev; }
   typename Ops::Key const& rowKey() const { return key; }
   /// It can't be told: each rewrite of the row counts as a change.
   bool holds(typename Ops::Value const&) const { return false; }
   void take(typename Ops::Value const& row) { key = Ops::key(row); }
   void clear() { key = Ops::key(Ops::typeDefault()); }
};

} // namespace Mirak
