// PathLayer: configures the paths of a router and reports their status.
#pragma once

#include <cstdint>
#include <string>

#include "host/agent/AgentPaths.h"
#include "host/model/Keys.h"
#include "lab/router/RouterEntities.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// One end of a path, as its router knows it.
struct PathEnd {
  std::string name;
  /// VRF 0, own underlay address, the other end's address as this end sees it, connection id.
  ConnectionKey key;
  std::string peer;         ///< Name of the other router.
  IpGenAddr peerAddr;       ///< Its VTEP address.
  IpGenAddr publicAddr;     ///< Own public address, or unspecified.
  uint16_t localPort = 0;   ///< Own outer UDP port.
  uint16_t remotePort = 0;  ///< The other end's.
  uint32_t index = 0;
  uint32_t reqid = 0;  ///< Its encapsulation id.
  PathCondition condition;
};

/// `AgentPaths` for the lab's path ends. Every call belongs in a job of the router.
class PathLayer {
 public:
  explicit PathLayer(RouterEntities& entities) : entities_(entities), paths_(entities) {}

  void add(const PathEnd& end);
  void remove(const ConnectionKey& key);
  void update(const PathEnd& end);
  void announce(const ConnectionKey& key) { paths_.announce(key); }
  /// Misbehaves.
  void mutantIs(Mutant mutant) { mutant_ = mutant; }
  bool has(const ConnectionKey& key) const { return paths_.has(key); }

 private:
  RouterEntities& entities_;
  AgentPaths paths_;
  Mutant mutant_ = Mutant::none;
};

}  // namespace tessel::lab
