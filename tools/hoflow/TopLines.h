// SPDX-License-Identifier: Apache-2.0
// The lines of `top`, for paper and for the screen: which columns there are, what stands in them, in which
// order the tables come.
#pragma once

#include "Output.h"
#include "Pulse.h"

#include <array>
#include <string>
#include <vector>

namespace Tool {

enum class TopOrder { name, rows, rowRate, changeRate, queueLoad };
std::string_view orderText(TopOrder order);
TopOrder nextOrder(TopOrder order);

/// The first is the table's name, the last may be long.
std::vector<Columns::Column> const& topColumns();

struct TopLine {
   std::vector<std::string> words; ///< one for each column
   Style style;                    ///< of the last word
};
/// Large numbers first where it isn't the name; then by name.
std::vector<TopLine> topLines(Pulses const& pulses, TopOrder order);

} // namespace Tool
