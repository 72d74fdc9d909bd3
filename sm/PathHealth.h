// PathHealth: whether traffic flows on a path, and what is done when it does not.
#pragma once

#include "host/model/IkePath.h"
#include "host/model/Keys.h"

namespace tessel::Ipsec {

class RekeySm;
class TesselV1Sm;

/// Sanity checks, clearing and pruning of paths.
class PathHealth {
 public:
  explicit PathHealth(TesselV1Sm& sm) : sm_(sm) {}

  /// Queues every path whose underlying path is established.
  void sanitizeAllPaths();
  /// Checks one path.
  void sanitizePath(const ConnectionKey& key);
  /// Whether both packet counts of the path's steady SAs grew since the last recorded baseline.
  /// With `update` the baseline and the activity time move on.
  bool isPathActive(const ConnectionKey& key, bool update);
  /// The same for the path of a rekey machine.
  bool isPathActive(const RekeySm& rekeySm, bool update);
  /// Clears the path when it has expired and is neither active nor freshly rebuilt.
  void maybeClearPath(const ConnectionKey& key);
  /// Whether the path's steady SAs carry the SPIs of the current key generations.
  bool isPathCleared(const Ptr<Ike::PathConnState>& path) const;
  /// Rebuilds the path.
  void clearPath(const ConnectionKey& key);
  void handleClearPath(const ConnectionKey& key);
  /// Removes what a completed rekey left behind.
  void prunePath(const ConnectionKey& key);

 private:
  /// Of a path whose SAs a rekey machine watches, or not.
  bool isPathActive(const Ptr<Ike::PathConnState>& path, bool watched, bool update);
  /// Puts a path that completed an SA rekey in the middle of its DH rekey back to waiting for it.
  void resumeWaitingDhRekey(const Ptr<Ike::PathConnState>& path, const DhKeyPair& current);
  /// The published key generations of both sides, 0 for a peer without record.
  DhKeyPair currentDhKeyPair(const Ike::PathConnState& path) const;

  TesselV1Sm& sm_;
};

}  // namespace tessel::Ipsec
