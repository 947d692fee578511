// SPDX-License-Identifier: Apache-2.0
// How a shadow is read, by key and by walking. Included by ShadowStore.h only.
//
// A full shadow is read in its own memory alone, and a row that is found is returned where it lies: good
// until the next read or change. A keyshadow finds the key in its own memory and the row in the shared slot;
// where that holds another row by now, the table's own index is asked, so that what is returned is in the
// table.
//
// Inside a callback. While a row is being removed its key isn't found, and every other key is looked for in
// the index. While a row is being entered it is found as it will be.
//
// A walk goes in the order of the index, by the key that it last returned; the hint only saves the search.
// Any change may come between two steps: a row that stays is returned once, one that came is returned if it
// lies ahead, one that went isn't.
#pragma once

#include "Mirak/ShadowStore.h"

#include <cstring>

namespace Mirak {

template <class Slot>
auto ShadowStore<Slot>::directLookup(Key const& key, bool& found, void* out) const -> Value const* {
   currentAnchor_ = readerAnchor_;
   return reader_.lookup(key, found, out);
}

template <class Slot>
auto ShadowStore<Slot>::lookup(Key const& key, bool& found, void* out) const -> Value const* {
   ++counters_.lookups;
   found = false;
   if (pendingValue_ || pendingRemovedKey_)
      if (Value const* const value = lookupPending(key, found, out)) return value;
   currentAnchor_ = readerAnchor_;
   Slot const* const slot = enabled_ ? hashMap_.find(key) : nullptr;
   if (!slot) return &Ops::typeDefault();
   if constexpr (Slot::keepsValue) {
      found = true;
      return &slot->value;
   } else {
      Value const* const value = safeValue(*slot, out);
      found = value != nullptr;
      return value ? value : &Ops::typeDefault();
   }
}

/// Answers from the change in progress. @return null: it concerns another key
template <class Slot>
auto ShadowStore<Slot>::lookupPending(Key const& key, bool& found, void* out) const -> Value const* {
   Key const& pending = pendingRemovedKey_ ? *pendingRemovedKey_ : Ops::key(*pendingValue_);
   if (!(pending == key)) {
      ++counters_.pendingLookupMisses;
      return nullptr;
   }
   ++counters_.pendingLookupHits;
   currentAnchor_ = cacheAnchor_;
   found = !pendingRemovedKey_;
   Value const& value = found ? *pendingValue_ : Ops::typeDefault();
   if constexpr (Slot::keepsValue) {
      return &value;
   } else {
      // A copy: the next change is fetched into the same buffer.
      void* const to = out ? out : &scratch_;
      std::memcpy(to, &value, sizeof(Value));
      return found || out ? static_cast<Value const*>(to) : &Ops::typeDefault();
   }
}

/// The row of a local slot of a keyshadow. @return null: it has gone from the table, and the copy will learn
/// of it
template <class Slot> auto ShadowStore<Slot>::safeValue(Slot const& slot, void* out) const -> Value const* {
   Value& target = out ? *static_cast<Value*>(out) : scratch_;
   u32 const index = indexOf(slot);
   Key const key = slot.rowKey();
   try {
      if (reader_.getValue(index, target, nullptr)) {
         if (Ops::key(target) == key) return &target;
         ++counters_.shadowKeyMismatches;
      } else if (index >= reader_.capacity()) {
         LOMI_TRACE(debugHandler(), 5, "KeyShadowSlot", "slotIndex:{} shmemCapacity:{}, returning not found",
                    index, reader_.capacity());
      }
   } catch (TableReformattedException const&) {
      throw;
   } catch (Lomi::CorruptionDetectedException const&) {
      LOMI_TRACE(debugHandler(), 5, "KeyShadowSlot", "unable to retrieve slotIndex:{}, returning not found",
                 index);
   }
   // The row may stand elsewhere already, with the entry that says so still to come.
   bool found = false;
   Value const* const value = reader_.lookup(key, found, &target);
   return found ? value : nullptr;
}

template <class Slot> bool ShadowStore<Slot>::first(u32 bucket, Value& value, IterHint& hint) const {
   return yield(enabled_ ? hashMap_.first(bucket, coming()) : nullptr, value, hint);
}

template <class Slot> bool ShadowStore<Slot>::next(Key const& key, Value& value, IterHint& hint) const {
   Slot const* at = nullptr;
   if (hint.slot < numSlots_)
      at = &slots_[hint.slot];
   else
      ++counters_.nextSlowPath;
   return yield(enabled_ ? hashMap_.next(key, at, coming()) : nullptr, value, hint);
}

/// Hands out the row of the slot, or of the next one that has any.
template <class Slot> bool ShadowStore<Slot>::yield(Slot const* slot, Value& value, IterHint& hint) const {
   currentAnchor_ = readerAnchor_;
   for (; slot; slot = hashMap_.next(slot->rowKey(), slot, coming())) {
      hint.slot = indexOf(*slot);
      if constexpr (Slot::keepsValue) {
         if (&value != &slot->value) value = slot->value;
         return true;
      } else {
         if (safeValue(*slot, &value)) return true;
      }
   }
   value = Ops::typeDefault();
   return false;
}

} // namespace Mirak
