#include "lab/cli/FuzzCommand.h"

#include <string>

#include <fmt/format.h>

namespace tessel::lab {
namespace {

/// "a..b", or "n" for exactly that. Returns what is wrong with it.
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

}  // namespace

CLI::App& addFuzz(CLI::App& app, FuzzOptions& options) {
  CLI::App& fuzz = *app.add_subcommand(
      "fuzz", "Play drawn meshes in which everything goes wrong, and check what must hold.");
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
  return fuzz;
}

}  // namespace tessel::lab
