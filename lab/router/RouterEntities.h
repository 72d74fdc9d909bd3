// RouterEntities: everything that a router's agent shares with its machine.
#pragma once

#include "host/agent/AgentEntities.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// One set per start of a router: what a router knew dies with it.
struct RouterEntities : AgentEntities {
  /// Empty entities with the periods and log sizes of the settings.
  RouterEntities(const Clock& clock, const RouterSettings& settings);
};

/// Writes a profile with its SA settings and crypto suites, or changes them; notifies nobody.
void writeProfile(Ike::Config& config, const ProfileSettings& profile);

/// Says that a profile changed.
void notifyProfile(RouterEntities& entities, const std::string& profile);

}  // namespace tessel::lab
