#include "sm/PeriodicLog.h"

#include "host/facility/Trace.h"
#include "sm/FeatureToggles.h"
#include "sm/TesselV1Sm.h"

namespace tessel::Ipsec {

void PeriodicLog::handleLogTimer() {
  TRACE("handleLogTimer");
  if (!trellisSnapshotToggle.isOn()) {
    return;  // Not armed again: the check stays off for the life of the process.
  }
  if (!sm_.initialized()) {
    return;
  }
  for (const auto& [key, pathStatus] : sm_.ipsecPathStatusDir()->ipsecPathStatus()) {
    if (pathStatus->state() == Path::UnderlayState::established || pathStatus->establishAllowed()) {
      checkPath(*pathStatus);
    }
  }
  sm_.logTimer()->scheduleTaskDelay(sm_.logInterval());
}

void PeriodicLog::checkPath(const Path::PathStatus& pathStatus) {
  const ConnectionKey& key = pathStatus.connectionKey();
  const Ptr<Ike::PeerConnectionState>& peer =
      sm_.ipsecStatus()->ipsecPeerConnectionState(pathStatus.remoteIp());
  if (!peer) {
    TRACE("peerConnState not found", pathStatus.remoteIp());
    return;
  }
  const Ptr<Ike::PathConnState>& path = peer->pathConnState(key);
  if (!path) {
    TRACE("pathConnState not found", key);
    return;
  }
  const auto counters = sessionCounters(path->reqid());
  if (!counters) {
    TRACE("saSessionEntry not found for reqid :", path->reqid());
    return;
  }
  if (!path->sanityCheck()) {
    path->sanityCheckIs();
    path->sanityCheck()->pktsInIs(counters->pktsIn);
    path->sanityCheck()->pktsOutIs(counters->pktsOut);
    return;
  }
  Ike::SanityCheck& sanity = *path->sanityCheck();
  if (counters->pktsIn > sanity.pktsIn() && counters->pktsOut > sanity.pktsOut()) {
    sanity.pktsInIs(counters->pktsIn);
    sanity.pktsOutIs(counters->pktsOut);
    sanity.isLogEnabledIs(true);
  } else if (sanity.isLogEnabled()) {
    sanity.isLogEnabledIs(false);
    TRACE_AT(1, key, "prevPktsIn :", sanity.pktsIn(), " prevPktsOut :", sanity.pktsOut(),
             " curPktsIn :", counters->pktsIn, " curPktsOut :", counters->pktsOut);
  }
}

std::optional<IpsecCounters::IpsecSessionCounterEntry> PeriodicLog::sessionCounters(
    uint32_t reqid) const {
  if (!sm_.ipsecCounterTable()) {
    return std::nullopt;
  }
  try {
    const IpsecCounters::IpsecSessionCounterEntry entry =
        sm_.ipsecCounterTable()->sessionCounterEntry(reqid);
    if (entry == IpsecCounters::IpsecSessionCounterEntry()) {
      return std::nullopt;
    }
    return entry;
  } catch (const IpsecCounters::CorruptionException& corruption) {
    sm_.ipsecCounterTable()->doCorruptionDetected(corruption.what());
    return std::nullopt;
  }
}

}  // namespace tessel::Ipsec
