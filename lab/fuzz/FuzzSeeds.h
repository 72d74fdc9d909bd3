// FuzzSeeds: many drawn cases, played side by side, and what they proved.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <thread>

#include "lab/fuzz/FuzzCase.h"

namespace tessel::lab {

struct FuzzOptions {
  uint64_t seeds = 1;
  uint64_t from = 1;  ///< The first seed.
  unsigned jobs = std::thread::hardware_concurrency();
  FuzzRange range{};
  /// Makes the first failing case as small as it gets and writes it to `seed-N.yaml`.
  bool shrink = false;
  /// A line that shows how far it is, for a terminal.
  bool progress = false;
};

/// Plays the seeds and writes what came of them to `out`, the progress to `err`. Returns whether
/// all held. Every twentieth seed is played twice and must give the same run.
bool runFuzz(const FuzzOptions& options, std::ostream& out, std::ostream& err);

}  // namespace tessel::lab
