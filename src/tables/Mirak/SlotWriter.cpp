// SPDX-License-Identifier: Apache-2.0
// Arithmetic of the slot file's growth and the draw of its hash seed. See SlotWriter.h.
#include "Mirak/SlotWriter.h"

#include <algorithm>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <sys/random.h>

namespace Mirak {

u32 drawHashSeed() {
   // rand() alone gives every process the same numbers; a library may not call srand() for it.
   u32 noise = 0;
   while (getrandom(&noise, sizeof noise, 0) < 0 && errno == EINTR) {
   }
   return static_cast<u32>(std::rand()) ^ noise;
}

u32 grownCapacity(u32 capacity, u32 maxSlots) {
   static_assert(FLT_EVAL_METHOD == 0,
                 "the creep is defined in single precision; a wider one rounds differently");
   // A capacity that doubles past 32 bits could never be mapped; keep it a number that the size check
   // refuses.
   if (capacity >= 0x40000000) return 0xffffffff;
   if (capacity < maxSlots) {
      auto const doubled = static_cast<u32>(static_cast<float>(capacity) * 2.0f);
      return std::min(doubled, maxSlots);
   }
   return static_cast<u32>(std::ceil(static_cast<float>(capacity) * 1.1f));
}

} // namespace Mirak
