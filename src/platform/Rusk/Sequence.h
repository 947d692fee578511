// SPDX-License-Identifier: Apache-2.0
// The running number of a table's changes. The queue gives it, the wake-up reports it.
#pragma once

#include "Mem/SharedWords.h"

namespace Rusk {

/// The first change has number 1 or more; 0 stands for "none yet".
using Sequence = Mem::u64;

/// No change ever has this number: it marks what doesn't come from the queue.
inline constexpr Sequence noSequence = ~Sequence{0};

} // namespace Rusk
