// PathLayer: configures the paths of a router and reports their status.
#pragma once

#include <cstdint>
#include <string>

#include "host/entity/KeyedCollection.h"
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

/// Writes the entities of paths in the order that the machine relies on. Every call belongs in a
/// job of the router. A path that is not there is left alone by everything but `add`.
class PathLayer {
 public:
  explicit PathLayer(RouterEntities& entities) : entities_(entities) {}

  /// Brings a path to the machine's notice: configuration, path status, connection status,
  /// encapsulation id, and at last the merged data.
  void add(const PathEnd& end);
  /// Takes a path away: its configuration, a change of its merged data (at which the machine drops
  /// the path), then the merged data, path status, connection status and encapsulation id.
  void remove(const ConnectionKey& key);
  /// Writes what the path layer says about a path, without announcing it.
  void update(const PathEnd& end);
  /// Changes the path's merged data, at which the machine looks at the path again.
  void announce(const ConnectionKey& key);
  /// Misbehaves.
  void mutantIs(Mutant mutant) { mutant_ = mutant; }
  bool has(const ConnectionKey& key) const;

 private:
  void write(const PathEnd& end);

  RouterEntities& entities_;
  uint64_t lastVersion_ = 0;
  Mutant mutant_ = Mutant::none;
};

}  // namespace tessel::lab
