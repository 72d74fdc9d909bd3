// Accounting: whether every packet is accounted for, from the one that offers it to the one that
// takes it out of the tunnel.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "lab/check/Findings.h"
#include "lab/check/MeshView.h"

namespace tessel::lab {

/// Compares the statistics of data planes, which begin anew with every start of a router, with the
/// counts of links, which never do.
class Accounting {
 public:
  Accounting(const MeshView& mesh, size_t routers, Findings& findings)
      : mesh_(mesh), findings_(findings), starts_(mesh.paths()), delivered_(routers) {}

  void handleRouterUp(const Router& router);
  /// An inner packet came out of a tunnel.
  void handleInnerPacket(const Router& router) { ++delivered_[router.index()]; }
  void look(const std::vector<std::unique_ptr<Router>>& routers);

 private:
  /// Counts of the link when the router at an end came up.
  struct Start {
    uint64_t sent = 0;      ///< By this end.
    uint64_t received = 0;  ///< By this end.
  };

  void checkSender(EndId id);
  void checkReceiver(const Router& router);
  Start now(EndId id) const;

  const MeshView& mesh_;
  Findings& findings_;
  std::vector<std::array<Start, 2>> starts_;
  std::vector<uint64_t> delivered_;  // Inner packets by router since its start.
};

}  // namespace tessel::lab
