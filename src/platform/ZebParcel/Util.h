// SPDX-License-Identifier: Apache-2.0
// Where an entity is. The path names its collections' tables in the file system, so it must not change while
// one of them is mounted; the tree (Zeb/Entity.h) sees to that.
#pragma once

#include "Zeb/Entity.h"

namespace ZebParcel::Util {

/// The names from the tree's root down to the entity, with slashes between them. Empty names are left out:
/// a tree whose root has none gives "flowtracking/default/...".
HOFLOW_EXPORT Zeb::String fullName(Zeb::Ptr<Zeb::Entity const> const& entity);

} // namespace ZebParcel::Util
