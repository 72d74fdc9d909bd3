#include "sm/PathHealth.h"

#include <optional>

#include "host/facility/Trace.h"
#include "sm/EventRecorder.h"
#include "sm/KeyDerivation.h"
#include "sm/Paths.h"
#include "sm/SecurityAssociations.h"
#include "sm/TesselV1Sm.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::Ipsec {

namespace {

/// The state that traffic completes a rekey to, for the states that wait for it.
std::optional<DynamicPathState> completeState(DynamicPathState state) {
  switch (state) {
    case DynamicPathState::dhInitiatorOutSaInstalled:
      return DynamicPathState::dhInitiatorComplete;
    case DynamicPathState::dhResponderOutSaInstalled:
      return DynamicPathState::dhResponderComplete;
    case DynamicPathState::saInitiatorOutSaInstalled:
      return DynamicPathState::saInitiatorComplete;
    case DynamicPathState::saResponderOutSaInstalled:
      return DynamicPathState::saResponderComplete;
    default:
      return std::nullopt;
  }
}

/// Whether a path stands in a state that only traffic after a rekey leads to.
bool completedState(DynamicPathState state) {
  return state == DynamicPathState::dhInitiatorComplete ||
         state == DynamicPathState::dhResponderComplete ||
         state == DynamicPathState::saInitiatorComplete ||
         state == DynamicPathState::saResponderComplete;
}

bool isSteadySa(const Ike::SecurityAssociation& sa) {
  return sa.saType() == SaType::steadyIn || sa.saType() == SaType::steadyOut;
}

/// The steady SAs of a path, with how many there are of each.
struct SteadySas {
  Ptr<Ike::PathConnSaInfo> in;
  Ptr<Ike::PathConnSaInfo> out;
  uint32_t inCount = 0;
  uint32_t outCount = 0;

  bool isPair() const { return inCount == 1 && outCount == 1; }
};

}  // namespace

void PathHealth::sanitizeAllPaths() {
  TRACE("Sanitizing All paths");
  bool queued = false;
  for (const auto& [address, peer] : sm_.ipsecStatus()->ipsecPeerConnectionState()) {
    for (const auto& [key, path] : peer->pathConnState()) {
      const Ptr<Path::PathStatus>& pathStatus = sm_.ipsecPathStatusDir()->ipsecPathStatus(key);
      if (!pathStatus) {
        TRACE("pathStatus not found", key);
        continue;
      }
      if (pathStatus->state() != Path::UnderlayState::established) {
        TRACE("path not established", key);
        continue;
      }
      TRACE("Scheduling path sanitize", key);
      sm_.pathBacklogIs(key);
      queued = true;
    }
  }
  if (queued) {
    sm_.pathTask()->scheduleTask();
  }
}

void PathHealth::sanitizePath(const ConnectionKey& key) {
  TRACE(" Sanitizing path", key);
  const Ptr<Ike::PathConnState> path = sm_.paths().getPathConnState(key);
  if (!path) {
    TRACE("pathConnState not found", key);
    return;
  }
  const DynamicPathState state = path->pathState();
  const std::optional<DynamicPathState> complete = completeState(state);
  if (state == DynamicPathState::dhInitiatorInSaInstalled) {
    // The peer may not have heard of the new key; the old SAs carry the traffic until it has.
    if (!isPathActive(key, true) && path->pathState() == state) {
      maybeClearPath(key);
    }
    return;
  }
  if (!isSteady(state) && !complete) {
    maybeClearPath(key);
    return;
  }
  const bool active = isPathActive(key, true);
  if (path->pathState() != state) {
    return;  // Looking at the counters moved the path; what follows was decided for the old state.
  }
  if (active && complete) {
    sm_.paths().setPathState(path, *complete);
    prunePath(key);
    return;
  }
  if (active) {
    sm_.paths().setPathState(path, DynamicPathState::active);
    return;
  }
  if (state == DynamicPathState::active) {
    sm_.paths().setPathState(path, DynamicPathState::idle);
  }
  maybeClearPath(key);
}

