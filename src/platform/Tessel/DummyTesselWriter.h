// SPDX-License-Identifier: Apache-2.0
// The queue policy of tables that tell nobody of their changes. It has no files and no state; tables built
// with it have no queue, and can be read but not followed.
#pragma once

#include "Lomi/Export.h"
#include "Mem/SharedWords.h"

namespace Tessel {

struct HOFLOW_EXPORT DummyTesselWriter {
   void notify(Mem::u32 /*slot*/) {}
   void tombstone(Mem::u32 /*slot*/) {}
};

} // namespace Tessel
