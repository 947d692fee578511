// SPDX-License-Identifier: Apache-2.0
// Thrum: statistics of the process. A cell is a 64-bit count with a name, and whoever counts holds a pointer
// to it: an increment is an addition in memory. Two that ask for the same name count in the same cell.
//
// Cells live as long as the process and are listed by name. They are not atomic: each is counted in on one
// thread, and what another thread lists of it may be a little old.
#pragma once

#include "Lomi/Export.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace Thrum {

class HOFLOW_EXPORT Writer {
public:
   Writer() = default;
   Writer(Writer const&) = delete;
   Writer& operator=(Writer const&) = delete;

   /// The cell of that name, made with 0 if there is none yet. Thread-safe.
   std::uint64_t* cell(char const* name);
   /// Names and counts of all cells, by name. Thread-safe.
   std::vector<std::pair<std::string, std::uint64_t>> cells() const;

private:
   mutable std::mutex lock_;
   std::map<std::string, std::uint64_t, std::less<>> cells_; ///< a map's values never move
};

/// The process's one writer.
HOFLOW_EXPORT Writer& writer();

} // namespace Thrum
