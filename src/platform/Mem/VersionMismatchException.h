// SPDX-License-Identifier: Apache-2.0
// Thrown when a version anchor is asked for and its slot has changed since.
#pragma once

#include "Lomi/Exception.h"

namespace Mem {

class HOFLOW_EXPORT VersionMismatchException : public Lomi::Exception {
   using Exception::Exception;
};

} // namespace Mem
