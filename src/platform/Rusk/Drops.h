// SPDX-License-Identifier: Apache-2.0
// Why the writer's side closed a connection, counted.
#pragma once

#include "Mem/SharedWords.h"

#include <array>
#include <cstddef>

namespace Rusk {

enum class Drop : unsigned {
   badMessage,      ///< wrong size, unknown type, impossible content, or not at this place
   descriptors,     ///< descriptors came along
   secondSleep,     ///< SLEEP before the answer to the one before
   wrongTable,      ///< no such table listens in this process
   wrongGeneration, ///< the table's content is of another generation
   notPermitted,    ///< a user who may not read the table
   tooMany,         ///< as many connections as this user, or all users, may have
   tooOften,        ///< more messages than a follower has reason to send
   notReading,      ///< an answer didn't fit into what the peer leaves unread
   silent,          ///< connected, said nothing, and was in the way of others
   count
};

struct Drops {
   std::array<Mem::u64, static_cast<std::size_t>(Drop::count)> counts{};

   Mem::u64& operator[](Drop why) { return counts[static_cast<std::size_t>(why)]; }
   Mem::u64 operator[](Drop why) const { return counts[static_cast<std::size_t>(why)]; }
   Mem::u64 total() const {
      Mem::u64 sum = 0;
      for (auto const one : counts) sum += one;
      return sum;
   }
};

} // namespace Rusk
