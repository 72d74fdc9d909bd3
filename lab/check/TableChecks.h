// TableChecks: what must hold of the tables of one router, at whatever moment one looks.
#pragma once

#include <cstdint>
#include <map>
#include <utility>

#include "lab/check/Findings.h"
#include "lab/router/Router.h"

namespace tessel::lab {

class TableChecks {
 public:
  explicit TableChecks(Findings& findings) : findings_(findings) {}

  /// Looks through the tables of a router that is up.
  void look(const Router& router, Duration now);
  /// The router began a DH rekey: it makes SAs of every generation that is stored.
  void handleRekeyInitiated(const Router& router) { superfluousSince_.erase(router.index()); }
  /// Looks through its logs: more work, and what is wrong with them stays.
  void lookAtLogs(const Router& router);

 private:
  /// Of a peer: a generation, with any own one, or the crypto of a pair.
  using Stored = std::pair<IpGenAddr, DhKeyPair>;

  void checkSas(const Router& router);
  void checkPeer(const Router& router, const IpGenAddr& peer,
                 const Ike::PeerConnectionState& state);
  void checkPath(const Router& router, const Ike::PathConnState& path);
  void checkGenerations(const Router& router, Duration now);

  Findings& findings_;
  std::map<uint32_t, std::map<Stored, Duration>> superfluousSince_;  // By router: what is to go.
};

}  // namespace tessel::lab
