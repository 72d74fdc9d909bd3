// Mesh: a scenario of routers that are all joined with each other, for tests and measurements.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lab/net/Link.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// What the underlay addresses of the paths are like.
enum class Underlay {
  own,     ///< Every path has two addresses of its own.
  shared,  ///< All paths of a pair run between the same two addresses and differ in their ports.
  translated,  ///< As `own`, and the first router of the pair is behind an address translator.
};

struct MeshSpec {
  uint64_t seed = 1;
  std::vector<std::string> routers{"east", "west"};
  uint32_t pathsPerPair = 1;
  Underlay underlay = Underlay::own;
  RouterSettings settings{};
  LinkSettings link{};
  Duration controllerDelay = seconds(0.050);
  /// When the flow "traffic" begins, which goes both ways on every path; never(): not by itself.
  Duration trafficStart = seconds(1);
  Duration trafficInterval = seconds(0.1);
};

/// Routers have the ids 192.0.2.1, 192.0.2.2, ... in their order. The paths of a pair are called
/// "east-west-1", "east-west-2", ..., the router that comes first in front. The only controller is
/// called "pf". The scenario has no duration: whoever runs it says for how long.
Scenario meshScenario(const MeshSpec& spec);

}  // namespace tessel::lab
