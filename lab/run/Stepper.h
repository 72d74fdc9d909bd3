// Stepper: a lab in which nothing reaches a router before it is let through, for runs that order
// the steps of procedures which cross.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "lab/run/LabObserver.h"

namespace tessel::lab {

class Lab;

/// Observes a lab whose hold it keeps. Between `hold` and `release` every record of a controller,
/// every packet and every installation of SAs waits, each kind at each router in its order. Packets
/// that can tell a router nothing new go on at `releaseOrdinaryPackets`; the others, records and
/// installations are steps that are taken one by one. A router that restarts stays held.
class Stepper final : public LabObserver {
 public:
  /// What can reach a router next.
  struct Step {
    enum class Kind : uint8_t {
      record,        ///< The first record, or withdrawal, that waits for the router.
      installation,  ///< Of the SAs that were handed over first, all that came together.
      packet,        ///< The first one on an SA, or the first one with another nonce word.
    };
    Kind kind = Kind::record;
    std::string router;  ///< Which it reaches.
    std::string path{};  ///< Of a packet.
    friend bool operator==(const Step&, const Step&) = default;
  };

  Stepper();
  Stepper(const Stepper&) = delete;
  Stepper& operator=(const Stepper&) = delete;
  ~Stepper() override;

  /// Holds `lab`, which this observes, from now on.
  void hold(Lab& lab);
  /// Lets everything through, and SAs are installed after their routers' delays again.
  void release();

  /// The steps that can be taken now, in the order of routers and kinds.
  std::vector<Step> steps() const;
  /// Takes one of them: it happens as soon as time runs.
  void take(const Step& step);
  void releaseOrdinaryPackets();

  void handleRouterUp(Router& router) override;
  void handleRouterDown(Router& router) override;
  void handleEnd() override;

 private:
  class Packets;
  /// A direction of a path.
  struct Direction {
    Link* link = nullptr;
    LinkEnd from = LinkEnd::a;
    std::string receiver;
    std::string path;
    std::deque<uint64_t> news{};  ///< Which packets are steps: their numbers on the link, from 0.

    /// How many packets can go before the next one that is a step.
    size_t ordinary() const;
    bool stepWaits() const;
  };

  Direction& direction(const Link* link, LinkEnd from);

  Lab* lab_ = nullptr;  // While it is held.
  std::vector<std::unique_ptr<Packets>> packets_;
  std::vector<Direction> directions_;
  std::vector<Duration> installDelays_;  // By router, as they were before.
};

}  // namespace tessel::lab
