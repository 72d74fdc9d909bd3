#include "lab/Program.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <fstream>
#include <iostream>
#include <optional>
#include <ostream>
#include <string_view>
#include <utility>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <unistd.h>

#include "lab/check/Invariants.h"
#include "lab/fuzz/FuzzCommand.h"
#include "lab/report/JsonReport.h"
#include "lab/report/Narrator.h"
#include "lab/report/TextReport.h"
#include "lab/run/Lab.h"
#include "lab/scenario/EffectiveTimers.h"
#include "lab/scenario/LoadScenario.h"
#include "lab/toggles/LoadToggles.h"

namespace tessel::lab {
namespace {

struct Options {
  std::string file;
  std::string toggleFile{toggleFileName};
  std::string jsonFile;
  std::optional<uint64_t> seed;
  bool trace = false;
  bool quiet = false;
};

class Program {
 public:
  Program(std::ostream& out, std::ostream& err) : out_(out), err_(err) {}

  int run(const Options& options) {
    std::optional<Scenario> scenario = load(options.file);
    if (!scenario) {
      return badInput;
    }
    if (const std::optional<ToggleFileError> error = loadToggles(options.toggleFile)) {
      complain(options.toggleFile, stringValue(*error) + "; every toggle keeps its default");
    }
    std::ofstream json;
    if (!options.jsonFile.empty()) {
      // Opened before the run: a name that cannot be written should not cost one.
      json.open(options.jsonFile, std::ios::binary);
      if (!json) {
        complain(options.jsonFile, " cannot be written");
        return badInput;
      }
    }
    scenario->seed = options.seed.value_or(scenario->seed);

    Invariants invariants;
    const auto print = [&](std::string_view text) {
      invariants.scan(text);
      out_ << text;
    };
    Narrator narrator(*scenario, print);
    std::vector<LabObserver*> observers{&invariants};
    if (!options.quiet) {
      observers.push_back(&narrator);
      out_ << fmt::format("{}, seed {}\n\n", scenario->name, scenario->seed);
    }
    Lab lab(std::move(*scenario), observers);
    lab.tracingIs(options.trace);
    invariants.start(lab);
    lab.finish();

    if (json.is_open()) {
      const std::string report = jsonReport(lab);
      invariants.scan(report);
      if (!(json << report).flush()) {
        complain(options.jsonFile, " cannot be written");
        return badInput;
      }
    }
    if (!options.quiet) {
      print(routerTables(lab) + trafficTable(lab) + "\n");
    }
    for (const Violation& violation : invariants.violations()) {
      out_ << "invariant violated: " << stringValue(violation) << "\n";
      for (const std::string& event : violation.events) {
        out_ << "    " << event << "\n";
      }
    }
    out_ << verdictText(lab);
    return lab.held() && invariants.violations().empty() ? held : notHeld;
  }

  int check(const Options& options) {
    const std::optional<Scenario> scenario = load(options.file);
    if (!scenario) {
      return badInput;
    }
    out_ << fmt::format("{}: {} routers, {} paths, {} expectations\n\n", scenario->name,
                        scenario->routers.size(), scenario->paths.size(),
                        scenario->expectations.size());
    for (const RouterTimers& timers : effectiveTimers(*scenario)) {
      out_ << stringValue(timers);
    }
    return held;
  }

 private:
  /// Reads the scenario, or says everything that is wrong with it.
  std::optional<Scenario> load(const std::string& file) {
    LoadedScenario loaded = loadScenario(file);
    for (const ScenarioError& error : loaded.errors) {
      complain(file, stringValue(error));
    }
    if (!loaded.errors.empty()) {
      return std::nullopt;
    }
    return std::move(loaded.scenario);
  }

  void complain(const std::string& file, const std::string& problem) {
    err_ << file << ":" << problem << "\n";
  }

  std::ostream& out_;
  std::ostream& err_;
};

/// "a..b", or "n" for exactly that.
std::string readRouters(const std::string& text, FuzzRange& range) {
  const size_t dots = text.find("..");
  const std::string most = dots == std::string::npos ? text : text.substr(dots + 2);
  if (!CLI::detail::lexical_cast(text.substr(0, dots), range.minRouters) ||
      !CLI::detail::lexical_cast(most, range.maxRouters) || range.minRouters < 2 ||
      range.maxRouters > kMostFuzzRouters || range.minRouters > range.maxRouters) {
    return fmt::format("\"{}\" is no range like 2..{}", text, kMostFuzzRouters);
  }
  return {};
}

void addFuzzOptions(CLI::App& fuzz, FuzzOptions& options) {
  FuzzRange& range = options.range;
  fuzz.add_option("--seeds", options.seeds, "How many")->required()->check(CLI::PositiveNumber);
  fuzz.add_option("--from", options.from, "The first seed")->capture_default_str();
  fuzz.add_option("--jobs", options.jobs, "Runs at a time; by default one per processor")
      ->check(CLI::PositiveNumber);
  fuzz.add_option_function<std::string>("--routers", [](const std::string&) {})
      ->description("Routers of a mesh, at least and at most (default 2..16)")
      ->type_name("A..B")
      ->check([&range](const std::string& text) { return readRouters(text, range); });
  fuzz.add_flag(
      "--shrink", options.shrink,
      "Leave out of the first failing run what is not needed, and write it to seed-N.yaml");
  fuzz.add_option_function<double>(
          "--hours", [&range](double hours) { range.duration = seconds(hours * 3600); },
          "Virtual time of a run (default 2)")
      ->check(CLI::Range(kShortestFuzzRun.seconds() / 3600, 8784.0));
}

}  // namespace

int runProgram(std::vector<std::string> args, std::ostream& out, std::ostream& err) {
  CLI::App app("Plays scenarios of routers that agree on IPsec keys through their controllers.",
               "tessel-lab");
  app.require_subcommand(1);
  Options options;

  CLI::App& run = *app.add_subcommand("run", "Play a scenario in virtual time.");
  run.add_option("file", options.file, "Scenario (YAML), see docs/lab.md")->required();
  run.add_option("--seed", options.seed, "Seed of the run, in place of the scenario's");
  CLI::Option& trace = *run.add_flag("--trace", options.trace, "Show the routers' traces");
  run.add_flag("--quiet", options.quiet, "Show nothing but the verdict")->excludes(&trace);
  run.add_option("--json", options.jsonFile,
                 "Write the outcome to this file, see docs/report.schema.json");
  run.add_option("--toggles", options.toggleFile, "Toggle file")->capture_default_str();

  CLI::App& check =
      *app.add_subcommand("check", "Say what is wrong with a scenario, and show its timers.");
  check.add_option("file", options.file, "Scenario (YAML), see docs/lab.md")->required();

  CLI::App& fuzz = *app.add_subcommand(
      "fuzz", "Play drawn meshes in which everything goes wrong, and check what must hold.");
  FuzzOptions fuzzing;
  addFuzzOptions(fuzz, fuzzing);

  try {
    std::ranges::reverse(args);  // The parser takes them from the back.
    app.parse(std::move(args));
    if (fuzz.parsed()) {
      fuzzing.progress = &err == &std::cerr && isatty(STDERR_FILENO) != 0;
      return runFuzz(fuzzing, out, err) ? held : notHeld;
    }
    Program program(out, err);
    return run.parsed() ? program.run(options) : program.check(options);
  } catch (const CLI::ParseError& error) {
    return app.exit(error, out, err) == 0 ? held : badInput;
  } catch (const std::exception& error) {
    err << "tessel-lab: internal error: " << error.what() << "\n";
    return internalError;
  }
}

}  // namespace tessel::lab
