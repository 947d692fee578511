// SPDX-License-Identifier: Apache-2.0
// Proof of which version of a slot was read: the sequence word that was seen and where it lies. Comparing the
// word there now with the remembered one tells any overwrite, removal or re-use. A table that remaps makes
// old anchors void; the tables judge that, not this header.
#pragma once

#include "Mem/SharedWords.h"

namespace Mem {

inline constexpr u32 anchorUnset = 0xfffffffe; // nothing has been read yet
inline constexpr u32 anchorGone = 0xffffffff;  // the slot no longer lies in the table

struct VersionAnchor {
   u32 word = 0;
   u32 offset = anchorUnset; // of the word, from the mapping's base
   char const* base = nullptr;
};

/// An anchor without the pointer, to be kept beside a cached value.
struct CacheVersionAnchor {
   u32 word = 0;
   u32 offset = anchorUnset;
   friend bool operator==(CacheVersionAnchor const&, CacheVersionAnchor const&) = default;
};

} // namespace Mem
