// SPDX-License-Identifier: Apache-2.0
// hoflow-bench: the comparative benchmark. bench/README.md says what it asks, how to read it and what would
// mislead.
//
// Exit status: 0 measured and every result was right; 1 a contender gave a wrong result; 2 usage, an
// unoptimised build, or no memory for the tables.
#include "core/Runs.h"
#include "follow/Follow.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <iostream>

namespace {

using namespace Bench;

struct Options {
   Setting setting;
   std::string json;
   std::string keys = "both";
   bool quick = false;
   bool smoke = false;
   bool unoptimised = false;
   bool single = true, busy = true, growth = true, restart = true, layers = true, follow = true,
        pauses = true, shadow = true;
};

void parse(int argc, char** argv, Options& options) {
   CLI::App app{"Flow tables beside their peers: ns an operation on the same rows"};
   allowedCores(options.setting.core, options.setting.otherCore);
   std::string parts = "single,busy,growth,restart,layers,follow,pauses,shadow";
   app.add_option("--rows", options.setting.rows, "table sizes")
       ->delimiter(',')
       ->check(CLI::Range(100, 4'000'000));
   app.add_option("--keys", options.keys, "network, random or both")
       ->check(CLI::IsMember({"network", "random", "both"}));
   app.add_option("--only", options.setting.only, "contenders by name")->delimiter(',');
   app.add_option("--parts", parts, "of single,busy,growth,restart,layers,follow,pauses,shadow");
   app.add_option("--repetitions", options.setting.repetitions,
                  "at 10^6 rows; small sizes get 2 and 4 times as many");
   app.add_option("--seed", options.setting.seed, "of the orders");
   app.add_option("--core", options.setting.core, "core to stay on");
   app.add_option("--other-core", options.setting.otherCore, "core of the busy writer");
   app.add_option("--json", options.json, "file for all samples");
   app.add_flag("--quick", options.quick, "few repetitions: for a first look only");
   app.add_flag("--smoke", options.smoke,
                "1000 rows, everything once: correctness only, no figures worth reading");
   app.add_flag("--allow-unoptimised", options.unoptimised, "run though the build isn't optimised");
   try {
      app.parse(argc, argv);
   } catch (CLI::ParseError const& error) {
      int const status = app.exit(error);
      std::exit(status == 0 ? 0 : 2);
   }
   auto const wanted = [&](char const* part) { return parts.find(part) != std::string::npos; };
   options.single = wanted("single");
   options.busy = wanted("busy");
   options.growth = wanted("growth");
   options.restart = wanted("restart");
   options.layers = wanted("layers");
   options.follow = wanted("follow");
   options.pauses = wanted("pauses");
   options.shadow = wanted("shadow");
   if (options.keys == "network") options.setting.families = {KeyFamily::network};
   if (options.keys == "random") options.setting.families = {KeyFamily::random};
   if (options.quick) {
      options.setting.repetitions = 1;
      options.setting.busySeconds = 0.5;
      options.setting.wakes = 500;
   }
   if (options.smoke) {
      options.setting.rows = {1000};
      options.setting.repetitions = 1;
      options.setting.busySeconds = 0.1;
      options.setting.wakes = 20;
   }
}

Contenders chosen(Setting const& setting) {
   Contenders all = contenders();
   if (setting.only.empty()) return all;
   for (std::string const& name : setting.only) {
      auto const same = [&](auto const& each) { return name == each->traits().name; };
      if (std::none_of(all.begin(), all.end(), same)) {
         std::string known;
         for (auto const& each : all) known += std::string(known.empty() ? "" : ", ") + each->traits().name;
         throw std::invalid_argument("no contender \"" + name + "\"; this build has: " + known);
      }
   }
   std::erase_if(all, [&](auto const& each) {
      return std::find(setting.only.begin(), setting.only.end(), each->traits().name) == setting.only.end();
   });
   return all;
}

void introduce(Machine const& here, Contenders const& all, Setting const& setting) {
   fmt::print("processor   {} ({} cores, last level cache {} MiB)\n", here.processor, here.cores,
              here.lastLevelCache >> 20);
   fmt::print("system      {}; huge pages {}\n", here.kernel, here.hugePages);
   fmt::print("build       {}, {}\n", here.compiler, here.buildType);
   fmt::print("rows        {} bytes, key {} bytes, copied out whole; median of {} and more repetitions\n",
              sizeof(Row), sizeof(Key), setting.repetitions);
   fmt::print("load        {:.2f} runnable tasks before the run\n", loadAverage());
   for (auto const& each : all) fmt::print("  {:22} {}\n", each->traits().name, each->traits().notes);
   if (loadAverage() > 0.5) {
      fmt::print("THIS MACHINE IS BUSY: quote ratios of this run only, and repeat it when it is quiet.\n");
   }
   std::fflush(stdout);
}

int run(Options const& options, std::string const& command) {
   Machine const here = machine();
   if (!here.optimised && !options.unoptimised) {
      std::cerr << "hoflow-bench: this build isn't optimised (" << here.buildType
                << "): its figures would mean nothing. Build with CMAKE_BUILD_TYPE=Release.\n";
      return 2;
   }
   Setting setting = options.setting;
   Contenders all = chosen(setting);
   double const loadBefore = loadAverage();
   introduce(here, all, setting);
   if (!pinTo(setting.core)) throw std::invalid_argument("can't run on core " + std::to_string(setting.core));
   std::vector<Traits> traits;
   for (auto const& each : all) traits.push_back(each->traits());

   Figures figures;
   // A part's tables come as soon as it is done: the whole run takes long.
   auto const show = [&](std::vector<std::string> const& operations, char const* title) {
      figures.print(std::cout, traits, operations, title);
      std::cout.flush();
      if (!options.json.empty())
         figures.writeJson(options.json, here, traits, command, loadBefore, loadAverage());
   };
   if (options.single) {
      for (KeyFamily const family : setting.families)
         for (u64 const rows : setting.rows)
            runSingle(all, Workload(family, rows, setting.seed), setting, figures);
      show(singleOperations, "one thread, ns an operation");
   }
   // One family is enough where memory and cores are asked, not the hash.
   auto const workload = [&](u64 rows) { return Workload(setting.families.front(), rows, setting.seed); };
   u64 const largest = *std::max_element(setting.rows.begin(), setting.rows.end());
   if (options.growth || options.restart) {
      Workload const load = workload(largest);
      if (options.growth) runGrowth(all, load, setting, figures);
      if (options.restart) runRestart(load, setting, figures);
      show(otherFigures, "growing from nothing: longest single insert, and memory a row");
      show(restartFigures, "after a restart, ms for the whole table");
   }
   if (options.layers) {
      for (u64 const rows : setting.rows) runLayers(workload(rows), setting, figures);
      figures.print(std::cout, layers, layerOperations,
                    "calls through the layers before a table, ns a call; ratios to the bare back end");
   }
   if (options.shadow) {
      for (u64 const rows : setting.rows) runShadow(workload(rows), setting, figures);
      printShadow(std::cout, figures);
   }
   if (options.follow) {
      runWake(workload(*std::min_element(setting.rows.begin(), setting.rows.end())), setting, figures);
      for (u64 const rows : setting.rows) runChanges(workload(rows), setting, figures);
      printFollow(std::cout, figures);
   }
   if (options.pauses) {
      runPauses(workload(largest), setting, figures);
      printPauses(std::cout, figures);
   }
   if (options.busy && setting.otherCore >= 0) {
      for (u64 const rows : setting.rows) runBusy(all, workload(rows), setting, figures);
      show(busyOperations, "reader beside an idle and a busy writer, ns an operation (processes where "
                           "possible, else threads)");
   }
   if ((options.busy || options.follow) && setting.otherCore < 0)
      fmt::print("No second core: nothing measured of a reader or follower beside its writer.\n");
   if (!options.json.empty())
      figures.writeJson(options.json, here, traits, command, loadBefore, loadAverage());
   return 0;
}

} // namespace

int main(int argc, char** argv) {
   std::string command;
   for (int n = 1; n < argc; ++n) command += std::string(n > 1 ? " " : "") + argv[n];
   Options options;
   parse(argc, argv, options);
   try {
      return run(options, command);
   } catch (std::invalid_argument const& error) {
      std::cerr << "hoflow-bench: " << error.what() << "\n";
      return 2;
   } catch (std::bad_alloc const&) {
      std::cerr << "hoflow-bench: not enough memory for the tables of this size\n";
      return 2;
   } catch (std::exception const& error) {
      std::cerr << "hoflow-bench: " << error.what() << "\n";
      return 1;
   }
}
