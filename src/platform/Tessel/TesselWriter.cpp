// SPDX-License-Identifier: Apache-2.0
// The one instance of the queue's writer. TesselWriterTurn.h has what happens while it serves,
// TesselWriterFiles.h how it comes to its files and proves them.
#include "Tessel/TesselWriterFiles.h"
#include "Tessel/TesselWriterTurn.h"

namespace Tessel {

template class TesselWriter<BasicSlot, u32>;

} // namespace Tessel
