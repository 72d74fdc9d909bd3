#include "sm/DhRekey.h"

#include <algorithm>
#include <vector>

#include "host/facility/Trace.h"
#include "sm/EventRecorder.h"
#include "sm/FeatureToggles.h"
#include "sm/LocalKey.h"
#include "sm/LogMessages.h"
#include "sm/Paths.h"
#include "sm/SaRekey.h"
#include "sm/TesselV1Sm.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::Ipsec {

namespace {

constexpr Duration kMinForcedExpiry = seconds(300);
/// How long a rekey waits for a path's new in-SA before it goes on without the path.
constexpr Duration kMaxPending = seconds(60);

}  // namespace

// Timers.

void DhRekey::startDHTimers() {
  TRACE("startDHTimers");
  const Ptr<TaskScheduler>& scheduler = sm_.scheduler();
  sm_.updateRekeyTimerIs(scheduler, TesselV1Sm::kTaskPriority,
                         "Ipsec::TesselV1Sm::updateRekeyTimer")
      ->scheduleTaskDelay(Duration());
  sm_.dhRekeyTimerIs(scheduler, TesselV1Sm::kTaskPriority, "Ipsec::TesselV1Sm::dhRekeyTimer")
      ->scheduleTaskDelay(Duration());
  sm_.saRekeyTimerIs(scheduler, TesselV1Sm::kTaskPriority, "Ipsec::TesselV1Sm::saRekeyTimer")
      ->scheduleTaskDelay(Duration());
  dhTimersRunning_ = true;
}

void DhRekey::stopDHTimers() {
  TRACE("stopDHTimers");
  sm_.updateRekeyTimer()->scheduleTaskDelay(Duration::never());
  sm_.dhRekeyTimer()->scheduleTaskDelay(Duration::never());
  sm_.saRekeyTimer()->scheduleTaskDelay(Duration::never());
  dhTimersRunning_ = false;
  needDhRekey_ = false;  // The end of a hold must not start what has been stopped.
}

bool DhRekey::hasDhTimerExpired() {
  const Duration generated = sm_.ipsecStatus()->localKeyState().latestGenerationTime;
  if (generated == Duration()) {
    TRACE("Initial local Dh keys not calculated yet");
    return false;
  }
  const Duration now = sm_.utcTime();
  if (const Ptr<Ike::TestKnob>& knob = sm_.ipsecStatus()->testKnob();
      knob && knob->dhExpiryTime()) {
    const Duration forced = *knob->dhExpiryTime();
    if (forced < kMinForcedExpiry) {
      knob->dhExpiryTimeIs(std::nullopt);
      return false;
    }
    const Duration expiry = generated + forced;
    if (now < expiry) {
      return false;
    }
    TRACE("Dh rekey triggered due to test knob, currentTime", now, ", dhExpiryTime", expiry);
    return true;
  }
  // The key's lifetime is spread like an SA's, with a new draw at every look.
  const uint64_t interval = getTimedSoftRekey(sm_.ipsecConfig()->keyController().dhKeyLifetime);
  const Duration expiry = generated + seconds(static_cast<double>(interval));
  if (now < expiry) {
    return false;
  }
  TRACE("Dh rekey triggered, currentTime", now, ", dhExpiryTime", expiry);
  return true;
}

void DhRekey::handleDhRekeyTimer() {
  TRACE("handleDhRekeyTimer");
  if (!sm_.initialized()) {
    return;
  }
  sm_.dhRekeyTimer()->scheduleTaskDelay(sm_.dhRekeyInterval());
  Ike::Status& status = *sm_.ipsecStatus();
  const Ptr<Ike::TestKnob> knob = status.testKnobIs();
  if (!status.isDhRekeyReady() && !knob->dhRekeyTrigger()) {
    TRACE("Not triggering DH rekey as the first peer was very recently discovered",
          sm_.monotonicTime(), status.getDhRekeyDelayTime());
    knob->dhRekeyTriggerIs(false);
    return;
  }
  if (sm_.paths().totalPaths() == 0) {
    TRACE("Not triggering DH rekey as there are no paths yet");
    knob->dhRekeyTriggerIs(false);
    return;
  }
  const uint64_t count = sm_.ipsecLocalKeyDir()->rekeyCounter();
  const bool expired = hasDhTimerExpired();
  const bool due = dhRekeyState_ == DhRekeyState::notRekeying && expired && !isHoldTimerRunning();
  if (due || knob->dhRekeyTrigger()) {
    TRACE("Local Dh rekey triggered");
    knob->dhRekeyTriggerIs(false);
    if (!startRekey(count + 1)) {
      return;
    }
  }
  if (expired && isHoldTimerRunning()) {
    TRACE("Need a DH rekey when PF connection is restored");
    needDhRekey_ = true;
  }
  advanceRekey(count);
}

