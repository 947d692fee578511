// SPDX-License-Identifier: Apache-2.0
// The caller's position in a walk. It only makes the next step fast: a hint that no longer fits costs a
// search for the last key, never a wrong row. It means nothing after a detach; a walk that goes on then
// starts from a new one.
#pragma once

#include "Mirak/SlotLink.h"

#include <fmt/format.h>

namespace Mirak {

struct IterHint {
   u32 version = 0;     ///< versionFlags of the slot last returned
   u32 slot = noSlot;   ///< its index
   u32 bucket = noSlot; ///< the bucket it was found in; noSlot never fits
};

} // namespace Mirak

template <> struct fmt::formatter<Mirak::IterHint> : fmt::formatter<std::string> {
   template <class Context> auto format(Mirak::IterHint const& hint, Context& context) const {
      return fmt::format_to(context.out(), "IterHint{{ version {}, slot {}, bucket {} }}", hint.version,
                            hint.slot, hint.bucket);
   }
};
