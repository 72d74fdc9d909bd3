// TableChecks: what must hold of the tables of one router, at whatever moment one looks.
#pragma once

#include <cstdint>
#include <map>
#include <tuple>

#include "lab/check/Findings.h"
#include "lab/router/Router.h"

namespace tessel::lab {

class TableChecks {
 public:
  explicit TableChecks(Findings& findings) : findings_(findings) {}

  /// Looks through the tables of a router that is up.
  void look(const Router& router, Duration now);
  /// Looks through its logs: more work, and what is wrong with them stays.
  void lookAtLogs(const Router& router);

 private:
  /// A generation of a peer at a router, by the router's index.
  using Stored = std::tuple<uint32_t, IpGenAddr, uint64_t>;

  void checkSas(const Router& router);
  void checkGenerationCount(const Router& router, const IpGenAddr& peer);
  void checkPath(const Router& router, const Ike::PathConnState& path);
  void checkGenerations(const Router& router, Duration now);

  Findings& findings_;
  std::map<Stored, Duration> superfluousSince_;  // Generations that are to go.
};

}  // namespace tessel::lab
