// SPDX-License-Identifier: Apache-2.0
// Stores into the files of tables, past their writers.
#pragma once

#include "Mirak/SlotTable.h"
#include "TestRoot.h"

#include <fcntl.h>

namespace Test {

/// Stores `value` in a file below the root, in place: it may be mapped elsewhere.
template <class T> void poke(std::string const& file, std::size_t offset, T value) {
   int const fd = ::open((testRoot() + "/" + file).c_str(), O_WRONLY | O_CLOEXEC);
   if (::pwrite(fd, &value, sizeof value, static_cast<off_t>(offset)) != sizeof value) std::abort();
   ::close(fd);
}

/// A table as a writer leaves it that dies in the middle of a change: the next one formats it anew.
inline void interrupt(std::string const& table) {
   poke(table + "/slots", offsetof(Mirak::SlotTableHeader, runtimeFlags),
        Mirak::SlotTableHeader::inCriticalSection);
}

} // namespace Test
