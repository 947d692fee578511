// SPDX-License-Identifier: Apache-2.0
// The module of controls. They are used through their own class; the registry names their type.
#include "ZebMirak/Types.h"

namespace {
constexpr Zeb::TypeInfo control{"ZebMirak::CollectionControl",
                                Zeb::typeIsEntity | Zeb::typeByReference,
                                sizeof(ZebMirak::CollectionControl),
                                {},
                                {}};
constexpr Zeb::TypeInfo const* types[] = {&control};
} // namespace

constinit Zeb::Module const _CollectionControl_e111d95_zebModule{"CollectionControl", types};