bool PathHealth::isPathActive(const ConnectionKey& key, bool update) {
  const Ptr<Ike::PathConnState> path = sm_.paths().getPathConnState(key);
  if (!path) {
    TRACE("pathConnState not found", key);
    return false;
  }
  const Ptr<RekeySm>& rekeySm = sm_.paths().rekeySm(key);
  return isPathActive(path, rekeySm && rekeySm->pathConnState() == path, update);
}

bool PathHealth::isPathActive(const RekeySm& rekeySm, bool update) {
  const Ptr<Ike::PathConnState> path = sm_.paths().getPathConnState(rekeySm);
  if (!path) {
    TRACE("pathConnState not found", rekeySm.connectionKey());
    return false;
  }
  return isPathActive(path, rekeySm.pathConnState() == path, update);
}

bool PathHealth::isPathActive(const Ptr<Ike::PathConnState>& path, bool watched, bool update) {
  const ConnectionKey& key = path->connectionKey();
  const Ptr<Ike::SanityCheck> sanity = path->sanityCheck();
  if (!sanity) {
    TRACE("sanityCheck not found", key);
    return false;
  }
  if (const Ptr<Ike::TestKnob>& knob = sm_.ipsecStatus()->testKnob();
      knob && knob->forcePathActive()) {
    sanity->lastActiveTimeIs(sm_.monotonicTime());
    sanity->resetExpiryTime();
    return true;
  }

  const auto refresh = [this, watched](const Ptr<Ike::PathConnSaInfo>& saInfo) {
    if (watched) {
      sm_.securityAssociations().setSaInfoEntry(*saInfo);
    } else {
      sm_.securityAssociations().setSaInfoEntry(saInfo->sakey());
    }
  };
  const uint64_t prevIn = sanity->inSaPkts();
  const uint64_t prevOut = sanity->outSaPkts();
  uint64_t curIn = 0;
  uint64_t curOut = 0;
  SteadySas steady;
  for (const auto& [saKey, saInfo] : path->pathConnSaInfo()) {
    const SaType type = saInfo->sa()->saType();
    if (type == SaType::steadyIn) {
      ++steady.inCount;
      refresh(saInfo);
      steady.in = saInfo;
      curIn = saInfo->pkts();
    } else if (type == SaType::steadyOut) {
      ++steady.outCount;
      refresh(saInfo);
      steady.out = saInfo;
      curOut = saInfo->pkts();
    }
  }
  if (!steady.isPair()) {
    TRACE("Path not up as inSaCount :", steady.inCount, " and outSaCount :", steady.outCount,
          sanity->str());
    return false;
  }
  const Ike::SecurityAssociation& inSa = *steady.in->sa();
  const Ike::SecurityAssociation& outSa = *steady.out->sa();
  if (outSa.sakey().spi != inSa.pairSpi()) {
    TRACE("Path not up as inSa SPI :", spiText(inSa.sakey().spi),
          ", inSa pairSPI :", spiText(inSa.pairSpi()), " outSa SPI :", spiText(outSa.sakey().spi),
          ", outSa pairSPI :", spiText(outSa.pairSpi()), sanity->str());
    return false;
  }
  if (curIn == prevIn || curOut == prevOut) {
    TRACE("Packets not flowing through SAs , inSA :", inSa.sakey(), " , outSA :", outSa.sakey(),
          " prevInSaPkts :", prevIn, " , inSaPkts :", curIn, " , prevOutSaPkts :", prevOut,
          " , outSaPkts :", curOut, sanity->str());
    return false;
  }
  if (curIn < prevIn || curOut < prevOut) {
    TRACE("inSA :", inSa.sakey(), " , outSA :", outSa.sakey(),
          " for the path has changed , prevInSaPkts :", prevIn, " , inSaPkts :", curIn,
          " , prevOutSaPkts :", prevOut, " , outSaPkts :", curOut);
    if (update) {
      sanity->inSaPktsIs(curIn);
      sanity->outSaPktsIs(curOut);
    }
    return false;
  }
  if (update) {
    sanity->inSaPktsIs(curIn);
    sanity->outSaPktsIs(curOut);
    sanity->lastActiveTimeIs(sm_.monotonicTime());
    sanity->resetExpiryTime();
  }
  return true;
}

