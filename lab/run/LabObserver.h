// LabObserver: what can be watched of a lab while it runs.
#pragma once

#include <string>

#include "host/facility/AgentLog.h"
#include "host/facility/Trace.h"
#include "host/model/Events.h"
#include "lab/controller/Controllers.h"
#include "lab/router/Router.h"
#include "lab/run/Verdict.h"

namespace tessel::lab {

/// Watches a lab. Nothing that an observer does may change what happens in the lab.
class LabObserver : public RouterObserver, public ControllersObserver {
 public:
  void handlePublished(const std::string&, const Controller::PeerKeyInfo*) override {}
  void handleDelivered(const std::string&, const IpGenAddr&,
                       const Controller::PeerKeyInfo*) override {}
  void handleConnected(const std::string&, bool /*connected*/) override {}

  /// The lab is about to be taken down: whatever is held of it must be let go. Nothing follows.
  virtual void handleEnd() {}

  /// An entry of the timeline is about to happen.
  virtual void handleAction(const TimelineEntry&) {}
  virtual void handleVerdict(const Verdict&) {}

  /// The machine of a router recorded an event.
  virtual void handleEvent(const Router&, const LocalEvent&) {}
  virtual void handleEvent(const Router&, const PeerEvent&) {}
  virtual void handleEvent(const Router&, const PathEvent&) {}
  virtual void handleEvent(const Router&, const SecurityAssociationKey&, const ConnectionKey&,
                           const SaEvent&) {}

  virtual void handleLog(const AgentLogLine&) {}
  /// Only while the lab traces.
  virtual void handleTrace(const TraceLine&) {}
};

}  // namespace tessel::lab
