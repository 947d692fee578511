// SPDX-License-Identifier: Apache-2.0
// Captures of real traffic whose rows were counted by other programs: each NAME.rows.tsv.gz in the folder
// that HOFLOW_CAPTURES names belongs to NAME.pcap or NAME.pcapng. The tracker counts the capture as a user
// would run it, once undisturbed and once with kills, and the tables must hold these rows, line for line.
// Without the variable the test is skipped.
#include "Packets.h"
#include "Program.h"

#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>

namespace {

namespace fs = std::filesystem;

struct Known {
   std::string name, capture, rows;
};

std::vector<Known> known() {
   std::vector<Known> result;
   char const* const folder = std::getenv("HOFLOW_CAPTURES");
   if (!folder || !*folder) return result;
   constexpr std::string_view tail = ".rows.tsv.gz";
   for (auto const& entry : fs::directory_iterator(folder)) {
      std::string const path = entry.path();
      if (!path.ends_with(tail)) continue;
      std::string const stem = path.substr(0, path.size() - tail.size());
      for (auto const* suffix : {".pcap", ".pcapng"})
         if (fs::exists(stem + suffix)) result.push_back({fs::path(stem).filename(), stem + suffix, path});
   }
   return result;
}

std::multiset<std::string> linesOf(std::string const& path) {
   std::string const command = "gzip -dc '" + path + "'";
   std::unique_ptr<std::FILE, int (*)(std::FILE*)> const pipe(popen(command.c_str(), "re"), pclose);
   std::multiset<std::string> lines;
   char* line = nullptr;
   std::size_t size = 0;
   for (bool first = true; getline(&line, &size, pipe.get()) > 0; first = false) {
      std::string text(line);
      while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
      if (!first) lines.insert(text); // the first names the columns
   }
   std::free(line);
   return lines;
}

void expectSame(std::multiset<std::string> const& wanted, std::multiset<std::string> const& found,
                std::string const& what) {
   ASSERT_FALSE(wanted.empty());
   std::vector<std::string> missing, extra;
   std::set_difference(wanted.begin(), wanted.end(), found.begin(), found.end(), std::back_inserter(missing));
   std::set_difference(found.begin(), found.end(), wanted.begin(), wanted.end(), std::back_inserter(extra));
   EXPECT_TRUE(missing.empty() && extra.empty())
       << what << ": " << missing.size()
       << " rows missing, the first: " << (missing.empty() ? "" : missing[0]) << "; " << extra.size()
       << " rows too many, the first: " << (extra.empty() ? "" : extra[0]);
}

TEST(Captures, EveryRow) {
   auto const captures = known();
   if (captures.empty()) GTEST_SKIP() << "HOFLOW_CAPTURES names no folder of captures with their rows";
   Packets::Folder const folder;
   for (auto const& [name, capture, rowsFile] : captures) {
      auto const wanted = linesOf(rowsFile);
      auto const result =
          Program::run(folder.path(), {capture, "--root", folder.path("root"), "--name", name});
      EXPECT_EQ(result.status, 0) << name << ": " << result.err;
      expectSame(wanted, Program::rows(folder.path("root"), name), name);
   }
}

TEST(Captures, EveryRowInSpiteOfKills) {
   auto const captures = known();
   if (captures.empty()) GTEST_SKIP() << "HOFLOW_CAPTURES names no folder of captures with their rows";
   Packets::Folder const folder;
   unsigned killed = 0;
   for (auto const& [name, capture, rowsFile] : captures) {
      std::vector<std::string> const arguments{capture, "--root", folder.path("root"), "--name", name};
      for (unsigned round = 0; round < 4; ++round) {
         auto paced = arguments;
         paced.insert(paced.end(), {"--pace", "40000"});
         Program::Tracker tracker(folder.path(), paced, "killed");
         std::this_thread::sleep_for(std::chrono::milliseconds(15 + 30 * round));
         tracker.signal(SIGKILL);
         killed += tracker.wait().status == -SIGKILL;
      }
      EXPECT_EQ(Program::run(folder.path(), arguments).status, 0) << name;
      expectSame(linesOf(rowsFile), Program::rows(folder.path("root"), name), name);
   }
   EXPECT_GT(killed, 0u);
}

} // namespace
