// tessel-lab check: reads a scenario without playing it.
#pragma once

#include <string>

#include "lab/cli/Terminal.h"

namespace tessel::lab {

/// Returns the exit status, see Program.h.
int checkCommand(const std::string& file, Terminal& terminal);

}  // namespace tessel::lab
