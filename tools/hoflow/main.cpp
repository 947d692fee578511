// SPDX-License-Identifier: Apache-2.0
// hoflow COMMAND ...: looks into the tables of a running system, or of one that has stopped. Safe beside a
// live writer: it opens files for reading only, takes no lock, and leaves nothing behind. One command writes,
// load, and it refuses while a writer lives.
//
// Exit statuses are those of Tool::Exit (Output.h). This file is the command line alone.
#include "Commands.h"
#include "Lomi/Exception.h"
#include "Lomi/Trace.h"
#include "Mem/Paths.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <string_view>
#include <unistd.h>

namespace {

using namespace Tool;

constexpr char const* statuses =
    R"(Exit status: 0 ok, 1 no match, 2 usage, 3 can't open (absent, no permission, another version or type),
4 corrupt, 5 incomplete (a table half made, output not whole).)";

constexpr char const* tables =
    R"(A table is named by its path below the root, by an end of that path which only one table has, or by a
pattern: flowtracking/default/hwOffload/counter/capture/hoIpFlowCounter, capture/hoIpFlowCounter, '*Ip6*'.)";

struct Arguments {
   std::string root, table, columns, file;
   bool json = false, namesOnly = false;
   std::vector<std::string> words; ///< tables, patterns, a key, tests, or types
   std::vector<std::string> where;
   bool strep = false;
   DumpOptions dump;
   LoadOptions load;
   WatchOptions watch;
   TopOptions top;
   double interval = 1;
};

class CommandLine {
public:
   CommandLine()
      : app("Looks into flow tables: lists, reads, checks them. It never disturbs a writer, and only load "
            "writes.",
            "hoflow") {
      app.fallthrough();
      app.require_subcommand(0, 1);
      app.failure_message([this](CLI::App const*, CLI::Error const& e) { return complaint(e); });
      app.set_version_flag("--version", "hoflow " HOFLOW_VERSION);
      app.add_option("--root", args.root, "folder below which the tables lie")
          ->envname("HOFLOW_ROOT")
          ->type_name("DIR");
      app.add_flag("-j,--json", args.json, "JSON, one object a line");
      app.footer(std::string("\n") + tables +
                 "\n--root and -j may stand before and after the command's word.\n\nExamples:\n"
                 "  hoflow list\n"
                 "  hoflow dump hoIpFlowCounter --where proto=udp --where 'packets>=100'\n"
                 "  hoflow dump hoIpFlowCounter -j | jq -r 'select(.bytes > 1000000) | .key.srcAddr'\n"
                 "  hoflow get hoIpFlowCounter tcp 10.0.0.1:443 10.0.0.2:50000\n\n" +
                 statuses);
      addFileCommands();
      addRowCommands();
      addWalkCommands();
      addLiveCommands();
      addTypeCommands();
   }

   int run(int argc, char** argv);

private:
   using Run = Exit (*)(Common const&, Arguments const&);

   CLI::App* command(char const* name, char const* what, std::string const& examples, Run toRun) {
      CLI::App* const sub = app.add_subcommand(name, what);
      sub->footer("\nExamples:\n" + examples + "\n" + statuses);
      sub->final_callback([this, toRun] { chosen = toRun; });
      return sub;
   }
   /// What to say of a command line that can't be understood.
   std::string complaint(CLI::Error const& e) const {
      auto const rest = app.remaining();
      bool const stray = !rest.empty() && !rest[0].starts_with('-');
      if (!stray || !app.get_subcommands().empty())
         return fmt::format("hoflow: {}\n  hoflow --help and hoflow COMMAND --help say more\n",
                            stray ? fmt::format("the word \"{}\" is out of place", rest[0]) : e.what());
      std::string commands;
      for (auto const* const sub : app.get_subcommands(nullptr)) commands += " " + sub->get_name();
      return fmt::format("hoflow: there is no command \"{}\"\n  commands are:{}\n", rest[0], commands);
   }
   void takesTables(CLI::App* sub) {
      sub->add_option("TABLE", args.words, "names, ends of names or patterns")->required()->type_name("");
   }
   void takesTable(CLI::App* sub) {
      sub->add_option("TABLE", args.table, "name, end of a name or pattern")->required()->type_name("");
   }
   void takesWhere(CLI::App* sub) {
      sub->add_option(
             "-w,--where", args.where,
             "only rows for which this holds: FIELD=VALUE, !=, <, <=, >, >=; all of several must hold")
          ->type_name("TEST")
          ->expected(1)
          ->take_all();
   }

