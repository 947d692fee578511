// SPDX-License-Identifier: Apache-2.0
#include "Mem/Atomics.h"

#include <cpuid.h>

namespace Mem::Atomics {

bool checkCpuSupport() {
   // CMPXCHG8B and with it aligned 8-byte accesses in one piece.
   unsigned a = 0, b = 0, c = 0, d = 0;
   constexpr unsigned cx8 = 1u << 8;
   return __get_cpuid(1, &a, &b, &c, &d) && (d & cx8);
}

} // namespace Mem::Atomics
