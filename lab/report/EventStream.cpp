#include "lab/report/EventStream.h"

#include <algorithm>
#include <utility>

#include "lab/report/AgentWatch.h"

namespace tessel::lab {
namespace {

std::optional<KeyFacts> factsOf(const Controller::PeerKeyInfo* record) {
  if (record == nullptr) {
    return std::nullopt;
  }
  return KeyFacts{.generation = record->rekeyCounter,
                  .group = static_cast<IpsecDhGroup>(record->dhGroup),
                  .encryption = static_cast<IpsecEspAlgorithm>(record->encryptAlgo),
                  .integrity = static_cast<IpsecHmacAlgorithm>(record->hashAlgo)};
}

void setPath(LabEvent& event, const Router& router, const ConnectionKey& key) {
  if (const RouterPath* path = router.path(key)) {
    event.path = path->end.name;
    event.peer = path->end.peer;
  }
}

}  // namespace

EventStream::EventStream(const Scenario& scenario, std::vector<LabEventSink*> sinks)
    : sinks_(std::move(sinks)),
      everything_(std::ranges::any_of(sinks_, &LabEventSink::wantsEverything)) {
  for (const RouterPlan& router : scenario.routers) {
    namesByAddress_[router.routerId] = router.name;
  }
}

EventStream::~EventStream() = default;

void EventStream::handleEnd() {
  agents_.clear();
}

void EventStream::handleRouterUp(Router& router) {
  clock_ = &router.running().scheduler->clock();
  namesByAddress_[router.routerId()] = router.name();
  agents_[router.name()] = std::make_unique<AgentWatch>(*this, router);
  tell({.at = now(),
        .router = router.name(),
        .what = event::RouterUp{.routerId = router.routerId(),
                                .profile = router.appliedProfile(),
                                .group = router.settings().group}});
}

void EventStream::handleRouterDown(Router& router) {
  agents_.erase(router.name());
  tell({.at = now(), .router = router.name(), .what = event::RouterDown{}});
}

void EventStream::handleInnerPacket(Router& router, const ConnectionKey& path, BytesView) {
  agents_.at(router.name())->handleInnerPacket(path);
}

void EventStream::handlePublished(const std::string& router,
                                  const Controller::PeerKeyInfo* record) {
  if (record != nullptr) {
    namesByAddress_[record->originatorId] = router;
  }
  tell({.at = now(), .router = router, .what = event::Published{.key = factsOf(record)}});
}

void EventStream::handleDelivered(const std::string& router, const IpGenAddr& originator,
                                  const Controller::PeerKeyInfo* record) {
  tell({.at = now(),
        .router = router,
        .peer = routerName(originator),
        .what = event::Received{.key = factsOf(record)}});
}

void EventStream::handleConnected(const std::string& router, bool connected) {
  tell({.at = now(), .router = router, .what = event::Connection{.connected = connected}});
}

void EventStream::handleAction(const TimelineEntry& entry) {
  tell({.at = entry.at, .what = event::TimelineAction{.text = entry.text, .line = entry.line}});
}

void EventStream::handleVerdict(const Verdict& verdict) {
  tell({.at = verdict.at, .what = event::Checked{.verdict = verdict}});
}

void EventStream::handleEvent(const Router& router, const LocalEvent& event) {
  if (!isWanted(event::Machine::Log::local, event.eventName.text())) {
    return;
  }
  tell({.at = now(),
        .router = router.name(),
        .what = event::Machine{.log = event::Machine::Log::local,
                               .name = event.eventName.text(),
                               .number = event.number}});
}

void EventStream::handleEvent(const Router& router, const PeerEvent& event) {
  if (!isWanted(event::Machine::Log::peer, event.eventName.text())) {
    return;
  }
  tell({.at = now(),
        .router = router.name(),
        .peer = routerName(event.peer),
        .what = event::Machine{.log = event::Machine::Log::peer,
                               .name = event.eventName.text(),
                               .generations = event.dhKeyPair}});
}

void EventStream::handleEvent(const Router& router, const PathEvent& event) {
  if (!isWanted(event::Machine::Log::path, event.eventName.text())) {
    return;
  }
  LabEvent told{.at = now(),
                .router = router.name(),
                .what = event::Machine{.log = event::Machine::Log::path,
                                       .name = event.eventName.text(),
                                       .generations = event.dhKeyPair,
                                       .pathState = event.pathState}};
  setPath(told, router, event.connectionKey);
  tell(told);
}

void EventStream::handleEvent(const Router& router, const SecurityAssociationKey& key,
                              const ConnectionKey& path, const SaEvent& event) {
  if (!isWanted(event::Machine::Log::sa, event.eventName.text())) {
    return;
  }
  LabEvent told{.at = now(),
                .router = router.name(),
                .what = event::Machine{.log = event::Machine::Log::sa,
                                       .name = event.eventName.text(),
                                       .generations = event.dhKeyPair,
                                       .pathState = event.pathState,
                                       .spi = key.spi}};
  setPath(told, router, path);
  tell(told);
}

void EventStream::handleLog(const AgentLogLine& line) {
  tell({.at = line.time,
        .router = std::string(line.context),
        .what = event::LogLine{.identifier = std::string(line.identifier),
                               .severity = line.severity,
                               .text = std::string(line.text)}});
}

void EventStream::handleTrace(const TraceLine& line) {
  tell({.at = line.time,
        .router = std::string(line.context),
        .what = event::TraceText{.text = std::string(line.text)}});
}

void EventStream::tell(const LabEvent& event) {
  for (LabEventSink* sink : sinks_) {
    sink->handle(event);
  }
}

Duration EventStream::now() const {
  return clock_ == nullptr ? Duration() : clock_->monotonicTime();
}

std::string EventStream::routerName(const IpGenAddr& address) const {
  const auto found = namesByAddress_.find(address);
  return found == namesByAddress_.end() ? address.stringValue() : found->second;
}

}  // namespace tessel::lab
