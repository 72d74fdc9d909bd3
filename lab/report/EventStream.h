// EventStream: watches a lab and tells what happens in it, event by event.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lab/report/LabEvent.h"
#include "lab/run/LabObserver.h"

namespace tessel::lab {

/// Turns what can be observed of a lab, its agents and its data paths into `LabEvent`s. Changes
/// nothing and draws nothing.
class EventStream final : public LabObserver {
 public:
  /// The sinks outlive the stream and are told in their order.
  EventStream(const Scenario& scenario, std::vector<LabEventSink*> sinks);
  EventStream(const EventStream&) = delete;
  EventStream& operator=(const EventStream&) = delete;
  ~EventStream() override;

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
  void handleEvent(const Router& router, const SecurityAssociationKey& key,
                   const ConnectionKey& path, const SaEvent& event) override;
  void handleLog(const AgentLogLine& line) override;
  void handleTrace(const TraceLine& line) override;

  void tell(const LabEvent& event);
  Duration now() const;
  std::string routerName(const IpGenAddr& address) const;

  /// Whether some sink wants this event of the machine.
  bool isWanted(event::Machine::Log log, std::string_view name) const {
    return everything_ || hasWords(log, name);
  }

  const std::vector<LabEventSink*> sinks_;
  const bool everything_;
  const Clock* clock_ = nullptr;
  std::map<IpGenAddr, std::string> namesByAddress_;
  std::map<std::string, std::unique_ptr<AgentWatch>> agents_;
};

}  // namespace tessel::lab