void PathHealth::maybeClearPath(const ConnectionKey& key) {
  const Ptr<Ike::PathConnState> path = sm_.paths().getPathConnState(key);
  if (!path) {
    TRACE("pathConnState not found", key);
    return;
  }
  const DynamicPathState state = path->pathState();
  if (state == DynamicPathState::rebuild) {
    clearPath(key);
    return;
  }
  const Ptr<Ike::SanityCheck> sanity = path->sanityCheck();
  if (!sanity) {
    TRACE("sanityCheck not found", key);
    return;
  }
  if (!sanity->isPathExpired()) {
    TRACE(" Path is not expired, pathState :", state, sanity->str());
    return;
  }
  if (isSteady(state)) {
    if (isPathCleared(path)) {
      TRACE("Underlay maybe down for the path, pathState :", state);
      return;
    }
    const bool active = isPathActive(key, true);
    if (path->pathState() != state) {
      return;  // Looking at the counters moved the path: it is alive after all.
    }
    if (active) {
      TRACE("Path is active, pathState :", state);
      return;
    }
  }
  TRACE("Path expired and is not active, pathState :", state);
  clearPath(key);
}

bool PathHealth::isPathCleared(const Ptr<Ike::PathConnState>& path) const {
  SteadySas steady;
  for (const auto& [saKey, saInfo] : path->pathConnSaInfo()) {
    if (saInfo->sa()->saType() == SaType::steadyIn) {
      ++steady.inCount;
      steady.in = saInfo;
    } else if (saInfo->sa()->saType() == SaType::steadyOut) {
      ++steady.outCount;
      steady.out = saInfo;
    }
  }
  if (!steady.isPair()) {
    TRACE("Path not up as inSaCount :", steady.inCount, " and outSaCount :", steady.outCount);
    return false;
  }
  const Ptr<Ike::PeerConnectionState>& peer =
      sm_.ipsecStatus()->ipsecPeerConnectionState(path->remoteIp());
  const Ptr<Ike::CryptoInfoPair> crypto =
      peer ? peer->dhCryptoInfo(currentDhKeyPair(*path)) : nullptr;
  if (!crypto) {
    TRACE("dhCryptoInfo not found", path->remoteIp());
    return false;
  }
  const ConnectionKey& key = path->connectionKey();
  const Ptr<Path::PathStatus>& pathStatus = sm_.ipsecPathStatusDir()->ipsecPathStatus(key);
  if (!pathStatus) {
    TRACE("ipsecPathStatus not found", key);
    return false;
  }
  const SecurityAssociations::SpiPair spis = sm_.securityAssociations().wireSpis(
      crypto->cryptoInfo(), key, pathStatus->publicIp(), peer->initiator());
  const Ike::SecurityAssociation& inSa = *steady.in->sa();
  const Ike::SecurityAssociation& outSa = *steady.out->sa();
  if (inSa.sakey().spi != spis.in) {
    TRACE("inSa SPI not same as current DH SPI inSaAPI :", spiText(inSa.sakey().spi),
          " pairSpi :", spiText(inSa.pairSpi()));
    return false;
  }
  if (outSa.sakey().spi != spis.out) {
    TRACE("outSa SPI not same as current DH SPI outSaSpi :", spiText(outSa.sakey().spi),
          " pairSpi :", spiText(outSa.pairSpi()));
    return false;
  }
  return true;
}