   template <class Number> static CLI::Validator aboveZero(Number most) {
      return {[most](std::string& text) {
                 Number number{};
                 bool const good = text[0] != '-' && CLI::detail::lexical_cast(text, number) && number > 0 &&
                                   number <= most;
                 return good ? std::string() : "\"" + text + "\": expected a number above 0";
              },
              ""};
   }
   static CLI::Validator aCount() { return aboveZero(~std::uint64_t{0}); }
   static CLI::Validator seconds() { return aboveZero(1e9); }
   void takesStrep(CLI::App* sub) {
      sub->add_flag("--strep", args.strep, "text forms of whole rows, one a line, which load reads back");
   }

   void addFileCommands() {
      auto* const list =
          command("list", "All tables, with rows, capacity, writer and state",
                  "  hoflow list\n  hoflow list '*Counter'\n  hoflow list --names\n",
                  [](Common const& c, Arguments const& a) { return listTables(c, a.words, a.namesOnly); });
      list->add_option("PATTERN", args.words, "only tables with this in their names, or matching it")
          ->type_name("");
      list->add_flag("--names", args.namesOnly, "names only");
      takesTables(command("show", "One table's header, sizes, load and writer",
                          "  hoflow show capture/hoIpFlowCounter\n  hoflow show '*' -j\n",
                          [](Common const& c, Arguments const& a) { return showTables(c, a.words); }));
      takesTables(command("header", "The raw headers of both files, also of a damaged table",
                          "  hoflow header capture/hoIpFlowCounter\n",
                          [](Common const& c, Arguments const& a) { return showHeaders(c, a.words); }));
   }

   void addRowCommands() {
      auto* const get = command(
          "get", "One row by its key, or the rows that pass tests",
          "  hoflow get hoIpFlowCounter tcp 10.0.0.1:443 10.0.0.2:50000\n"
          "  hoflow get hoIpFlowCounter src=10.0.0.1 dst=10.0.0.2 proto=tcp sport=443 dport=50000 vlan=5\n"
          "  hoflow get hoIp6FlowCounter udp '[2001:db8::1]:53' '[2001:db8::2]:50000'\n"
          "  hoflow get hoIpFlowStatus tcp 10.0.0.1:443 10.0.0.2:50000 intf=if7\n"
          "  hoflow get hosStateIpCounter offloaded\n"
          "  hoflow get hoIpFlowCounter '{\"srcAddr\":\"10.0.0.1\", ...}'      a row or key as dump -j gives "
          "it\n"
          "  hoflow get hoIpFlowCounter srcPort=443 'packets>1000' src=10.0.0.0/8\n\n"
          "In a whole key what isn't said is 0: vrfId, vlanId, ports, direction; intfId is none. Any other\n"
          "comparison is a test; with tests alone, or a part of the key as NAME=VALUE, all rows are shown\n"
          "for which everything holds.\n",
          [](Common const& c, Arguments const& a) { return getRows(c, a.table, a.words, a.where, a.strep); });
      takesTable(get);
      get->add_option("KEY", args.words,
                      "NAME=VALUE, a protocol, endpoints, a state, or one JSON object; and tests")
          ->type_name("");
      takesWhere(get);
      takesStrep(get);

      auto* const dump = command("dump", "All rows, or those that pass tests, in the table's own order",
                                 "  hoflow dump hoIpFlowCounter | sort -k10 -n | tail\n"
                                 "  hoflow dump hoIpFlowCounter --columns srcAddr,dstAddr,bytes --no-header\n"
                                 "  hoflow dump hoIpFlowCounter src=10.0.0.0/8 'bytes>1000000'\n"
                                 "  hoflow dump hoIpFlowCounter -w 'updateTime<2025-03-01T12:00:00Z' -j\n"
                                 "  hoflow dump hoIpFlowCounter --strep > rows; hoflow load saved/v4 rows\n",
                                 [](Common const& c, Arguments const& a) {
                                    DumpOptions options = a.dump;
                                    options.strep = a.strep;
                                    options.where = a.words;
                                    options.where.insert(options.where.end(), a.where.begin(), a.where.end());
                                    std::istringstream names(a.columns);
                                    for (std::string name; std::getline(names, name, ',');)
                                       options.columns.push_back(name);
                                    return dumpTable(c, a.table, options);
                                 });
      takesTable(dump);
      dump->add_option("TEST", args.words, "as --where")->type_name("");
      takesWhere(dump);
      takesStrep(dump);
      dump->add_option("-c,--columns", args.columns, "these columns, in this order; text only")
          ->type_name("FIELD,...")
          ->join(',');
      dump->add_option("-n,--limit", args.dump.limit, "at most so many rows")
          ->type_name("ROWS")
          ->check(aCount());
      dump->add_flag("--no-header", args.dump.noHeader, "no line with the columns' names");

      auto* const load = command(
          "load", "Makes a table hold the rows of a file that dump --strep wrote",
          "  hoflow load hoIpFlowCounter rows\n"
          "  hoflow dump a/hoIpFlowCounter --strep | hoflow load copy/of/hoIpFlowCounter -\n\n"
          "The tool is the table's writer for that time: it refuses while one lives. A path that names\n"
          "no table makes a new one. Nothing is changed if a line doesn't parse; each such line is\n"
          "named on stderr.\n",
          [](Common const& c, Arguments const& a) { return loadTable(c, a.table, a.file, a.load); });
      load->add_option("TABLE", args.table, "name, end of a name, or the path of a new table")
          ->required()
          ->type_name("");
      load->add_option("FILE", args.file, "one row a line; - is stdin")->required()->type_name("");
      load->add_flag("--keep", args.load.keep, "rows that the file doesn't have stay");
      load->add_option("--type", args.load.type, "type of a new table's rows, if the file has none")
          ->type_name("TYPE");

      auto* const count = command(
          "count", "How many rows", "  hoflow count '*'\n  hoflow count hoIpFlowCounter --where proto=udp\n",
          [](Common const& c, Arguments const& a) { return countRows(c, a.words, a.where); });
      takesTables(count);
      takesWhere(count);
   }

