#include "lab/Program.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <utility>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "host/facility/Version.h"
#include "lab/cli/CheckCommand.h"
#include "lab/cli/ExplainCommand.h"
#include "lab/cli/FuzzCommand.h"
#include "lab/cli/RunCommand.h"
#include "lab/cli/TourCommand.h"

namespace tessel::lab {
namespace {

CLI::App& addRun(CLI::App& app, RunOptions& options) {
  CLI::App& run = *app.add_subcommand("run", "Play a scenario in virtual time.");
  run.add_option("file", options.file, "Scenario (YAML), see docs/lab.md")->required();
  run.add_option("--seed", options.seed, "Seed of the run, in place of the scenario's");
  CLI::Option& trace = *run.add_flag("--trace", options.trace, "Show the routers' traces");
  run.add_flag("--quiet", options.quiet, "Show nothing but the verdict")->excludes(&trace);
  run.add_option("--report", options.reportFile,
                 "Write the run as a page to look at to this file (HTML)");
  run.add_option("--json", options.jsonFile,
                 "Write the outcome to this file, see docs/report.schema.json");
  run.add_option("--events", options.eventFile,
                 "Write what happens to this file, one JSON object per line, see "
                 "docs/events.schema.json");
  run.add_option("--pcap", options.captureFile, "Write the packets to this capture file");
  run.add_option("--esp-keys", options.espKeyFile,
                 "Write the keys of the packets to this file, as tshark's table esp_sa. Lab only: "
                 "they are secret wherever the traffic is");
  run.add_option("--toggles", options.toggleFile, "Toggle file")->capture_default_str();
  return run;
}

CLI::App& addCheck(CLI::App& app, std::string& file) {
  CLI::App& check =
      *app.add_subcommand("check", "Say what is wrong with a scenario, and show its timers.");
  check.add_option("file", file, "Scenario (YAML), see docs/lab.md")->required();
  return check;
}

CLI::App& addExplain(CLI::App& app, ExplainOptions& options) {
  CLI::App& explain =
      *app.add_subcommand("explain", "Say why things went wrong, from the report of a run.");
  explain.add_option("file", options.file, "Report that run --json wrote")->required();
  explain.add_option("--path", options.paths, "Only what concerns this path; may be repeated");
  return explain;
}

CLI::App& addTour(CLI::App& app, TourOptions& options) {
  CLI::App& tour = *app.add_subcommand("tour", "Play the shipped scenarios, told in short.");
  tour.add_option("--scenarios", options.folder, "Folder of the scenarios")->capture_default_str();
  tour.add_flag("--all", options.all, "Every scenario but the longest, not only the best known");
  return tour;
}

constexpr const char* kExamples = R"(Examples:
  tessel-lab tour
  tessel-lab run scenarios/two-routers.yaml
  tessel-lab run scenarios/hub.yaml --quiet --report hub.html --json hub.json
  tessel-lab explain hub.json --path site-9
  tessel-lab fuzz --seeds 200 --shrink
  tessel-lab run scenarios/dh-rekey.yaml --events events --pcap packets.pcap

Exit status: 0 all expectations held, 1 not all, 2 bad usage or files, 3 internal error.
)";

constexpr const char* kFirstSteps =
    R"(tessel-lab plays scenarios of routers that agree on IPsec keys.

Try first:
  tessel-lab tour                                              the shipped scenarios, told in short
  tessel-lab run scenarios/two-routers.yaml                    one of them, in full
  tessel-lab run scenarios/hub.yaml --quiet --report hub.html  a page to look at
  tessel-lab --help                                            everything else
)";

}  // namespace

int runProgram(std::vector<std::string> args, std::ostream& out, std::ostream& err, bool colours) {
  Terminal terminal{.out = out, .err = err, .colours = colours};
  if (args.empty()) {
    out << kFirstSteps;
    return held;
  }
  CLI::App app("Plays scenarios of routers that agree on IPsec keys through their controllers.",
               "tessel-lab");
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("tessel-lab ") + version());
  app.footer(kExamples);
  RunOptions runOptions;
  std::string fileToCheck;
  ExplainOptions explainOptions;
  TourOptions tourOptions;
  const CLI::App& run = addRun(app, runOptions);
  const CLI::App& check = addCheck(app, fileToCheck);
  const CLI::App& explain = addExplain(app, explainOptions);
  FuzzOptions fuzzOptions;
  const CLI::App& fuzz = addFuzz(app, fuzzOptions);
  addTour(app, tourOptions);

  try {
    std::ranges::reverse(args);  // The parser takes them from the back.
    app.parse(std::move(args));
    if (run.parsed()) {
      return runCommand(runOptions, terminal);
    }
    if (check.parsed()) {
      return checkCommand(fileToCheck, terminal);
    }
    if (fuzz.parsed()) {
      fuzzOptions.progress = &err == &std::cerr && isatty(STDERR_FILENO) != 0;
      return runFuzz(fuzzOptions, out, err) ? held : notHeld;
    }
    return explain.parsed() ? explainCommand(explainOptions, terminal)
                            : tourCommand(tourOptions, terminal);
  } catch (const CLI::ParseError& error) {
    return app.exit(error, out, err) == 0 ? held : badInput;
  } catch (const std::exception& error) {
    err << "tessel-lab: internal error: " << error.what() << "\n";
    return internalError;
  }
}

}  // namespace tessel::lab
