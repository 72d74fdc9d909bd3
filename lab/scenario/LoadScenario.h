// LoadScenario: a scenario from its YAML form, docs/lab.md, or everything that is wrong with it.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// One fault of a scenario file.
struct ScenarioError {
  int line = 0;         ///< From 1; 0 for the file as a whole.
  int column = 0;       ///< From 1, in bytes.
  std::string field{};  ///< Such as routers[1].sa.lifetime; empty for the file as a whole.
  std::string value{};  ///< The offending value, on one line.
  std::string problem{};
};
/// "4:13: routers[0].sa.lifetime: "3600": the unit is missing: d, h, min, s, ms".
std::string stringValue(const ScenarioError& error);

struct LoadedScenario {
  /// Only to be used when there are no errors.
  Scenario scenario{};
  std::vector<ScenarioError> errors{};  ///< All of them, by line and column.
};

/// Never throws on bad input.
LoadedScenario readScenario(std::string_view text);
/// A file that cannot be read gives one error, at line 0. A scenario without a name gets the
/// file's.
LoadedScenario loadScenario(const std::filesystem::path& file);

}  // namespace tessel::lab
