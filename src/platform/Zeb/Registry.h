// SPDX-License-Identifier: Apache-2.0
// The process's modules and types, by name. A module is added while the program or library that holds it is
// loaded, before any thread; from then on everything here only reads.
#pragma once

#include "Zeb/ZebType.h"

#include <span>
#include <string_view>

namespace Zeb {

/// Adds a module and those that it imports, each once.
HOFLOW_EXPORT void zebModuleIs(Module const* module);

/// In the order in which they came.
HOFLOW_EXPORT std::span<Module const* const> modules();

/// The type of that name, with its namespace. No type if there is none.
HOFLOW_EXPORT ZebType typeNamed(std::string_view name);

} // namespace Zeb
