// SPDX-License-Identifier: Apache-2.0
// Whether this processor stores and loads 8 bytes in one access.
#pragma once

#include "Lomi/Export.h"

namespace Mem::Atomics {

HOFLOW_EXPORT bool checkCpuSupport();

} // namespace Mem::Atomics
