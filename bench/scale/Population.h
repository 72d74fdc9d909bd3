// Population: what a number of peers and paths costs, phase by phase.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/agent/FabricatedAgent.h"

namespace tessel::bench {

/// What one phase cost. Plain data: it crosses a pipe.
struct Phase {
  std::array<char, 32> name{};
  std::array<char, 48> longestJob{};  ///< Whose run was the longest.
  uint64_t operations = 0;
  double seconds = 0;        ///< Thread time in the machine.
  double cryptoShare = 0;    ///< Part of its elapsed time spent in libcrypto, 0 to 1.
  double longest = 0;        ///< Longest thread time between two returns to the scheduler.
  double nearlyAll = 0;      ///< What 99.9 % of those times do not exceed.
  double residentBytes = 0;  ///< At the end of the phase.

  double perOperation() const { return operations == 0 ? 0 : seconds / double(operations); }
};

/// What a sweep over everything costs: one run of the handler, or of all slices of the drain.
struct Sweep {
  std::array<char, 48> name{};
  uint64_t runs = 0;
  double seconds = 0;  ///< Of all runs.
  double longest = 0;
};

struct PopulationResult {
  uint32_t peers = 0;
  uint32_t pathsPerPeer = 0;
  double sharedSecretFloor = 0;  ///< Seconds, as all of these.
  double prfFloor = 0;
  double lookupFloor = 0;         ///< Of as many SAs as the population has.
  double hostBytesPerPath = 0;    ///< What the agent itself wrote: path data, records.
  double engineBytesPerPath = 0;  ///< What the machine added to it, at rest, logs full.
  std::vector<Phase> phases;
  std::vector<Sweep> sweeps;          ///< Of the hour with traffic.
  std::vector<double> rekeyResident;  ///< Resident bytes after each DH rekey.

  uint64_t paths() const { return uint64_t{peers} * pathsPerPeer; }
};

struct PopulationSettings {
  AgentSettings agent;
  uint32_t trafficSeconds = 3600;
  uint32_t dhRekeys = 1;
};

/// Runs all phases. Prints what it is about to do to stderr.
PopulationResult runPopulation(const PopulationSettings& settings);

}  // namespace tessel::bench
