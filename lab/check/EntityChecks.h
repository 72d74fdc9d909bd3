// EntityChecks: what must hold of an agent's entities in the moment in which they change: the
// record that it publishes, and what stays when a path or a peer is removed.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "lab/check/Findings.h"
#include "lab/check/SendWindows.h"
#include "lab/router/Router.h"

namespace tessel::lab {

/// Watches the entities of a router from one start to the next stop.
class EntityChecks {
 public:
  EntityChecks(const Router& router, SendWindows& windows, Findings& findings);
  EntityChecks(const EntityChecks&) = delete;
  EntityChecks& operator=(const EntityChecks&) = delete;

  const Router& router() const { return router_; }

  /// The controllers took up the router's record.
  void handlePublished(const Controller::PeerKeyInfo& record);
  /// Judges the peers that were removed since the last look.
  void look();

 private:
  using SaKeys = std::vector<SecurityAssociationKey>;
  /// What a router keeps, by path, and how many crypto records by peer.
  struct Tables {
    std::map<ConnectionKey, SaKeys> paths;
    SaKeys handedOver;
    std::map<IpGenAddr, size_t> cryptoInfos;
    friend bool operator==(const Tables&, const Tables&) = default;
  };
  /// The paths of the other peers when one was removed.
  struct RemovedPeer {
    IpGenAddr peer;
    uint32_t version = 0;  ///< Of the own record.
    std::map<IpGenAddr, std::vector<ConnectionKey>>
        others{};  // Whose records stayed as they were since.
  };

  void handleLocalKeyDir(const Change& change);
  void handlePathConfig(const Change& change);
  void handlePathStatus(const Change& change);
  void handlePeerKeyDir(const Change& change);
  Tables tablesWithout(const ConnectionKey& path) const;
  bool isTakenUp(const IpGenAddr& peer) const;
  bool isGone(const ConnectionKey& path) const;
  void judge(const RemovedPeer& removed);

  const Router& router_;
  SendWindows& windows_;
  Findings& findings_;
  Subscription localKeyDir_;
  Subscription pathConfig_;
  Subscription pathStatus_;
  Subscription peerKeyDir_;
  std::shared_ptr<const Controller::PeerKeyInfo> wholeRecord_;  // As of the last updateVersion.
  std::map<ConnectionKey, Tables> beforePathRemoval_;
  std::vector<RemovedPeer> removedPeers_;
};

}  // namespace tessel::lab