   void addWalkCommands() {
      takesTables(command("check", "Walks the table: is every row there once, and where it belongs?",
                          "  hoflow check hoIpFlowCounter\n  hoflow check '*' -j\n\n"
                          "Safe beside a live writer: rows that come and go during the walk are no fault.\n",
                          [](Common const& c, Arguments const& a) { return checkTables(c, a.words); }));
      takesTables(command("stat", "Load, chains, memory a row, growth ahead",
                          "  hoflow stat hoIpFlowCounter\n",
                          [](Common const& c, Arguments const& a) { return statTables(c, a.words); }));
   }

   void addLiveCommands() {
      auto* const watch = command(
          "watch", "Says each change of a table's rows, as it happens",
          "  hoflow watch hoIpFlowStatus\n"
          "  hoflow watch hoIpFlowConfig src=10.0.0.0/8 -j | jq -c '.is.key'\n"
          "  hoflow watch hoIpFlowStatus tcp 10.0.0.1:443 10.0.0.2:50000 --count 1 --timeout 5\n"
          "  hoflow watch hoIpFlowStatus --all > history\n\n"
          "A line, or with -j an object, each:\n"
          "  new             a row came          its fields        {\"event\",\"time\",\"is\"}\n"
          "  changed         a row was written   key, OLD->NEW     {\"event\",\"time\",\"was\",\"is\"}\n"
          "  removed         a row went          what it was       {\"event\",\"time\",\"was\"}\n"
          "  synchronised    all rows that were there are known (--all: were said as new); what follows is "
          "changes\n"
          "  disconnected    the table's writer is gone; its rows stay\n"
          "  reconnected     a writer is there again, with the same rows\n"
          "  resynchronised  all rows were looked at again, as changes may have been missed, for the n-th "
          "time\n"
          "  detached        the table was removed or is formatted anew; its rows are removed, one by one\n\n"
          "With a key, or with tests as in get and dump, only rows for which everything holds: a row that\n"
          "begins to pass is new, one that ceases to is removed. A table that isn't there yet is waited "
          "for.\n"
          "A row that changes faster than its lines are read is told with its last value. A table without a\n"
          "change queue is walked again and again. SIGINT ends it with status 0; --timeout with 1 if it saw\n"
          "less than --count changes, or none, and with 3 if there was no table.\n",
          [](Common const& c, Arguments const& a) {
             WatchOptions options = a.watch;
             options.words = a.words;
             options.where = a.where;
             options.interval = a.interval;
             return watchTable(c, a.table, options);
          });
      takesTable(watch);
      watch->add_option("FILTER", args.words, "a key or tests, as for get and dump")->type_name("");
      takesWhere(watch);
      watch->add_flag("-a,--all", args.watch.all, "first the rows that are there already");
      watch->add_option("-n,--count", args.watch.count, "end after so many changes")
          ->type_name("CHANGES")
          ->check(aCount());
      watch->add_option("-t,--timeout", args.watch.timeout, "end after so long")
          ->type_name("SECONDS")
          ->check(seconds());
      watch->add_option("-i,--interval", args.interval, "from walk to walk of a table without a queue (1)")
          ->type_name("SECONDS")
          ->check(seconds());

      auto* const top =
          command("top", "A live view of all tables: rows, rates, queues, followers",
                  "  hoflow top\n  hoflow top hwOffload -i 5\n  hoflow top -1\n"
                  "  hoflow top -j | jq -r 'select(.writerAlive | not) | .table'\n\n"
                  "  rows/s, changes/s  since the look before; changes as the change queue counts them\n"
                  "  queue, gen         entries in the queue's current table, of how many; it moves to the "
                  "other table,\n"
                  "                     and to the next generation, when this one is full\n"
                  "  followers          processes' copies of the table that are connected to its writer\n"
                  "  resyncs            how often these had to look at all rows again\n"
                  "  state              of the files; and how many rows stand in each state, where a table "
                  "counts them\n\n"
                  "Keys: q quits, s sorts by another column, arrows scroll. Only headers are read. -1 and -j "
                  "look twice,\n"
                  "an interval apart, and print what they saw.\n",
                  [](Common const& c, Arguments const& a) {
                     TopOptions options = a.top;
                     options.patterns = a.words;
                     options.interval = a.interval;
                     return topTables(c, options);
                  });
      top->add_option("PATTERN", args.words, "only tables with this in their names, or matching it")
          ->type_name("");
      top->add_flag("-1,--once", args.top.once, "print it once");
      top->add_option("-i,--interval", args.interval, "from look to look (1)")
          ->type_name("SECONDS")
          ->check(seconds());
   }