void PathHealth::clearPath(const ConnectionKey& key) {
  TRACE(" Clearing Path", key);
  const Ptr<Ike::PathConnState> path = sm_.paths().getPathConnState(key);
  if (!path) {
    TRACE("pathConnState not found", key);
    return;
  }
  sm_.paths().setPathState(path, DynamicPathState::rebuild);
  sm_.paths().destroyPath(key);
  sm_.paths().establishPath(key);
  const Ptr<Path::PathStatus>& pathStatus = sm_.ipsecPathStatusDir()->ipsecPathStatus(key);
  if (!pathStatus) {
    TRACE("pathStatus not found.", key);
    return;
  }
  sm_.events().recordPathEvent("clearPath", key,
                               sm_.keyDerivation().getCurrentBgpDhKeyPair(pathStatus->remoteIp()));
}

void PathHealth::handleClearPath(const ConnectionKey& key) {
  TRACE("Handle clear Path", key);
  clearPath(key);
}

void PathHealth::prunePath(const ConnectionKey& key) {
  TRACE("prunePath", key);
  const Ptr<Ike::PathConnState> path = sm_.paths().getPathConnState(key);
  if (!path) {
    TRACE("pathConnState not found", key);
    return;
  }
  const DhKeyPair current = currentDhKeyPair(*path);
  // All steady SAs are looked at before anything is deleted: a path that is not pruned keeps all.
  for (const auto& [saKey, saInfo] : path->pathConnSaInfo()) {
    const Ptr<Ike::SecurityAssociation>& sa = saInfo->sa();
    if (isSteadySa(*sa) && sa->dhKeyPair() != current) {
      TRACE("SA for path has incorrect dhkeypair , saType :", sa->saType(),
            " , sa DH Key Pair :", sa->dhKeyPair(), " , current DH Key Pair :", current);
      maybeClearPath(key);
      resumeWaitingDhRekey(path, current);
      return;
    }
  }
  for (const auto& [saKey, saInfo] : path->pathConnSaInfo()) {
    const Ptr<Ike::SecurityAssociation> sa = saInfo->sa();
    if (!isSteadySa(*sa) && !isNewer(sa->dhKeyPair(), current)) {
      sm_.securityAssociations().doDeleteSA(sa, path);
    }
  }
  for (const auto& [pair, crypto] : path->saCryptoInfo()) {
    if (pair != current) {
      TRACE("Deleting saCryptoInfo", pair);
      path->saCryptoInfoDel(pair);
    }
  }
  for (const auto& [pair, dhState] : path->dhState()) {
    if (pair != current && !isNewer(pair, current)) {
      TRACE("Deleting dhState", pair);
      path->dhStateDel(pair);
    }
  }
  sm_.securityAssociations().deleteOldCryptoInfosIfChanged();
  sm_.paths().setPathState(path, DynamicPathState::idle);
  sm_.events().recordPathEvent("prunePath", key,
                               sm_.keyDerivation().getCurrentBgpDhKeyPair(path->remoteIp()));
}

void PathHealth::resumeWaitingDhRekey(const Ptr<Ike::PathConnState>& path,
                                      const DhKeyPair& current) {
  const Ptr<Ike::DhState>& dhState = path->dhState(current);
  if (!completedState(path->pathState()) || !dhState ||
      dhState->dhSmState() != SmState::initiator) {
    return;
  }
  for (const auto& [saKey, saInfo] : path->pathConnSaInfo()) {
    if (saInfo->sa()->saType() == SaType::dhRekeyIn && saInfo->sa()->dhKeyPair() == current) {
      // An SA rekey of the old generation came first; the DH rekey still waits for the peer.
      sm_.paths().setPathState(path, DynamicPathState::dhInitiatorInSaInstalled);
      return;
    }
  }
}

DhKeyPair PathHealth::currentDhKeyPair(const Ike::PathConnState& path) const {
  return {sm_.ipsecLocalKeyDir()->rekeyCounter(),
          sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo(path.remoteIp()).rekeyCounter};
}

}  // namespace tessel::Ipsec
