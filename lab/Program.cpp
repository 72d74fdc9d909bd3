#include "lab/Program.h"

#include <algorithm>
#include <exception>
#include <ostream>
#include <utility>

#include <CLI/CLI.hpp>

#include "lab/cli/CheckCommand.h"
#include "lab/cli/RunCommand.h"

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

}  // namespace

int runProgram(std::vector<std::string> args, std::ostream& out, std::ostream& err, bool colours) {
  CLI::App app("Plays scenarios of routers that agree on IPsec keys through their controllers.",
               "tessel-lab");
  app.require_subcommand(1);
  RunOptions runOptions;
  const CLI::App& run = addRun(app, runOptions);

  std::string fileToCheck;
  CLI::App& check =
      *app.add_subcommand("check", "Say what is wrong with a scenario, and show its timers.");
  check.add_option("file", fileToCheck, "Scenario (YAML), see docs/lab.md")->required();

  try {
    std::ranges::reverse(args);  // The parser takes them from the back.
    app.parse(std::move(args));
    Terminal terminal{.out = out, .err = err, .colours = colours};
    return run.parsed() ? runCommand(runOptions, terminal) : checkCommand(fileToCheck, terminal);
  } catch (const CLI::ParseError& error) {
    return app.exit(error, out, err) == 0 ? held : badInput;
  } catch (const std::exception& error) {
    err << "tessel-lab: internal error: " << error.what() << "\n";
    return internalError;
  }
}

}  // namespace tessel::lab
