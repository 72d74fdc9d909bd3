// Narrator: tells what happens in a lab, line by line.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "lab/run/LabObserver.h"

namespace tessel::lab {

/// Writes a line for what a reader wants to follow: the timeline's actions, what the controllers
/// carry, how peers and paths change, which SAs come and go, rekeys, log messages, drops and broken
/// expectations. Each line has the virtual time and the router:
///
///        0.120 s  east  path internet: established -> active
///
/// Drops of one kind are gathered: the first is told at once, what follows in intervals.
class Narrator final : public LabObserver {
 public:
  using Write = std::function<void(std::string_view line)>;

  /// `write` gets whole lines, with their newline.
  Narrator(const Scenario& scenario, Write write);
  Narrator(const Narrator&) = delete;
  Narrator& operator=(const Narrator&) = delete;
  ~Narrator() override;

 private:
  class AgentWatch;

  void handleEnd() override;
  void handleRouterUp(Router& router) override;
  void handleRouterDown(Router& router) override;
  void handleInnerPacket(Router& router, const ConnectionKey& path, BytesView inner) override;
  void handlePublished(const std::string& router, const Controller::PeerKeyInfo* record) override;
  void handleDelivered(const std::string& router, const IpGenAddr& originator,
                       const Controller::PeerKeyInfo* record) override;
  void handleConnected(const std::string& router, bool connected) override;
  void handleAction(const TimelineEntry& entry) override;
  void handleVerdict(const Verdict& verdict) override;
  void handleEvent(const Router& router, const LocalEvent& event) override;
  void handleEvent(const Router& router, const PeerEvent& event) override;
  void handleEvent(const Router& router, const PathEvent& event) override;
  void handleLog(const AgentLogLine& line) override;
  void handleTrace(const TraceLine& line) override;

  void tell(std::string_view router, std::string_view text);
  void tellAt(Duration time, std::string_view router, std::string_view text);
  std::string routerName(const IpGenAddr& address) const;

  const Write write_;
  size_t nameWidth_;
  const Clock* clock_ = nullptr;
  std::map<IpGenAddr, std::string> namesByAddress_;
  std::map<std::string, std::unique_ptr<AgentWatch>> agents_;
};

}  // namespace tessel::lab
