// FaultKind: what can go wrong in a drawn run.
#pragma once

#include <cstdint>
#include <vector>

#include "host/model/Duration.h"
#include "lab/net/SmallRandom.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

struct Fault;

enum class FaultKind : uint8_t {
  // Links.
  loss,
  burstLoss,
  delay,
  jitter,
  reordering,
  duplication,
  replay,
  bitFlips,
  oneWayCut,
  twoWayCut,
  flap,
  // Controllers.
  controllerLost,
  allControllersLost,
  controllersFlap,
  slowController,
  disturbedDelivery,
  recordWithdrawn,
  // Routers.
  restart,
  pause,
  slowInstallation,
  disturbedInstallation,
  failingInstallation,
  failingGeneration,
  restartedCounters,
  peerRemoved,
  // Operators.
  profile,
  routerId,
  pathRemoved,
  pathStatus,
  mergeData,
  lifetimes,
  mismatch,
  clear,
  forcedSaRekey,
  forcedDhRekey,
  knobs,
  quietTraffic,
};
inline constexpr size_t kFaultKinds = static_cast<size_t>(FaultKind::quietTraffic) + 1;

/// The longest that a reordered packet is held up.
inline constexpr Duration kLongestReordering = seconds(1000);

/// "loss", "two-way-cut".
const char* faultKindName(FaultKind kind);

/// Draws the faults of one kind for a mesh: none before `from`, all over by `to`.
std::vector<Fault> drawFaults(FaultKind kind, const Scenario& mesh, SmallRandom& random,
                              Duration from, Duration to);

}  // namespace tessel::lab
