// SPDX-License-Identifier: Apache-2.0
// The registry of statistics cells. See Writer.h.
#include "Thrum/Writer.h"

#include <functional>

namespace Thrum {

std::uint64_t* Writer::cell(char const* name) {
   std::lock_guard const guard(lock_);
   return &cells_.try_emplace(name, 0).first->second;
}

std::vector<std::pair<std::string, std::uint64_t>> Writer::cells() const {
   std::lock_guard const guard(lock_);
   return {cells_.begin(), cells_.end()};
}

Writer& writer() {
   static auto* const ofTheProcess = new Writer; // outlives every entity, static ones too
   return *ofTheProcess;
}

} // namespace Thrum
