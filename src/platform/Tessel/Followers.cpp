// SPDX-License-Identifier: Apache-2.0
#include "Tessel/Followers.h"

namespace Tessel {

Followers::~Followers() = default;

} // namespace Tessel
