// SPDX-License-Identifier: Apache-2.0
// Reads the mark from the file, as a reader's side of a table doesn't show it. See TableMark.h.
#include "TableMark.h"

#include "Lomi/Trace.h"
#include "Mem/Paths.h"
#include "Mirak/SlotTable.h"
#include "Parcel/KestorFile.h"

#include <fcntl.h>
#include <unistd.h>

namespace Agents {

std::optional<TableFacts> tableFacts(std::string const& path) {
   auto const handler = Lomi::Platform::getDebugHandler("Agents", true);
   Mem::Descriptor const folder = Mem::NaoRootPath(*handler, path, false).openDirectory();
   if (!folder) return std::nullopt;
   // While a table is formatted there is no generation.
   Mem::Descriptor const generation(
       ::openat(folder.get(), Parcel::KestorFile::KESTOR_NAME, O_PATH | O_NOFOLLOW | O_CLOEXEC));
   Mem::Descriptor const slots(
       ::openat(folder.get(), "slots", O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
   Mirak::SlotTableHeader header;
   if (!generation || !slots || ::pread(slots.get(), &header, sizeof header, 0) != sizeof header)
      return std::nullopt;
   auto const mark = static_cast<TableMark>(header.scratchpad);
   bool const known = mark == TableMark::filling || mark == TableMark::complete;
   return TableFacts{known ? mark : TableMark::nothing, header.occupiedSlots};
}

} // namespace Agents
