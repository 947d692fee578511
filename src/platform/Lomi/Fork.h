// SPDX-License-Identifier: Apache-2.0
// Lets objects that must not be used in a forked child notice that they are in one, without a system call.
#pragma once

#include <atomic>
#include <cstdint>

namespace Lomi {

namespace Impl {
extern std::atomic<std::uint32_t> forks;
}

/// Forks between the program's start and this process. Equal values mean: still the same process.
inline std::uint32_t forkGeneration() { return Impl::forks.load(std::memory_order_relaxed); }

} // namespace Lomi
