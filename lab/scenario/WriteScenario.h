// WriteScenario: a scenario in its YAML form, docs/lab.md, the reverse of LoadScenario.h.
#pragma once

#include <string>

#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// The text of a file from which an equal scenario is read. Settings that all routers share stand
/// under `defaults`, and what goes without saying is left out; so is what means nothing: the
/// interval of probes that are off, and members of a fact that its kind does not have. Numbers come
/// back exactly. Throws std::invalid_argument for a value that a file cannot hold, such as a
/// negative time.
std::string scenarioText(const Scenario& scenario);

/// An action as a file has it, on one line: a `TimelineEntry::text`. Throws as `scenarioText`.
std::string actionText(const Action& action);

}  // namespace tessel::lab
