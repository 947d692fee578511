// SPDX-License-Identifier: Apache-2.0
// The types of tables, for programs that take any of them (Mirak/AnyTable.h).
#pragma once

#include "Mirak/AnyTable.h"

#include <span>
#include <string_view>

namespace FlowTracking {

HOFLOW_EXPORT std::span<Mirak::TableType const> tableTypes();

/// @param valueType the rows' type as a slot file's header names it. Null if there is no such table
HOFLOW_EXPORT Mirak::TableType const* tableTypeNamed(std::string_view valueType);

} // namespace FlowTracking
