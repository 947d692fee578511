// SPDX-License-Identifier: Apache-2.0
// Paths of entities. See Util.h.
#include "ZebParcel/Util.h"

namespace ZebParcel::Util {

Zeb::String fullName(Zeb::Ptr<Zeb::Entity const> const& entity) {
   std::string path;
   for (auto at = entity; at; at = at->parent()) {
      auto const name = at->name();
      if (name.empty()) continue;
      path.insert(0, path.empty() ? name.str() : name.str() + "/");
   }
   return path;
}

} // namespace ZebParcel::Util
