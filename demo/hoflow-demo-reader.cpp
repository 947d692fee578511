// SPDX-License-Identifier: Apache-2.0
// A reader process of the demo: it reads both counter tables again and again until SIGTERM, and judges what
// it reads. `lookup` looks up every key that it has ever seen, `walk` walks the tables from end to end.
//
// While a table is of one generation its writer only adds rows and adds to their counts. So a key that was
// there must be there, its counts must not fall, and no walk may pass a row twice: each breach is an anomaly.
// A re-format or a new file ends the generation; the reader then attaches again and starts from nothing.
//
// Twice a second, and at the end, one JSON object with all counts so far goes to stdout.
#include "Mem/Paths.h"
#include "Table.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

namespace {

std::sig_atomic_t stopped = 0;

template <class Ip4, class Ip6>
void report(std::string const& mode, Demo::Tally tally, Ip4 const& ip4, Ip6 const& ip6, bool final) {
   ip4.countersInto(tally);
   ip6.countersInto(tally);
   nlohmann::ordered_json const line{{"mode", mode},
                                     {"final", final},
                                     {"rowsIp4", ip4.rows()},
                                     {"rowsIp6", ip6.rows()},
                                     {"generationIp4", ip4.generationText()},
                                     {"generationIp6", ip6.generationText()},
                                     {"lookups", tally.lookups},
                                     {"walks", tally.walks},
                                     {"rowsWalked", tally.rowsWalked},
                                     {"retries", tally.retries},
                                     {"lookasideReads", tally.lookasideReads},
                                     {"resizesFollowed", tally.resizes},
                                     {"reattaches", tally.reattaches},
                                     {"generations", tally.generations},
                                     {"missing", tally.missing},
                                     {"twice", tally.twice},
                                     {"backwards", tally.backwards},
                                     {"corrupt", tally.corrupt},
                                     {"anomalies", tally.anomalies()},
                                     {"firstAnomaly", tally.firstAnomaly}};
   std::printf("%s\n", line.dump().c_str());
   std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
   CLI::App app("Reads the counter tables without end and judges what it reads", "hoflow-demo-reader");
   std::string mode, mount;
   app.add_option("mode", mode, "lookup or walk")->required()->check(CLI::IsMember({"lookup", "walk"}));
   app.add_option("mount", mount, "mount path of the two tables, below the root")->required();
   std::string root;
   app.add_option("--root", root, "folder below which tables lie")->required();
   CLI11_PARSE(app, argc, argv);

   auto stop = [](int) { stopped = 1; };
   std::signal(SIGTERM, stop);
   std::signal(SIGINT, stop);
   // A table that isn't there yet is no failure here.
   Lomi::Platform::defaultMaskIs(0);
   Mem::RootPath::set(root);

   Demo::Tally tally;
   Demo::Table<Demo::Ip4Ops> ip4(mount + "/hoIpFlowCounter", tally);
   Demo::Table<Demo::Ip6Ops> ip6(mount + "/hoIp6FlowCounter", tally);
   auto due = std::chrono::steady_clock::now();
   while (!stopped) {
      mode == "walk" ? ip4.walk() : ip4.lookups();
      mode == "walk" ? ip6.walk() : ip6.lookups();
      std::this_thread::sleep_for(std::chrono::milliseconds(1)); // leaves processors to the agents
      auto const now = std::chrono::steady_clock::now();
      if (now >= due) {
         report(mode, tally, ip4, ip6, false);
         due = now + std::chrono::milliseconds(500);
      }
   }
   report(mode, tally, ip4, ip6, true);
   return tally.anomalies() == 0 ? 0 : 1;
}
