// SPDX-License-Identifier: Apache-2.0
// A change queue's files seen from outside: what their headers say, and whether the next writer would take
// them over. Lengths and headers are looked at; the entries are the writer's matter.
#pragma once

#include "Mem/Paths.h"
#include "Parcel/KestorId.h"
#include "Tessel/QueueFormat.h"

#include <optional>
#include <string>

namespace Tool {

struct QueueLook {
   std::optional<Tessel::QueueHeader> header; ///< a sound one of this generation, or none
   std::optional<Tessel::QueueTable> table;   ///< the current table's header
   std::string problem;    ///< names the file; what the next writer would not take over. Beside a writer at
                           ///< work one look doesn't count: it may have met a step half way
   std::string unreadable; ///< names the file that can't be opened, so that nothing is known of it
};

/// One look. @param path the table's directory, for messages
QueueLook lookAtQueue(Mem::Descriptor const& directory, std::string const& path, Parcel::KestorId kestor,
                      bool writerAlive);

} // namespace Tool
