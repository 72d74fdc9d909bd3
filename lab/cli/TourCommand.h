// tessel-lab tour: the shipped scenarios, told in short.
#pragma once

#include <string>

#include "lab/cli/Terminal.h"

namespace tessel::lab {

struct TourOptions {
  std::string folder = "scenarios";
  bool all = false;  ///< Every scenario of the folder; else those that a newcomer should see.
};

/// Plays one scenario after the other. Returns the exit status, see Program.h.
int tourCommand(const TourOptions& options, Terminal& terminal);

}  // namespace tessel::lab
