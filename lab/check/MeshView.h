// MeshView: the paths of a lab with both of their ends, and the SAs that the data planes have
// reported for each end.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "lab/check/Findings.h"
#include "lab/dataplane/DataPlaneEvents.h"
#include "lab/net/Link.h"
#include "lab/router/Router.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// Agents look through their paths once in that time.
inline constexpr Duration kSanityInterval = seconds(60);

/// One end of one path: the path's number among the scenario's, from 0, and 0 or 1.
struct EndId {
  size_t path = 0;
  size_t end = 0;
  EndId other() const { return {path, 1 - end}; }
};

class MeshView {
 public:
  /// An SA as its data plane last reported it.
  struct Sa {
    SecurityAssociationKey key;
    bool inbound = false;
    bool installed = false;
    bool failed = false;  ///< Its installation did, and it was never installed.
    uint64_t handOver = 0;
  };
  struct End {
    Router* router = nullptr;
    RouterPath* path = nullptr;
    IpGenAddr privateAddress;
    IpGenAddr publicAddress;  ///< Unspecified without a translator.
    std::vector<Sa> sas{};
    std::vector<uint32_t> nonceWords{};  ///< Sent, the newest ones, oldest first.
  };

  explicit MeshView(const Lab& lab);

  size_t paths() const { return plans_.size(); }
  const PathPlan& plan(size_t path) const { return *plans_[path]; }
  Link& link(size_t path) const { return *links_[path]; }
  End& end(EndId id) { return ends_[id.path][id.end]; }
  const End& end(EndId id) const { return ends_[id.path][id.end]; }
  /// The end that a router calls by that key, one of its paths.
  EndId find(const Router& router, const ConnectionKey& key) const;
  /// The ends of a router's paths.
  const std::vector<EndId>& endsOf(const Router& router) const { return byRouter_[router.index()]; }
  /// What the agent at the end stores of the peer that the path layer names, and of the path; null
  /// when it stores nothing, or is down.
  Ptr<Ike::PeerConnectionState> peerState(EndId id) const;
  Ptr<Ike::PathConnState> pathState(EndId id) const;
  /// Whether the end's agent takes every path for active, whatever its data plane sees.
  bool forcesActive(EndId id) const;

  Place place(size_t path) const { return placeOf(plan(path)); }

  /// The installed out-SA that was handed over last: what the end sends on. Null without one.
  const Sa* sending(EndId id) const;
  /// The installed in-SA with that SPI; null without one.
  const Sa* receiving(EndId id, uint32_t spi) const;
  /// What the end's data plane says of an SA now.
  std::optional<SaReport> report(EndId id, const Sa& sa) const;
  /// Whether what `from` sends now finds an in-SA with the same key at the other end.
  bool matches(EndId from) const;

 private:
  std::vector<const PathPlan*> plans_;
  std::vector<Link*> links_;
  std::vector<std::array<End, 2>> ends_;
  std::vector<std::vector<EndId>> byRouter_;
};

}  // namespace tessel::lab
