// SPDX-License-Identifier: Apache-2.0
// Which slots of a shadow's copy are in use, by size classes of their index: enough to tell in one step how
// short the copy may be cut. The classes are those at which the shared table itself is cut down.
#pragma once

#include "Mem/SharedWords.h"

#include <array>
#include <bit>

namespace Mirak {

using Mem::u32;
using Mem::u64;

class SlotCounters {
public:
   /// @param slotsInFirstPage of the shared slot file
   explicit SlotCounters(u32 slotsInFirstPage)
      : shift_(slotsInFirstPage ? static_cast<u32>(std::bit_width(slotsInFirstPage)) - 1 : 0) {}

   void add(u32 slot) {
      u32 const sizeClass = classOf(slot);
      ++counts_[sizeClass];
      mask_ |= u64{1} << sizeClass;
   }
   void remove(u32 slot) {
      u32 const sizeClass = classOf(slot);
      if (--counts_[sizeClass] == 0) mask_ &= ~(u64{1} << sizeClass);
   }
   /// A number of slots that covers all that are in use, 0 if none is.
   u32 largestOccupied() const {
      if (mask_ == 0) return 0;
      u64 const slots = u64{1} << (static_cast<u32>(std::bit_width(mask_)) - 1 + shift_);
      return slots > 0xffffffff ? 0xffffffff : static_cast<u32>(slots);
   }

private:
   /// 0: below 2^shift; n: below 2^(shift + n), but not below half of that
   u32 classOf(u32 slot) const { return static_cast<u32>(std::bit_width(slot >> shift_)); }

   u32 const shift_;
   u64 mask_ = 0; ///< bit n: class n isn't empty
   std::array<u32, 33> counts_{};
};

} // namespace Mirak
