// LoadScenarioFile: reads a scenario for a subcommand, or says everything that is wrong with it.
#pragma once

#include <optional>
#include <string>

#include "lab/cli/Terminal.h"
#include "lab/scenario/LoadScenario.h"

namespace tessel::lab {

inline std::optional<Scenario> loadScenarioFile(const std::string& file, const Terminal& terminal) {
  LoadedScenario loaded = loadScenario(file);
  for (const ScenarioError& error : loaded.errors) {
    terminal.complain(file, (error.line > 0 ? "" : " ") + stringValue(error));
  }
  if (!loaded.errors.empty()) {
    return std::nullopt;
  }
  return std::move(loaded.scenario);
}

}  // namespace tessel::lab
