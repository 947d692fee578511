// SPDX-License-Identifier: Apache-2.0
// Scanning the root, resolving names, near misses. See Names.h.
#include "Names.h"

#include "Mem/Paths.h"
#include "Parcel/KestorFile.h"
#include "Parcel/OwnerFile.h"

#include <algorithm>
#include <filesystem>
#include <fnmatch.h>
#include <numeric>

namespace Tool {

namespace fs = std::filesystem;

namespace {

constexpr char const* tableFiles[] = {"slots", "buckets", Parcel::KestorFile::KESTOR_NAME,
                                      Parcel::OwnerFile::FILENAME};

bool isTable(fs::path const& directory) {
   return std::any_of(std::begin(tableFiles), std::end(tableFiles), [&](char const* file) {
      std::error_code error;
      return fs::is_regular_file(fs::symlink_status(directory / file, error));
   });
}

void scan(fs::path const& directory, std::string const& name, Scan& found) {
   std::error_code error;
   fs::directory_iterator entries(directory, error);
   if (error) {
      found.skipped.push_back(directory.string());
      return;
   }
   if (!name.empty() && isTable(directory)) found.names.push_back(name);
   for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
      std::error_code ignored;
      if (!fs::is_directory(entries->symlink_status(ignored))) continue;
      std::string const below = entries->path().filename().string();
      scan(entries->path(), name.empty() ? below : name + "/" + below, found);
   }
}

/// Levenshtein's distance, letters in any case.
std::size_t distance(std::string_view a, std::string_view b) {
   std::vector<std::size_t> row(b.size() + 1);
   std::iota(row.begin(), row.end(), std::size_t{0});
   for (std::size_t i = 0; i < a.size(); ++i) {
      std::size_t diagonal = row[0];
      row[0] = i + 1;
      for (std::size_t j = 0; j < b.size(); ++j) {
         std::size_t const same =
             std::tolower(static_cast<unsigned char>(a[i])) == std::tolower(static_cast<unsigned char>(b[j]))
                 ? 0
                 : 1;
         std::size_t const best = std::min({diagonal + same, row[j] + 1, row[j + 1] + 1});
         diagonal = row[j + 1];
         row[j + 1] = best;
      }
   }
   return row.back();
}

/// The end of `name` that has as many components as `word`.
std::string_view tail(std::string_view name, std::string_view word) {
   auto slashes = std::count(word.begin(), word.end(), '/') + 1;
   std::size_t at = name.size();
   while (slashes-- > 0 && at != std::string_view::npos && at > 0) at = name.rfind('/', at - 1);
   return at == std::string_view::npos ? name
                                       : name.substr(at + (at < name.size() && name[at] == '/' ? 1 : 0));
}

std::vector<std::string> nearNames(std::vector<std::string> const& names, std::string const& word) {
   std::vector<std::pair<std::size_t, std::string>> ranked;
   for (std::string const& name : names) {
      std::size_t const far = std::min(distance(name, word), distance(tail(name, word), word));
      bool const inside = name.find(word) != std::string::npos;
      if (inside || far <= std::max<std::size_t>(2, word.size() / 4))
         ranked.emplace_back(inside ? 0 : far, name);
   }
   std::sort(ranked.begin(), ranked.end());
   std::vector<std::string> near;
   for (auto const& [far, name] : ranked)
      if (near.size() < 5) near.push_back(name);
   return near;
}

std::string listed(std::vector<std::string> const& names) {
   constexpr std::size_t most = 10;
   std::string text;
   for (std::size_t i = 0; i < names.size() && i < most; ++i) text += "\n    " + names[i];
   if (names.size() > most) text += fmt::format("\n    and {} more: hoflow list", names.size() - most);
   return text;
}

/// Whether the word means a folder, or what lies below it.
bool means(std::string const& word, std::string const& folder) {
   return word == folder || folder.ends_with("/" + word) || word.starts_with(folder + "/") ||
          (isPattern(word) && matchesPattern(word, folder));
}

Failure unknown(std::string const& word, Scan const& scan) {
   for (std::string const& closed : scan.skipped)
      if (means(word, fs::path(closed).lexically_relative(Mem::RootPath::get()).string()))
         return {Exit::cantOpen, closed + ": may not be read by this user",
                 "reading needs the right to enter the directory and to read its files"};
   std::string const text = fmt::format("there is no table \"{}\" below {}", word, Mem::RootPath::get());
   if (auto const near = nearNames(scan.names, word); !near.empty())
      return {Exit::cantOpen, text, "did you mean:" + listed(near)};
   if (!scan.names.empty()) return {Exit::cantOpen, text, "there is:" + listed(scan.names)};
   if (!scan.skipped.empty())
      return {Exit::cantOpen, text, fmt::format("{} may not be read by this user", scan.skipped.front())};
   return {Exit::cantOpen, text, "there is no table at all; --root DIR or HOFLOW_ROOT names another folder"};
}

/// The word as a path below the root.
std::string belowRoot(std::string word) {
   while (word.size() > 1 && word.back() == '/') word.pop_back();
   std::string root = fs::absolute(Mem::RootPath::get()).lexically_normal().string();
   if (!root.ends_with('/')) root += '/';
   if (word.starts_with('/')) {
      if (!word.starts_with(root))
         throw Failure{Exit::usage,
                       fmt::format("{} does not lie below the root {}", word, Mem::RootPath::get()),
                       "--root DIR or HOFLOW_ROOT names another root"};
      word.erase(0, root.size());
   }
   while (word.starts_with("./")) word.erase(0, 2);
   return word;
}

/// None if the word names no table. @param all the tables that there are
std::vector<std::string> hitsOf(std::string const& word, Scan const& all) {
   std::vector<std::string> hits;
   for (std::string const& name : all.names)
      if (isPattern(word) ? matchesPattern(word, name) : name.ends_with("/" + word)) hits.push_back(name);
   if (hits.size() > 1 && !isPattern(word))
      throw Failure{Exit::usage, fmt::format("\"{}\" could be any of {} tables", word, hits.size()),
                    "say more of the path:" + listed(hits)};
   return hits;
}

bool isWholeName(std::string const& word) {
   return !isPattern(word) && isTable(fs::path(Mem::RootPath::get()) / word);
}

std::vector<std::string> resolve(std::string const& given) {
   std::string const word = belowRoot(given);
   if (isWholeName(word)) return {word};
   Scan const all = scanTables();
   auto hits = hitsOf(word, all);
   if (hits.empty()) throw unknown(word, all);
   return hits;
}

} // namespace

