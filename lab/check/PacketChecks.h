// PacketChecks: what must hold of every packet when it is sent, and of SAs when they are installed.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "lab/check/Findings.h"
#include "lab/check/MeshView.h"
#include "lab/check/SendWindows.h"

namespace tessel::lab {

/// Follows the data planes of all routers, each from one start to the next stop. What it costs per
/// packet is a lookup at the receiver and one of the IV; text is made for violations alone.
class PacketChecks {
 public:
  PacketChecks(Lab& lab, Findings& findings);
  PacketChecks(const PacketChecks&) = delete;
  PacketChecks& operator=(const PacketChecks&) = delete;
  ~PacketChecks();

  const MeshView& mesh() const { return mesh_; }
  SendWindows& windows() { return windows_; }

  void handleRouterUp(Router& router);
  void handleRouterDown(const Router& router);

 private:
  class Watch;
  /// Counter values that a key has encrypted under: [first, first + count), by `first`. One range
  /// per SA that used the key, since each counts up from a value of its own.
  using IvRanges = std::map<uint64_t, uint64_t>;

  void handleInstalled(EndId id, const SaReport& sa);
  void handleNonceSent(EndId from, const SaReport& sa, uint32_t word);
  void handleNonceReceived(EndId at, const SaReport& sa, uint32_t word);
  void handleSent(const Router& router, const PacketSent& packet);
  void checkReceiver(EndId from, const PacketSent& packet);
  void checkIv(EndId from, const PacketSent& packet);

  Findings& findings_;
  MeshView mesh_;
  SendWindows windows_;
  std::vector<std::unique_ptr<Watch>> watches_;
  // By the key's tag; looked up, never walked.
  std::unordered_map<uint64_t, IvRanges> ivs_;
  std::unordered_map<uint64_t, std::unordered_set<uint64_t>> randomIvs_;
};

}  // namespace tessel::lab