bool DhRekey::startRekey(uint64_t next) {
  const std::vector<MarkedPath> before = snapshotPaths();
  markPathsAsDhRekeyInitiated();
  const bool replaced = sm_.localKey().localKeyInfo(next) != nullptr;
  if (!sm_.localKey().generateLocalKeyInfo(next)) {
    TRACE_ERROR("Failed to generate local key");
    restorePaths(before);
    return false;
  }
  if (replaced) {
    deleteReplacedGeneration(next);
  }
  for (const auto& [peer, state] : sm_.ipsecStatus()->ipsecPeerConnectionState()) {
    TRACE("Scheduling dhRekeyTask", peer);
    sm_.dhRekeyBacklogIs(peer);
  }
  sm_.dhRekeyTask()->scheduleTask();
  setLocalDhState(next, DhRekeyState::initiated);
  sm_.events().recordLocalEvent("dhRekeyInitiated", next);
  return true;
}

void DhRekey::advanceRekey(uint64_t count) {
  const uint64_t next = count + 1;
  const bool unpublished =
      dhRekeyState_ == DhRekeyState::initiated || dhRekeyState_ == DhRekeyState::inSaInstalled;
  const bool held = unpublished && isHoldTimerRunning();
  if (held) {
    TRACE("Need a DH rekey when PF connection is restored");
    needDhRekey_ = true;
  }
  if (dhRekeyState_ == DhRekeyState::initiated) {
    if (!haveAllPathsReached(next, DhRekeyState::inSaInstalled)) {
      sm_.dhRekeyTimer()->scheduleTaskDelay(sm_.updateRekeyInterval());
      return;
    }
    setLocalDhState(next, DhRekeyState::inSaInstalled);
    sm_.dhRekeyTimer()->scheduleTaskDelay(sm_.dhRekeyInterval());
    sm_.events().recordLocalEvent("dhRekeyInSaInstalled", next);
  }
  if (dhRekeyState_ == DhRekeyState::inSaInstalled) {
    if (held) {
      return;  // A key that nobody hears of must not replace the one they know.
    }
    if (!sm_.localKey().updateLocalKeyInfo(next)) {
      TRACE_ERROR("Failed to update local key information");
      return;
    }
    setLocalDhState(next, DhRekeyState::inProgress);
    sm_.events().recordLocalEvent("dhRekeyInProgress", next);
    return;
  }
  if (dhRekeyState_ == DhRekeyState::inProgress &&
      haveAllPathsReached(count, DhRekeyState::notRekeying)) {
    setLocalDhState(count, DhRekeyState::notRekeying);
    sm_.localKey().deleteOldLocalKeys();
    sm_.events().recordLocalEvent("dhRekeyNotRekeying", count);
  }
}

bool DhRekey::haveAllPathsReached(uint64_t count, DhRekeyState state) {
  LocalSaCheck check;
  if (checkAllLocalSaState(count, state, &check)) {
    return true;
  }
  if (dhRekeyState_ == DhRekeyState::initiated) {
    // A path that was built after the rekey started catches up when its peer is processed again.
    for (const ConnectionKey& key : check.pending) {
      if (const Ptr<Path::PathStatus>& pathStatus =
              sm_.ipsecPathStatusDir()->ipsecPathStatus(key)) {
        sm_.dhRekeyBacklogIs(pathStatus->remoteIp());
        sm_.dhRekeyTask()->scheduleTask();
      }
    }
  }
  return check.done > 0 && std::ranges::none_of(check.pending, [this](const ConnectionKey& key) {
           return canTakePart(key);
         });
}

bool DhRekey::canTakePart(const ConnectionKey& key) const {
  if (dhRekeyState_ == DhRekeyState::initiated &&
      sm_.monotonicTime() - initiatedTime_ > kMaxPending) {
    TRACE("Path is pending for too long", key);
    return false;
  }
  const Ptr<Path::PathStatus>& pathStatus = sm_.ipsecPathStatusDir()->ipsecPathStatus(key);
  const Ptr<Ike::IpsecConnectionStatusInfo>& connection =
      sm_.ipsecStatus()->ipsecConnectionStatusInfo(key);
  if (!pathStatus || !pathStatus->establishAllowed() ||
      pathStatus->state() != Path::UnderlayState::established || !connection ||
      !connection->isUsable()) {
    TRACE("Path is not usable", key);
    return false;
  }
  const Ptr<Ike::PeerConnectionState>& peer =
      sm_.ipsecStatus()->ipsecPeerConnectionState(pathStatus->remoteIp());
  if (!peer || peer->peerConnStatus() != PeerConnStatus::ready) {
    TRACE("Peer of the path is not ready", key);
    return false;
  }
  const Ptr<RekeySm>& rekeySm = sm_.paths().rekeySm(key);
  if (!rekeySm || !peer->pathConnState(key) || !rekeySm->getSaInfoFromType(SaType::steadyIn) ||
      !rekeySm->getSaInfoFromType(SaType::steadyOut)) {
    TRACE("Path has no steady SAs", key);
    return false;
  }
  return true;
}

