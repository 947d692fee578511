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

/// A capture and its rows: "NAME.pcap" or "NAME.pcapng", and "NAME.rows.tsv.gz".
std::vector<std::pair<fs::path, fs::path>> known() {
   std::vector<std::pair<fs::path, fs::path>> result;
   char const* const folder = std::getenv("HOFLOW_CAPTURES");
   if (!folder || !*folder) return result;
   for (auto const& entry : fs::directory_iterator(folder)) {
      fs::path const rows = entry.path().parent_path() / entry.path().stem().stem().stem();
      for (auto const* suffix : {".pcap", ".pcapng"})
         if (entry.path() == rows.string() + ".rows.tsv.gz" && fs::exists(rows.string() + suffix))
            result.emplace_back(rows.string() + suffix, entry.path());
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

/// Each capture, after so many trackers that are killed on the way.
void countAll(unsigned kills) {
   auto const captures = known();
   if (captures.empty()) GTEST_SKIP() << "HOFLOW_CAPTURES names no folder of captures with their rows";
   Packets::Folder const folder;
   std::string const root = folder.path("root");
   unsigned killed = 0;
   for (auto const& [capture, rows] : captures) {
      std::string const name = capture.stem();
      for (unsigned round = 0; round < kills; ++round) {
         Program::Running tracker(HOFLOW_TRACKER,
                                  {capture, "--root", root, "--name", name, "--pace", "40000"});
         std::this_thread::sleep_for(std::chrono::milliseconds(15 + 30 * round));
         tracker.signal(SIGKILL);
         killed += tracker.wait().status == -SIGKILL;
      }
      Program::run({capture, "--root", root, "--name", name}).is(0);
      expectSame(linesOf(rows), Program::rows(root, name), name);
   }
   EXPECT_EQ(killed > 0, kills > 0);
}

TEST(Captures, EveryRow) { countAll(0); }
TEST(Captures, EveryRowInSpiteOfKills) { countAll(4); }

} // namespace
