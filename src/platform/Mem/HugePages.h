// SPDX-License-Identifier: Apache-2.0
// Huge pages for shared mappings: 2 MiB behind one entry of the page table instead of 512. A lookup in a
// large table touches places all over it, and with small pages each touch costs a walk of the page table
// besides. Only a matter of speed: whatever the kernel refuses, small pages do the same.
//
// Shared memory files get small pages unless the mount says otherwise. MADV_COLLAPSE (Linux 6.1) makes a
// huge page of them on demand, for all who map the file at an aligned place, and takes no more memory than
// 2 MiB that are in use anyway. A process that must not be given huge pages says so to the kernel:
// prctl(PR_SET_THP_DISABLE).
//
// It deliberately asks for no memory beyond what its caller needs, and never for a whole file at once.
#pragma once

#include "Mem/SharedWords.h"

namespace Mem {

inline constexpr u64 hugePageSize = u64{2} << 20;

/// Holds `bytes` (whole pages) of address space from a multiple of hugePageSize on, or from `wish` if that is
/// free; nothing may be touched there. Null if the kernel refuses.
char* reserveAligned(u64 bytes, void* wish);

/// The huge pages of one mapping; remembers when it is no use to ask.
class HugePages {
public:
   bool possible() const { return possible_; }
   /// Makes [at, at + hugePageSize) one huge page; the contents stay. `at` is aligned, in memory as in the
   /// file, and some of the range has a page already. Half a millisecond. @return whether it is one now
   bool make(char* at);
   void reset() { possible_ = true; }
   /// Ask the kernel also while the machine has more to do than it can: for tests, whose machines often do.
   static inline bool evenIfCrowded = false;

private:
   bool possible_ = true;
};

} // namespace Mem
