// RunDigest: one number for everything that happened in a run.
#pragma once

#include <cstdint>
#include <string_view>

#include "lab/run/LabObserver.h"

namespace tessel::lab {

class Lab;

/// Folds every event, log line and record that passes into one number, and at the end the counts of
/// the links and the states of all random sources. Equal runs have equal digests, in debug and in
/// release builds alike; two runs that part anywhere have different ones.
class RunDigest final : public LabObserver {
 public:
  /// The digest of the run of `lab` up to now. Draws from the C library's generator, so it is for
  /// the end of the run.
  uint64_t finish(const Lab& lab);

 private:
  void handleRouterUp(Router& router) override;
  void handleRouterDown(Router& router) override;
  void handleEvent(const Router& router, const LocalEvent& event) override;
  void handleEvent(const Router& router, const PeerEvent& event) override;
  void handleEvent(const Router& router, const PathEvent& event) override;
  void handleEvent(const Router& router, const SecurityAssociationKey& key,
                   const ConnectionKey& path, const SaEvent& event) override;
  void handleDelivered(const std::string& router, const IpGenAddr& originator,
                       const Controller::PeerKeyInfo* record) override;
  void handleLog(const AgentLogLine& line) override;

  void add(uint64_t word);
  void add(std::string_view text);
  template <class Event>
  void addEvent(const Router& router, const Event& event);

  uint64_t state_ = 0;
};

}  // namespace tessel::lab
