// FuzzCase: what one seed stands for: a mesh, and what goes wrong in it and when.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/model/Duration.h"
#include "lab/fuzz/FaultKind.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

inline constexpr uint32_t kMostFuzzRouters = 16;

/// From what a case is drawn.
struct FuzzRange {
  uint32_t minRouters = 2;
  uint32_t maxRouters = kMostFuzzRouters;
  Duration duration = seconds(2 * 3600);  ///< Of a run; at least `kShortestFuzzRun`.
};

/// The part of a run without faults, at its end: time to come to rest, then to show it.
inline constexpr Duration kQuietTime = seconds(2400);
/// Leaves as much time for faults as for rest.
inline constexpr Duration kShortestFuzzRun = kQuietTime * 2;

/// One fault: what begins it, and what ends it if it does not pass by itself.
struct Fault {
  FaultKind kind{};
  TimelineEntry begin{};
  std::optional<TimelineEntry> end{};
};

struct FuzzCase {
  /// Without a timeline.
  Scenario mesh{};
  /// By the time at which they begin.
  std::vector<Fault> faults{};
  /// The last fault ends here.
  Duration faultsEnd{};

  /// The mesh with its faults as a timeline.
  Scenario scenario() const;
};

/// The case of a seed: the same for the same seed and range. Every kind of fault is in the cases of
/// about half of the seeds and has random numbers of its own, so that leaving it out leaves the
/// others as they are.
FuzzCase drawCase(uint64_t seed, const FuzzRange& range);

}  // namespace tessel::lab
