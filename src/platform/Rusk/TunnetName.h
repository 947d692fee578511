// SPDX-License-Identifier: Apache-2.0
// How a writer process's socket is called in the root of the tables. The owner file carries the name to
// readers.
#pragma once

#include "Lomi/Export.h"
#include "Mem/SharedWords.h"

#include <string>

namespace Rusk {

/// ".rusk.PID", or ".rusk.PID.N" where that one is taken.
struct TunnetName {
   bool valid = false;
   Mem::u32 processId = 0;
   Mem::u32 number = 0;
   std::string text() const;
};
/// Reads such a name. `valid` is false, and the process id 0, if it is none.
HOFLOW_EXPORT TunnetName TunnetNameIs(std::string const& name);

} // namespace Rusk
