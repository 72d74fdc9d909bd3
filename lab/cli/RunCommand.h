// tessel-lab run: plays a scenario.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lab/cli/Terminal.h"
#include "lab/toggles/LoadToggles.h"

namespace tessel::lab {

struct RunOptions {
  std::string file{};
  std::string toggleFile{toggleFileName};
  std::optional<uint64_t> seed{};
  bool trace = false;
  bool quiet = false;
  // Files to write; empty: none.
  std::string jsonFile{};
  std::string reportFile{};
  std::string eventFile{};
  std::string captureFile{};
  std::string espKeyFile{};
};

/// Returns the exit status, see Program.h.
int runCommand(const RunOptions& options, Terminal& terminal);

}  // namespace tessel::lab
