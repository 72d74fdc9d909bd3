// DhRekey: replacing the router's DH key. When it falls due, how it is paused while the PF
// controllers are away, and what it does to each peer and path.
//
//   local state   0 --due--> 1 --every path has its new in-SA--> 2 --published--> 3 --all done--> 0
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/model/Enumerations.h"
#include "host/model/IkePath.h"
#include "host/model/Keys.h"

namespace tessel::Ipsec {

class TesselV1Sm;

class DhRekey {
 public:
  explicit DhRekey(TesselV1Sm& sm) : sm_(sm) {}

  // Timers.

  /// Creates the three DH/SA timers and arms each at once.
  void startDHTimers();
  void stopDHTimers();
  bool dhTimersRunning() const { return dhTimersRunning_; }
  /// Starts a rekey that is due and moves a running one on.
  void handleDhRekeyTimer();
  /// Whether the key's lifetime, less its random spread, has passed.
  bool hasDhTimerExpired();

  // PF connectivity. The hold timer runs from the loss of the connection for the hold time.

  void handleConnectionStatus();
  void startOrStopHoldTimer();
  void startHoldTimer();
  void stopHoldTimer();
  void handleHoldTimer();
  bool isHoldTimerRunning() const;
  /// A rekey fell due while the hold timer ran.
  bool needDhRekey() const { return needDhRekey_; }

  /// Whether a usable path has an SA or DH rekey running.
  bool isAnyPathRekeying() const;

  // Execution, per peer.

  void dhRekeyBacklogProcessElem(const IpGenAddr& peer);
  void doInitiatorDhRekey(const IpGenAddr& peer);
  void doResponderDhRekey(const IpGenAddr& peer);
  /// Derives every pair of stored generations that has no crypto yet, and creates its in-SAs.
  /// Whether there was such a pair.
  bool doDhRekey(const IpGenAddr& peer);
  /// Gives paths that were built after the local rekey started what the others got when it did.
  /// Whether there was such a path.
  bool catchUpPaths(const IpGenAddr& peer);
  SmState getDhRekeyRole(const DhKeyPair& dhKeyPair, uint64_t newestLocal,
                         uint64_t newestPeer) const;

  // Execution, per path.

  void markPathsAsDhRekeyInitiated();
  void markPathsAsDhRekeyResponder(const IpGenAddr& peer);
  void setDhSmState(const DhKeyPair& dhKeyPair, const Ptr<Ike::PathConnState>& path,
                    SmState smState);
  /// What `checkAllLocalSaState` found.
  struct LocalSaCheck {
    size_t done = 0;
    std::vector<ConnectionKey> pending;
  };
  /// Whether every path has come to `state` for the local generation `count`.
  bool checkAllLocalSaState(uint64_t count, DhRekeyState state,
                            LocalSaCheck* check = nullptr) const;

  /// The local rekey's state; this setter is its only writer.
  DhRekeyState dhRekeyState() const { return dhRekeyState_; }
  void setLocalDhState(uint64_t count, DhRekeyState state);

 private:
  /// False when the new generation cannot be made.
  bool startRekey(uint64_t next);
  void advanceRekey(uint64_t count);
  /// `checkAllLocalSaState`, less the paths that cannot take part in the rekey while others can.
  bool haveAllPathsReached(uint64_t count, DhRekeyState state);
  bool canTakePart(const ConnectionKey& key) const;

  /// Where a path stood before it was marked for a rekey.
  struct MarkedPath {
    Ptr<Ike::PathConnState> path;
    DynamicPathState state;
    Duration expiryTime;
  };
  std::vector<MarkedPath> snapshotPaths() const;
  void restorePaths(const std::vector<MarkedPath>& paths);
  /// Deletes what was derived from a generation that a forced rekey made anew.
  void deleteReplacedGeneration(uint64_t localCount);
  void createDhRekeyInSa(const Ike::PathConnState& path, const DhKeyPair& pair);

  TesselV1Sm& sm_;
  DhRekeyState dhRekeyState_ = DhRekeyState::notRekeying;
  Duration initiatedTime_;  // When the local state last became 1.
  bool dhTimersRunning_ = false;
  bool needDhRekey_ = false;
};

}  // namespace tessel::Ipsec