   void addTypeCommands() {
      auto* const types =
          command("types", "The types that this build knows", "  hoflow types\n  hoflow types Counter -j\n",
                  [](Common const& c, Arguments const& a) { return listTypes(c, a.words); });
      types->add_option("WORD", args.words, "only types with this in their names")->type_name("");
      auto* const schema =
          command("schema", "A type's attributes, with ids, kinds and types",
                  "  hoflow schema HoIpFlowCounter\n  hoflow schema FlowTracking::HoIpFlowKey -j\n",
                  [](Common const& c, Arguments const& a) { return showSchemas(c, a.words); });
      schema->add_option("TYPE", args.words, "a type's name, with or without its namespace")
          ->required()
          ->type_name("");
   }

   CLI::App app;
   Arguments args;
   Run chosen = nullptr;
};

/// A writer refuses a root that is a link, as others may have laid it; so no table lies there.
void refuseLinkedRoot() {
   std::filesystem::path const root = Mem::RootPath::get();
   std::error_code error;
   if (std::filesystem::is_symlink(std::filesystem::symlink_status(root, error)))
      throw Failure{Exit::cantOpen, root.string() + ": is a symbolic link; the root must be a folder itself",
                    "--root " + std::filesystem::weakly_canonical(root, error).string() + " names it"};
}

int CommandLine::run(int argc, char** argv) {
   try {
      // The arrow of a key as traces print it would be taken for an option. The parser wants the last word
      // first.
      std::vector<std::string> words;
      for (int i = argc - 1; i > 0; --i)
         if (argv[i] != std::string_view("->")) words.emplace_back(argv[i]);
      app.parse(words);
   } catch (CLI::ParseError const& e) {
      return app.exit(e) == 0 ? 0 : static_cast<int>(Exit::usage);
   }
   Output out;
   Common const common{out, args.json};
   Exit status = Exit::ok;
   try {
      try {
         if (app.count("--root") || !args.root.empty()) Mem::RootPath::set(args.root);
         refuseLinkedRoot();
         status = chosen ? chosen(common, args) : overview(common);
      } catch (Failure const& failure) {
         out.flush(); // what was found before
         throw;
      }
      out.flush();
   } catch (Failure const& failure) {
      say(failure);
      status = failure.status;
   } catch (Lomi::InvalidInitializeException const& e) {
      say(e.what());
      status = Exit::usage;
   } catch (std::exception const& e) {
      say(e.what());
      status = Exit::incomplete;
   }
   return static_cast<int>(status);
}

/// A mapped file lost what is behind the place that is read; nothing can be unwound from there.
void onBusError(int) {
   constexpr std::string_view text =
       "hoflow: a file was cut short while it was read, or its file system is full: the output isn't whole\n";
   [[maybe_unused]] auto const written = write(STDERR_FILENO, text.data(), text.size());
   _exit(static_cast<int>(Exit::incomplete));
}

} // namespace

int main(int argc, char** argv) {
   // `hoflow dump TABLE | head` ends without a word, also where a parent ignores the signal.
   std::signal(SIGPIPE, SIG_DFL);
   std::signal(SIGBUS, onBusError);
   // The tool says itself what is wrong with a table; the library's traces would say it again in other words.
   Lomi::Platform::defaultMaskIs(0);
   return CommandLine().run(argc, argv);
}
