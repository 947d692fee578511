// SPDX-License-Identifier: Apache-2.0
#include "Lomi/Fork.h"

#include <pthread.h>

namespace Lomi::Impl {

std::atomic<std::uint32_t> forks{0};

namespace {
[[maybe_unused]] int const registered =
    pthread_atfork(nullptr, nullptr, [] { forks.fetch_add(1, std::memory_order_relaxed); });
}

} // namespace Lomi::Impl