std::string quoted(std::vector<std::string> const& words) {
   std::string text;
   for (std::string const& word : words) text += fmt::format("{}\"{}\"", text.empty() ? "" : " or ", word);
   return text;
}

bool isPattern(std::string_view word) { return word.find_first_of("*?[") != std::string_view::npos; }

bool matchesPattern(std::string const& pattern, std::string const& name) {
   // A pattern without a slash is meant for the last component as well as for the whole.
   return fnmatch(pattern.c_str(), name.c_str(), 0) == 0 ||
          fnmatch(("*/" + pattern).c_str(), name.c_str(), 0) == 0;
}

Scan scanTables() {
   std::string const root = Mem::RootPath::get();
   std::error_code error;
   fs::directory_iterator const entries(root, error);
   if (error)
      throw Failure{Exit::cantOpen, fmt::format("{}: {}", root, error.message()),
                    error == std::errc::no_such_file_or_directory
                        ? "no writer has made a table there; --root DIR or HOFLOW_ROOT names another folder"
                        : "tables lie below it"};
   Scan found;
   scan(root, {}, found);
   std::sort(found.names.begin(), found.names.end());
   return found;
}

std::vector<std::string> resolveTables(std::vector<std::string> const& words) {
   std::vector<std::string> names;
   for (std::string const& word : words)
      for (std::string& name : resolve(word))
         if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(std::move(name));
   return names;
}

std::string resolveTable(std::string const& word) {
   auto names = resolve(word);
   if (names.size() == 1) return names.front();
   throw Failure{Exit::usage, fmt::format("\"{}\" matches {} tables", word, names.size()),
                 "this command takes one:" + listed(names)};
}

std::string resolveOrNewTable(std::string const& given) {
   std::string const word = belowRoot(given);
   std::error_code error;
   if (isPattern(word) || isWholeName(word)) return resolveTable(given);
   if (!fs::exists(Mem::RootPath::get(), error)) return word; // its writer makes the root, too
   auto const hits = hitsOf(word, scanTables());
   return hits.empty() ? word : hits.front();
}

} // namespace Tool
