// SPDX-License-Identifier: Apache-2.0
// The registered type of controls, as the type of entities' attributes. Variables of it are
// Zeb::Ptr<ZebMirak::CollectionControl>.
#pragma once

#include "Zeb/Composite.h"
#include "ZebMirak/CollectionControl.h"

extern HOFLOW_EXPORT Zeb::Module const _CollectionControl_e111d95_zebModule;

namespace Zeb {
template <>
inline constexpr ZebType typeOf<ZebMirak::CollectionControl>{&_CollectionControl_e111d95_zebModule, 0};
} // namespace Zeb
