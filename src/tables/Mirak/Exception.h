// SPDX-License-Identifier: Apache-2.0
// The table family's own exceptions; the general ones are in Lomi/Exception.h.
#pragma once

#include "Lomi/Exception.h"

namespace Mirak {

/// An insert into a full fixed-size table. Nothing was changed; the table stays usable.
class HOFLOW_EXPORT TableFullException : public Lomi::Exception {
public:
   using Lomi::Exception::Exception;
};

/// The writer formatted the table anew under an attached reader: not damage. The reader detaches and
/// initializes again, and starts over: no row, hint or anchor of before means anything now.
class HOFLOW_EXPORT TableReformattedException : public Lomi::CorruptionDetectedException {
public:
   using Lomi::CorruptionDetectedException::CorruptionDetectedException;
};

} // namespace Mirak
