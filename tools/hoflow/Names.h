// SPDX-License-Identifier: Apache-2.0
// Which tables there are, and which one a person means. A table's name is its path below the root; a
// directory is a table if it holds one of a table's files. Nothing here looks into a file.
#pragma once

#include "Output.h"

#include <string>
#include <string_view>
#include <vector>

namespace Tool {

struct Scan {
   std::vector<std::string> names;   ///< sorted
   std::vector<std::string> skipped; ///< directories that may not be read
};

/// All tables below the root. @throws Failure if the root itself can't be read
Scan scanTables();

/// The tables that `words` name, each once, in order. A word is a name, the end of one
/// ("capture/hoIpFlowCounter"), or a pattern with *, ? or [...], in which * stands for slashes, too.
/// @throws Failure: no such table (with names that are near), or several where a word must mean one
std::vector<std::string> resolveTables(std::vector<std::string> const& words);
std::string resolveTable(std::string const& word);
/// The same; a word that names no table and is no pattern is the path of one to be made.
std::string resolveOrNewTable(std::string const& word);

/// "a" or "b"; for messages.
std::string quoted(std::vector<std::string> const& words);

/// Whether a pattern of fnmatch(3).
bool isPattern(std::string_view word);
bool matchesPattern(std::string const& pattern, std::string const& name);

} // namespace Tool
