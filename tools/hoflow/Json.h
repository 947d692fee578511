// SPDX-License-Identifier: Apache-2.0
// One JSON object as one line. Names of directories may hold bytes that are no text; they are shown as such.
// Rows are written without this, in Schema.cpp: there may be millions of them.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace Tool {

using nlohmann::ordered_json;

inline std::string jsonLine(ordered_json const& object) {
   return object.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

} // namespace Tool
