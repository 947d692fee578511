// SPDX-License-Identifier: Apache-2.0
// The page of the one processor family that this library is built for.
#pragma once

#include "Mem/SharedWords.h"

namespace Mem {

inline constexpr u32 pageSize_ = 4096;

constexpr u64 roundUpToPage(u64 bytes) { return (bytes + pageSize_ - 1) / pageSize_ * pageSize_; }

} // namespace Mem
