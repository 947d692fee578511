// SPDX-License-Identifier: Apache-2.0
// The position of a slot's current entry in the change queue (Tessel/TesselWriter.h), as a table names it.
#pragma once

#include "Tessel/QueueFormat.h"

namespace Mirak {

using TesselPos = Tessel::u32;

} // namespace Mirak
