// SPDX-License-Identifier: Apache-2.0
// For objects that may have a call of their own on the stack when they are let go. They end in the thread's
// loop, where no such call can be.
#pragma once

#include "Lomi/Export.h"

#include <memory>

namespace Lomi {

/// Destroys the object at the next dispatch of this thread's Lomi::TaskSchedulerRoot, or when the thread
/// ends. Its destructor must not throw.
HOFLOW_EXPORT void deleteLater(std::shared_ptr<void> object);

} // namespace Lomi
