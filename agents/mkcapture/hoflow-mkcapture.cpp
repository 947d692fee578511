// SPDX-License-Identifier: Apache-2.0
// hoflow-mkcapture FILE: writes a capture of made-up traffic, for demonstrations, tests and measurements
// where no real one is at hand. The same options give the same bytes. Exit status: 0 done, 2 wrong use, 3 the
// file can't be written.
#include "Traffic.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace {

struct Options {
   std::string file;
   std::uint64_t packets = 1000000, flows = 100000, seed = 1;
};

/// Writes all of it to `out` as a classic capture file. False if `out` takes no more.
bool write(std::FILE* out, Options const& options) {
   std::uint32_t const header[] = {0xa1b2c3d4, 2 | 4 << 16, 0, 0, 262144, 1};
   bool good = std::fwrite(header, sizeof header, 1, out) == 1;
   MkCapture::Traffic traffic(options.packets, options.flows, options.seed);
   for (std::uint64_t i = 0; good && i < options.packets; ++i) {
      auto const frame = traffic.next();
      std::uint32_t const record[] = {static_cast<std::uint32_t>(frame.microseconds / 1000000),
                                      static_cast<std::uint32_t>(frame.microseconds % 1000000),
                                      static_cast<std::uint32_t>(frame.captured.size()), frame.length};
      good = std::fwrite(record, sizeof record, 1, out) == 1 &&
             std::fwrite(frame.captured.data(), frame.captured.size(), 1, out) == 1;
   }
   return std::fflush(out) == 0 && good;
}

} // namespace

int main(int argc, char** argv) {
   Options options;
   CLI::App app("Writes a capture of made-up traffic: many flows, few of them with most packets,\n"
                "both families, VLAN tags, fragments and a little that is no IP.",
                "hoflow-mkcapture");
   app.footer("Fragments are flows of their own, without ports, so there are a few more than N.\n\n"
              "Example:\n  hoflow-mkcapture --packets 1000000 --flows 200000 --seed 7 made.pcap");
   app.failure_message([](CLI::App const*, CLI::Error const& e) {
      return std::string("hoflow-mkcapture: ") + e.what() + "\n  hoflow-mkcapture --help says more\n";
   });
   auto const count = CLI::Range(std::uint64_t(1), std::uint64_t(1) << 31).description("");
   app.add_option("FILE", options.file, "where to write, or - for standard output")->required();
   app.add_option("--packets", options.packets, "frames in all")
       ->type_name("N")
       ->capture_default_str()
       ->check(count);
   app.add_option("--flows", options.flows, "flows among them")
       ->type_name("N")
       ->capture_default_str()
       ->check(count);
   app.add_option("--seed", options.seed, "another seed gives other traffic")
       ->type_name("S")
       ->capture_default_str();
   try {
      app.parse(argc, argv);
   } catch (CLI::ParseError const& e) {
      return app.exit(e) == 0 ? 0 : 2;
   }
   std::FILE* const out = options.file == "-" ? stdout : std::fopen(options.file.c_str(), "wbe");
   bool good = out != nullptr;
   if (good) {
      std::setvbuf(out, nullptr, _IOFBF, 1 << 20);
      good = write(out, options);
      if (out != stdout) good = std::fclose(out) == 0 && good;
   }
   if (!good) {
      std::fprintf(stderr, "hoflow-mkcapture: %s: %s\n", options.file.c_str(), std::strerror(errno));
      return 3;
   }
}
