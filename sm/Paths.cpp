#include "sm/Paths.h"

#include "host/facility/Trace.h"
#include "sm/DhRekey.h"
#include "sm/EventRecorder.h"
#include "sm/KeyDerivation.h"
#include "sm/LocalKey.h"
#include "sm/PathHealth.h"
#include "sm/SecurityAssociations.h"
#include "sm/TesselV1Sm.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::Ipsec {

Paths::Paths(TesselV1Sm& sm) : sm_(sm) {}

Paths::~Paths() = default;

void Paths::handlePath(const ConnectionKey& key) {
  TRACE("handlePath", key);
  const KeyedCollection<ConnectionKey, Path::PathConfig>& configured =
      sm_.ipsecDpsPathConfig()->ipsecPathConfig();
  const Path::PathConfig* before = configured.find(key);
  if (before == nullptr || before->ipsecEnabled) {
    destroyPath(key);
    sm_.pathDelCntInc(1);
  }
  const Path::PathConfig* after = configured.find(key);
  if (after != nullptr && after->ipsecEnabled) {
    establishPath(key);
    sm_.pathAddCntInc(1);
  }
  const Ptr<Path::PathStatus> pathStatus = sm_.ipsecPathStatusDir()->ipsecPathStatus(key);
  if (!pathStatus) {
    TRACE("pathStatus not found.", key);
    return;
  }
  sm_.events().recordPathEvent("handlePath", key,
                               sm_.keyDerivation().getCurrentBgpDhKeyPair(pathStatus->remoteIp()));
}

void Paths::establishPath(const ConnectionKey& key) {
  TRACE(" Establishing Path", key);
  if (key.vrfId != 0) {
    // SAs know their path by VRF 0 and could never be found again under another.
    TRACE("Path key is not of VRF 0, vrfId :", key.vrfId);
    return;
  }
  const Ptr<Path::PathStatus> pathStatus = sm_.ipsecPathStatusDir()->ipsecPathStatus(key);
  if (!pathStatus) {
    TRACE("pathStatus not found", key);
    return;
  }
  const std::string profileName = sm_.ipsecConfig()->keyController().profileName;
  if (profileName.empty()) {
    TRACE("profile not found", key);
    return;
  }
  const IpGenAddr remoteIp = pathStatus->remoteIp();
  if (remoteIp == IpGenAddr()) {
    TRACE("remoteIp not found", key);
    return;
  }
  const Ptr<Ike::PeerConnectionState> peer = sm_.ipsecStatus()->ipsecPeerConnectionState(remoteIp);
  if (!peer) {
    TRACE("peerConnState not found", remoteIp);
    return;
  }
  const uint64_t localCount = sm_.ipsecLocalKeyDir()->rekeyCounter();
  const DhKeyPair dhKeyPair{localCount,
                            sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo(remoteIp).rekeyCounter};

  if (const Ptr<RekeySm>& standing = rekeySm(key);
      standing && standing->pathConnState() && standing->pathConnState()->remoteIp() != remoteIp) {
    destroyPath(standing->pathConnState());  // It stands at the peer that the path had before.
  }
  const Ptr<Ike::PathConnState> path = peer->pathConnStateIs(key);
  path->remoteIpIs(remoteIp);
  path->dhStateIs(dhKeyPair);
  setPathState(path, DynamicPathState::established);
  sm_.securityAssociations().doCreateIpsecControllerSAs(key, dhKeyPair, profileName, 0,
                                                        SaType::steadyPair);
  if (const Ptr<Ike::TestKnob>& knob = sm_.ipsecStatus()->testKnob()) {
    knob->pathTestKnobIs(key);
  }
  rekeySmIs(&sm_, key, sm_.recordEvents())->pathConnStateIs(path);
  if (localCount < sm_.localKey().getNewestLocalRekeyCount()) {
    TRACE("Local DH rekey is in progress when establishing path, schedule DH rekey for the peer",
          remoteIp);
    sm_.dhRekeyBacklogIs(remoteIp);
    sm_.dhRekeyTask()->scheduleTask();
  }
  sm_.events().recordPathEvent("establishPath", key,
                               sm_.keyDerivation().getCurrentBgpDhKeyPair(remoteIp));
}

void Paths::destroyPath(const ConnectionKey& destroyed) {
  const ConnectionKey key = destroyed;  // The caller's may go with the path's state.
  TRACE(" Destroying Path", key);
  Ptr<Ike::PathConnState> path = getPathConnState(key);
  if (!path) {
    path = findAtAnyPeer(key);  // A path that changed its peer stands with the one that it had.
  }
  if (!path) {
    TRACE("pathConnState not found", key);
    return;
  }
  destroyPath(path);
}

void Paths::destroyPath(const Ptr<Ike::PathConnState>& destroyed) {
  const Ptr<Ike::PathConnState> path = destroyed;
  const ConnectionKey& key = path->connectionKey();
  const IpGenAddr remoteIp = path->remoteIp();
  const Ptr<Ike::PeerConnectionState> peer = sm_.ipsecStatus()->ipsecPeerConnectionState(remoteIp);
  if (!peer) {
    TRACE("peerConnState not found", remoteIp);
    return;
  }
  sm_.events().recordPathEvent("destroyPath", key,
                               sm_.keyDerivation().getCurrentBgpDhKeyPair(remoteIp));
  const Ptr<RekeySm>& owner = rekeySm(key);
  if (!owner || owner->pathConnState() == path) {
    if (const Ptr<Ike::TestKnob>& knob = sm_.ipsecStatus()->testKnob()) {
      knob->pathTestKnobDel(key);
    }
    rekeySmDel(key);
  }
  sm_.securityAssociations().doDeleteIpsecControllerSAs(path);
  peer->pathConnStateDel(path->connectionKey());
}

