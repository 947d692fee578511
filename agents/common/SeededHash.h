// SPDX-License-Identifier: Apache-2.0
// The hash of the agents' private maps of flows.
#pragma once

#include <cstddef>
#include <random>

namespace Agents {

/// Whoever made the packets doesn't know its seed, and so can't make them collide.
template <class Key> struct SeededHash {
   unsigned seed = std::random_device()();
   std::size_t operator()(Key const& key) const { return key.hash(seed); }
};

} // namespace Agents