// PF connectivity.

void DhRekey::handleConnectionStatus() {
  TRACE("handleConnectionStatus");
  const bool connected = sm_.controllerStatus()->connected();
  TRACE("Connection to PF is now", connected, " and local rekey count is",
        sm_.ipsecLocalKeyDir()->rekeyCounter());
  if (pfConnectionLossToggle.isOn()) {
    if (connected) {
      TESSEL_DH_REKEY_RESUMED.log();
      sm_.restoredConnectionToPfsInc(1);
    } else {
      TESSEL_DH_REKEY_PAUSED.log();
      sm_.lostConnectionToPfsInc(1);
    }
  }
  if (connected && !isHoldTimerRunning()) {
    sm_.localKey().doDestroyDhKey();
    if (sm_.localKey().localKeyReady()) {
      sm_.localKey().doGenerateDhKey();
    }
  }
  startOrStopHoldTimer();
  TRACE("Connection to PFs lost", sm_.lostConnectionToPfs(), " and restored",
        sm_.restoredConnectionToPfs(), " times");
}

void DhRekey::startOrStopHoldTimer() {
  TRACE("startOrStopHoldTimer");
  const bool connected = sm_.controllerStatus() && sm_.controllerStatus()->connected();
  if (sm_.ipsecConfig()->keyController().holdTime == 0 || connected || isHoldTimerRunning()) {
    stopHoldTimer();
  } else {
    startHoldTimer();
  }
}

void DhRekey::startHoldTimer() {
  TRACE("startHoldTimer");
  const uint32_t holdTime = sm_.ipsecConfig()->keyController().holdTime;
  sm_.holdTimer()->scheduleTaskDelay(seconds(holdTime));
}

void DhRekey::stopHoldTimer() {
  TRACE("stopHoldTimer");
  sm_.holdTimer()->scheduleTaskDelay(Duration::never());
  if (needDhRekey_) {
    TRACE("Starting a DH rekey in 1 sec");
    sm_.dhRekeyTimer()->scheduleTaskDelay(sm_.updateRekeyInterval());
    needDhRekey_ = false;
  }
}

void DhRekey::handleHoldTimer() {
  TRACE("handleHoldTimer");
  if (sm_.initialized() && isHoldTimerRunning()) {
    TESSEL_HOLDTIMER_EXPIRED.log();
    stopHoldTimer();
  }
}

bool DhRekey::isHoldTimerRunning() const {
  return sm_.holdTimer() && !sm_.holdTimer()->currentExpirationTime().isNever();
}

bool DhRekey::isAnyPathRekeying() const {
  for (const auto& [key, pathStatus] : sm_.ipsecPathStatusDir()->ipsecPathStatus()) {
    if (!pathStatus->establishAllowed() ||
        pathStatus->state() != Path::UnderlayState::established) {
      continue;
    }
    const Ptr<Ike::PeerConnectionState>& peer =
        sm_.ipsecStatus()->ipsecPeerConnectionState(pathStatus->remoteIp());
    if (!peer) {
      TRACE_ERROR("peerConnState not found", pathStatus->remoteIp());
      continue;
    }
    const Ptr<Ike::PathConnState>& path = peer->pathConnState(key);
    if (!path) {
      TRACE_ERROR("pathConnState not found", key);
      continue;
    }
    if (path->saSmState() != SmState::idle) {
      return true;
    }
  }
  return false;
}

void DhRekey::setLocalDhState(uint64_t count, DhRekeyState state) {
  const DhRekeyState old = dhRekeyState_;
  dhRekeyState_ = state;
  if (state == DhRekeyState::initiated) {
    initiatedTime_ = sm_.monotonicTime();
  }
  TRACE("Local DH state changed from", old, "to", state, "count", count,
        sm_.ipsecDpsPathConfig()->routerId());
}

}  // namespace tessel::Ipsec
