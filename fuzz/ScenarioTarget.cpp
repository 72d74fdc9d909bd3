// Scenario files: any text is either refused, with a place for every fault, or is a scenario that
// can be written and read again.
#include <string>

#include "fuzz/FuzzInput.h"
#include "lab/scenario/LoadScenario.h"
#include "lab/scenario/WriteScenario.h"
#include "lab/toggles/LoadToggles.h"

namespace tessel::lab {
namespace {

void read(std::string_view text) {
  const LoadedScenario loaded = readScenario(text);
  for (const ScenarioError& error : loaded.errors) {
    FUZZ_CHECK(error.line > 0 && error.column > 0 && !error.problem.empty(), stringValue(error));
  }
  if (!loaded.errors.empty()) {
    return;
  }
  const std::string written = scenarioText(loaded.scenario);
  const LoadedScenario again = readScenario(written);
  FUZZ_CHECK(again.errors.empty(), stringValue(again.errors.front()) + "\n" + written);
  FUZZ_CHECK(again.scenario == loaded.scenario, written);
}

}  // namespace
}  // namespace tessel::lab

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  tessel::lab::read(text);
  // The other file that an agent reads.
  if (const auto error = tessel::lab::readToggles(text)) {
    FUZZ_CHECK(error->line > 0 && error->column > 0 && !error->problem.empty(), error->problem);
  }
  return 0;
}
