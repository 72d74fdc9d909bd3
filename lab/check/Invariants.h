// Invariants: what must hold at every moment of every run, whatever happens in it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lab/check/Accounting.h"
#include "lab/check/EntityChecks.h"
#include "lab/check/Findings.h"
#include "lab/check/PacketChecks.h"
#include "lab/check/PathChecks.h"
#include "lab/check/SecretScan.h"
#include "lab/check/TableChecks.h"
#include "lab/run/LabObserver.h"

namespace tessel::lab {

class Lab;

/// Watches a lab and its packets, and looks through all tables at regular times. Changes nothing
/// and draws nothing: a run that is watched is the same run. docs/invariants.md lists what it
/// checks.
class Invariants final : public LabObserver {
 public:
  Invariants();
  Invariants(const Invariants&) = delete;
  Invariants& operator=(const Invariants&) = delete;
  ~Invariants() override;

  /// Looks through the tables of `lab`, which this observes, from now on. To be called before time
  /// goes on.
  void start(Lab& lab, Duration every = seconds(10));

  /// Every violation once: the first of each invariant and place, in the order of time.
  const std::vector<Violation>& violations() const { return findings_.violations(); }
  /// How many times an invariant was evaluated: once per packet, path, router or log.
  uint64_t evaluated(Invariant invariant) const { return findings_.evaluated(invariant); }
  /// By name, in their order.
  std::vector<std::pair<std::string, uint64_t>> evaluated() const;

  /// Looks for secrets of the run in what it puts out: a line or a whole file, but no secret cut in
  /// two. May also be called when the lab is gone.
  void scan(std::string_view output);

  void handleRouterUp(Router& router) override;
  void handleRouterDown(Router& router) override;
  void handleInnerPacket(Router& router, const ConnectionKey& path, BytesView inner) override;
  void handlePublished(const std::string& router, const Controller::PeerKeyInfo* record) override;
  void handleEvent(const Router& router, const LocalEvent& event) override;
  void handleEvent(const Router& router, const PathEvent& event) override;
  void handleEvent(const Router& router, const SecurityAssociationKey& key,
                   const ConnectionKey& path, const SaEvent& event) override;
  using LabObserver::handleEvent;
  void handleEnd() override;

 private:
  /// What can be looked at while there is a lab.
  struct Checks;

  void schedule(Duration every);
  void look();

  Lab* lab_ = nullptr;
  Findings findings_;
  uint64_t looks_ = 0;
  SecretScan secrets_;
  std::unique_ptr<Checks> checks_;
};

}  // namespace tessel::lab
