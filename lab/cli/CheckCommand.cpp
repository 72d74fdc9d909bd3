#include "lab/cli/CheckCommand.h"

#include <fmt/format.h>

#include "lab/Program.h"
#include "lab/cli/LoadScenarioFile.h"
#include "lab/scenario/EffectiveTimers.h"

namespace tessel::lab {

int checkCommand(const std::string& file, Terminal& terminal) {
  const std::optional<Scenario> scenario = loadScenarioFile(file, terminal);
  if (!scenario) {
    return badInput;
  }
  terminal.out << fmt::format("{}: {} routers, {} paths, {} expectations\n\n", scenario->name,
                              scenario->routers.size(), scenario->paths.size(),
                              scenario->expectations.size());
  for (const RouterTimers& timers : effectiveTimers(*scenario)) {
    terminal.out << stringValue(timers);
  }
  return held;
}

}  // namespace tessel::lab
