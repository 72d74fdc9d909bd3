// FuzzCommand: the options of tessel-lab fuzz.
#pragma once

#include <CLI/CLI.hpp>

#include "lab/fuzz/FuzzSeeds.h"

namespace tessel::lab {

/// Adds the subcommand, which fills `options`.
CLI::App& addFuzz(CLI::App& app, FuzzOptions& options);

}  // namespace tessel::lab
