#include "sm/EventRecorder.h"

#include "host/facility/Trace.h"
#include "sm/FeatureToggles.h"
#include "sm/KeyDerivation.h"
#include "sm/Paths.h"
#include "sm/TesselV1Sm.h"

namespace tessel::Ipsec {

namespace {

/// Writes `event` into the slot at the head of the ring and moves the head.
template <class Event>
void append(EventLog<Event>& log, const Event& event) {
  log.eventsIs(log.head(), event);
  if (log.eventCount() < log.capacity()) {
    log.eventCountInc(1);
    if (log.eventCount() < log.capacity()) {
      log.headInc(1);
      return;
    }
  }
  log.headIs((log.head() + 1) % log.eventCount());
}

struct RecordedPath {
  Ptr<Path::PathStatus> pathStatus;
  Ptr<Ike::PathConnState> path;
};

/// The status and the state of a path; without either there is nothing to record, and both are
/// null.
RecordedPath findPath(const TesselV1Sm& sm, const ConnectionKey& connectionKey) {
  const Ptr<Path::PathStatus>& pathStatus = sm.ipsecPathStatusDir()->ipsecPathStatus(connectionKey);
  if (!pathStatus) {
    TRACE("pathStatus not found.", connectionKey);
    return {};
  }
  Ptr<Ike::PathConnState> path = sm.paths().getPathConnState(connectionKey);
  if (!path) {
    TRACE("pathConnState not found", connectionKey);
    return {};
  }
  return {pathStatus, std::move(path)};
}

}  // namespace

bool EventRecorder::recording() const {
  return trellisSnapshotToggle.isOn() && sm_.recordEvents()->maxEventRecord() > 0;
}

void EventRecorder::recordLocalEvent(EventName eventName, uint64_t number) {
  if (!recording()) {
    return;
  }
  const LocalEvent event{sm_.utcTime(), eventName, number};
  append(*sm_.recordEvents()->localEventsIs(), event);
  if (EventObserver* observer = sm_.recordEvents()->observer()) {
    observer->handleEvent(event);
  }
}

void EventRecorder::recordPeerEvent(EventName eventName, const IpGenAddr& peerAddr) {
  if (!recording()) {
    return;
  }
  const PeerEvent event{sm_.utcTime(), eventName, peerAddr,
                        sm_.keyDerivation().getCurrentBgpDhKeyPair(peerAddr)};
  append(*sm_.recordEvents()->peerEventsIs(peerAddr), event);
  if (EventObserver* observer = sm_.recordEvents()->observer()) {
    observer->handleEvent(event);
  }
}

void EventRecorder::recordPathEvent(EventName eventName, const ConnectionKey& connectionKey,
                                    const DhKeyPair& dhKeyPair) {
  if (!recording()) {
    return;
  }
  const auto [pathStatus, path] = findPath(sm_, connectionKey);
  if (!path) {
    return;
  }
  const PathEvent event{sm_.utcTime(), eventName, connectionKey, path->pathState(), dhKeyPair};
  RecordEvents& logs = *sm_.recordEvents();
  const Ptr<PathEventEntry> log = logs.pathEventsIs(connectionKey);
  append(*log, event);
  const Ptr<PathNameMapping> mapping = logs.pathNameMappingIs(pathStatus->pathName());
  mapping->pathEventsIs(log);
  mapping->peerEventsIs(logs.peerEventsIs(pathStatus->remoteIp()));
  if (EventObserver* observer = logs.observer()) {
    observer->handleEvent(event);
  }
}

void EventRecorder::recordSaEvent(EventName eventName, const SecurityAssociationKey& saKey,
                                  const ConnectionKey& connectionKey) {
  if (!recording()) {
    return;
  }
  const auto [pathStatus, path] = findPath(sm_, connectionKey);
  if (!path) {
    return;
  }
  const IpGenAddr peer = pathStatus->remoteIp();
  const SaEvent event{sm_.utcTime(), eventName, saKey.spi, path->pathState(),
                      sm_.keyDerivation().getCurrentBgpDhKeyPair(peer)};
  RecordEvents& logs = *sm_.recordEvents();
  const Ptr<SaEventEntry> log = logs.saEventsIs(saKey);
  append(*log, event);
  const Ptr<PathNameMapping> mapping = logs.pathNameMappingIs(pathStatus->pathName());
  mapping->saEventsIs(log);
  mapping->pathEventsIs(logs.pathEventsIs(connectionKey));
  mapping->peerEventsIs(logs.peerEventsIs(peer));
  if (EventObserver* observer = logs.observer()) {
    observer->handleEvent(saKey, connectionKey, event);
  }
}

}  // namespace tessel::Ipsec