void Paths::pathBacklogProcessElem(const ConnectionKey& key) {
  TRACE("Process pathTask for path", key);
  sm_.pathHealth().sanitizePath(key);
}

void Paths::setPathState(const Ptr<Ike::PathConnState>& path, DynamicPathState newState) {
  const Ptr<Ike::SanityCheck>& sanity = path->sanityCheckIs();
  if (newState == DynamicPathState::idle) {
    sanity->lastEstablishedTimeIs(sm_.monotonicTime());
  } else if (newState == DynamicPathState::active) {
    sanity->lastActiveTimeIs(sm_.monotonicTime());
  }
  sanity->resetExpiryTime();
  const DynamicPathState oldState = path->pathState();
  if (newState == oldState) {
    TRACE("No-op as there is no change in state :", newState, path->connectionKey());
    return;
  }
  path->pathStateIs(newState);
  TRACE(" Path State changed from", oldState, " to", newState, path->connectionKey(),
        "local rekeyCounter", sm_.ipsecLocalKeyDir()->rekeyCounter(), "peer rekeyCounter",
        sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo(path->remoteIp()).rekeyCounter, sanity->str());
}

Ptr<Ike::PathConnState> Paths::getPathConnState(const ConnectionKey& key) const {
  const Ptr<Path::PathStatus>& pathStatus = sm_.ipsecPathStatusDir()->ipsecPathStatus(key);
  if (!pathStatus) {
    TRACE("pathStatus not found", key);
    return findAtAnyPeer(key);
  }
  if (pathStatus->remoteIp() == IpGenAddr()) {
    TRACE("remoteIp not found", key);
    return nullptr;
  }
  const Ptr<Ike::PeerConnectionState>& peer =
      sm_.ipsecStatus()->ipsecPeerConnectionState(pathStatus->remoteIp());
  if (!peer) {
    TRACE("peerConnState not found", pathStatus->remoteIp());
    return nullptr;
  }
  const Ptr<Ike::PathConnState>& path = peer->pathConnState(key);
  if (!path) {
    TRACE("pathConnState not found", key);
  }
  return path;
}

Ptr<Ike::PathConnState> Paths::getPathConnState(const RekeySm& rekeySm) const {
  const Ptr<Ike::PathConnState>& path = rekeySm.pathConnState();
  const Path::PathStatus* const pathStatus = rekeySm.pathStatus();
  if (path && pathStatus != nullptr && pathStatus->remoteIp() == path->remoteIp()) {
    return path;  // It stands with the peer that its status names.
  }
  return getPathConnState(rekeySm.connectionKey());
}

Ptr<Ike::PathConnState> Paths::findAtAnyPeer(const ConnectionKey& key) const {
  // A path that stands has its machine, which knows it whatever its status says by now.
  const Ptr<RekeySm>& owner = rekeySm(key);
  const Ptr<Ike::PathConnState> path = owner ? owner->pathConnState() : nullptr;
  if (!path) {
    return nullptr;
  }
  const Ptr<Ike::PeerConnectionState>& peer =
      sm_.ipsecStatus()->ipsecPeerConnectionState(path->remoteIp());
  return peer && peer->pathConnState(key) == path ? path : nullptr;
}

uint32_t Paths::totalPaths() const {
  size_t total = 0;
  for (const auto& [address, peer] : sm_.ipsecStatus()->ipsecPeerConnectionState()) {
    total += peer->pathConnState().size();
  }
  return static_cast<uint32_t>(total);
}

const Ptr<RekeySm>& Paths::rekeySm(const ConnectionKey& key) const {
  static const Ptr<RekeySm> none;
  const Ptr<RekeySm>* found = rekeySm_.find(key);
  return found == nullptr ? none : *found;
}

const Ptr<RekeySm>& Paths::rekeySmIs(TesselV1Sm* sm, const ConnectionKey& key,
                                     const Ptr<RecordEvents>& recordEvents) {
  const auto [entry, made] = rekeySm_.emplace(key);
  if (made) {
    entry = rekeySmFactory(sm, key, recordEvents);
    entry->hasNotificationActiveIs(sm->hasNotificationActive());
  }
  return entry;
}

void Paths::rekeySmDel(const ConnectionKey& key) {
  if (const std::optional<Ptr<RekeySm>> gone = rekeySm_.take(key)) {
    (*gone)->pathConnStateIs(nullptr);  // Whatever still holds it must not hear of the path again.
  }
}

void Paths::rekeySmDelAll() {
  for (const ConnectionKey& key : rekeySm_.keys()) {
    rekeySmDel(key);
  }
}

void Paths::rekeySmNotificationActiveIs(bool active) {
  for (const auto& [key, rekeySm] : rekeySm_) {
    rekeySm->hasNotificationActiveIs(active);
  }
}

}  // namespace tessel::Ipsec
