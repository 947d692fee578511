// SPDX-License-Identifier: Apache-2.0
#include "Tessel/TesselTable.h"

#include <fmt/format.h>

namespace Tessel {

std::string TesselTable::headersToString() const {
   if (!attached()) return "no queue";
   std::string text = header().toString();
   for (u32 side = 0; side < 2; ++side) {
      QueueTable const& table = this->table(side);
      text += fmt::format("\n{}: generation:{} capacity:{} count:{}", tableFiles[side],
                          Mem::loadShared(table.generation), Mem::loadShared(table.capacity),
                          Mem::loadShared(table.count));
   }
   return text;
}

} // namespace Tessel
