// PeerRecovery: a peer that was marked down comes back, and paths that are missing are built.
#pragma once

#include "host/model/IkePath.h"
#include "host/model/Keys.h"
#include "host/model/Path.h"

namespace tessel::Ipsec {

class TesselV1Sm;

class PeerRecovery {
 public:
  explicit PeerRecovery(TesselV1Sm& sm) : sm_(sm) {}

  /// Once per sanity interval: recovers every peer past its first exchange that has a record and is
  /// not ready or misses a wanted path.
  void recoverPeers();
  /// Forgets the generations that came to nothing, and sets the peer ready when the crypto of the
  /// current pair exists or can be derived. The role stays.
  void recoverPeer(const IpGenAddr& peer);
  /// Establishes the peer's wanted paths that are missing.
  void establishWantedPaths(const IpGenAddr& peer);

 private:
  /// Configured, allowed, and its underlying path established.
  bool isWanted(const Path::PathStatus& pathStatus) const;

  TesselV1Sm& sm_;
};

}  // namespace tessel::Ipsec
