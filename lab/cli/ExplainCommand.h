// tessel-lab explain: what a report says about what went wrong.
#pragma once

#include <string>
#include <vector>

#include "lab/cli/Terminal.h"

namespace tessel::lab {

struct ExplainOptions {
  std::string file{};
  std::vector<std::string> paths{};  ///< Empty: all, and what concerns no path.
};

/// Returns the exit status, see Program.h.
int explainCommand(const ExplainOptions& options, Terminal& terminal);

}  // namespace tessel::lab
