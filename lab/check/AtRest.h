// AtRest: whether a mesh has settled, and what is in the way when it has not.
#pragma once

#include <string>

#include "lab/scenario/Scenario.h"

namespace tessel::lab {

class Lab;
class Router;

/// Why a path is not at rest, empty when it is: at both ends it is active and in no rekey, has one
/// steady pair of SAs and no other, of the newest generations of both routers; what one end sends
/// with is what the other receives with. A path that is not wanted must be gone at both ends.
std::string whyNotAtRest(const Lab& lab, const PathPlan& path);

/// Why a router is not at rest, empty when it is: it is up, is in no DH rekey of its own and holds
/// one generation of its own key.
std::string whyNotAtRest(const Router& router);

/// Whether both routers of a path take the same role in the derivation of their keys: then they
/// derive different ones until one of them starts over.
bool rolesAreSplit(const Lab& lab, const PathPlan& path);

}  // namespace tessel::lab
