#include "sm/rekey/RekeySm.h"

#include "host/facility/Trace.h"
#include "sm/Paths.h"
#include "sm/TesselV1Sm.h"

namespace tessel::Ipsec {

Ptr<RekeySm> rekeySmFactory(TesselV1Sm* sm, const ConnectionKey& key,
                            const Ptr<RecordEvents>& recordEvents) {
  return RekeySm::RekeySmIs(sm, key, recordEvents);
}

Ptr<RekeySm> RekeySm::RekeySmIs(TesselV1Sm* sm, const ConnectionKey& key,
                                const Ptr<RecordEvents>& recordEvents) {
  return Ptr<RekeySm>(new RekeySm(sm, key, recordEvents));
}

RekeySm::RekeySm(TesselV1Sm* sm, const ConnectionKey& key, const Ptr<RecordEvents>& recordEvents)
    : sm_(sm), connectionKey_(key), recordEvents_(recordEvents) {
  handleInitialized();
}

RekeySm::~RekeySm() {
  pathConnStateSubscription_.end();
  for (const auto& [key, saInfo] : pathConnSaInfo_) {
    saInfo->end();
  }
}

void RekeySm::handleInitialized() {
  TRACE("handleInitialized", connectionKey_);
  initialized_ = true;
}

void RekeySm::pathConnStateIs(const Ptr<Ike::PathConnState>& path) {
  if (path == pathConnState_) {
    return;
  }
  const Ptr<RekeySm> alive(this);  // A handler of the new reactors may destroy the path.
  pathConnStateSubscription_.end();
  pathConnState_ = path;
  if (path) {
    pathConnStateSubscription_.attach<&RekeySm::pathConnStateDispatch>(*path, *this);
  }
  syncSaInfos();
}

void RekeySm::syncSaInfos() {
  const Ptr<Ike::PathConnState> path = pathConnState_;
  for (const auto& [key, saInfo] : pathConnSaInfo_) {
    if (!path || path->pathConnSaInfo(key) != saInfo->notifier()) {
      pathConnSaInfoDel(key);
    }
  }
  if (path && notificationActive_) {
    for (const auto& [key, saInfo] : path->pathConnSaInfo()) {
      pathConnSaInfoIs(saInfo);
    }
  }
}

void RekeySm::hasNotificationActiveIs(bool active) {
  if (notificationActive_ == active) {
    return;
  }
  notificationActive_ = active;
  if (active) {
    syncSaInfos();  // SAs that came and went meanwhile.
  }
}

void RekeySm::pathConnStateDispatch(const Change& change) {
  const auto* key = change.memberOf(Ike::PathConnState::pathConnSaInfoName);
  if (key == nullptr || !notificationActive_) {
    return;
  }
  const Ptr<RekeySm> alive(this);
  if (const Ptr<Ike::PathConnSaInfo> saInfo = pathConnState_->pathConnSaInfo(*key)) {
    pathConnSaInfoIs(saInfo);
  } else {
    pathConnSaInfoDel(*key);  // Or an earlier observer took it away again.
  }
}

// Reactors.

RekeySm::SaInfo::SaInfo(RekeySm& rekeySm, Ptr<Ike::PathConnSaInfo> notifier)
    : rekeySm_(rekeySm), notifier_(std::move(notifier)) {
  subscription_.attach<&SaInfo::dispatch>(*notifier_, *this);
}

void RekeySm::SaInfo::handleAttached() {
  const SecurityAssociationKey& key = notifier_->sakey();
  rekeySm_.handlePeerNonce(key);
  rekeySm_.handlePktsPresent(key);
  if (notifier_->addTime() == Duration()) {
    TRACE("handleSaInstalled", key);
    return;  // The data path has not reported the SA: it is not installed.
  }
  rekeySm_.handleSaInstalled(key);
}

void RekeySm::SaInfo::dispatch(const Change& change) {
  if (change.is(Ike::PathConnSaInfo::pktsName)) {
    return;  // The most frequent one by far.
  }
  if (!rekeySm_.notificationActive_) {
    return;
  }
  const Ptr<RekeySm> alive(&rekeySm_);
  const Ptr<SaInfo> self(this);
  const SecurityAssociationKey& key = notifier_->sakey();
  if (change.is(Ike::PathConnSaInfo::pktsPresentName)) {
    rekeySm_.handlePktsPresent(key);
  } else if (change.is(Ike::PathConnSaInfo::addTimeName)) {
    rekeySm_.handleSaInstalled(key);
  } else if (change.is(Ike::PathConnSaInfo::peerNonceName)) {
    rekeySm_.handlePeerNonce(key);
  }
}

void RekeySm::pathConnSaInfoIs(const Ptr<Ike::PathConnSaInfo>& saInfo) {
  const SecurityAssociationKey& key = saInfo->sakey();
  const Paths::WatchedSa watched{this, pathConnState_.get(), saInfo.get(), {}};
  if (const Ptr<SaInfo>* held = pathConnSaInfo_.find(key);
      held != nullptr && (*held)->notifier() == saInfo) {
    sm_->paths().watchedSaIs(key, watched);  // For another path by now, perhaps.
    return;
  }
  pathConnSaInfoDel(key);
  const Ptr<SaInfo> made = makePtr<SaInfo>(*this, saInfo);
  pathConnSaInfo_.emplace(key, made);
  sm_->paths().watchedSaIs(key, watched);
  made->handleAttached();
}

void RekeySm::pathConnSaInfoDel(const SecurityAssociationKey& key) {
  const SecurityAssociationKey removed = key;  // The caller's may go with the SA.
  if (const std::optional<Ptr<SaInfo>> gone = pathConnSaInfo_.take(removed)) {
    (*gone)->end();
    sm_->paths().watchedSaDel(removed, this, (*gone)->notifier().get());
  }
}

// Lookups.

const Path::PathStatus* RekeySm::pathStatus() const {
  return pathStatus_.of(sm_->ipsecPathStatusDir()->ipsecPathStatus(), connectionKey_);
}

Ike::PathTestKnob* RekeySm::testKnob() const {
  const Ptr<Ike::TestKnob>& knob = sm_->ipsecStatus()->testKnob();
  return knob ? testKnob_.of(knob->pathTestKnob(), connectionKey_) : nullptr;
}

Ptr<Ike::PathConnSaInfo> RekeySm::getSaInfoFromType(SaType type) const {
  if (pathConnState_) {
    for (const auto& [key, saInfo] : pathConnState_->pathConnSaInfo()) {
      if (saInfo->sa() && saInfo->sa()->saType() == type) {
        return saInfo;
      }
    }
  }
  return nullptr;
}

Ptr<Ike::SecurityAssociation> RekeySm::getSaFromType(SaType type) const {
  const Ptr<Ike::PathConnSaInfo> saInfo = getSaInfoFromType(type);
  if (!saInfo) {
    return nullptr;
  }
  TRACE("getSaFromType", type, saInfo->sa()->sakey(), saInfo->sa()->dhKeyPair());
  return saInfo->sa();
}

Ptr<Ike::SecurityAssociation> RekeySm::getSaFromDhKeyPairAndType(const DhKeyPair& pair,
                                                                 SaType type) const {
  if (pathConnState_) {
    for (const auto& [key, saInfo] : pathConnState_->pathConnSaInfo()) {
      if (saInfo->sa() && saInfo->sa()->saType() == type && saInfo->sa()->dhKeyPair() == pair) {
        return saInfo->sa();
      }
    }
  }
  return nullptr;
}

SecurityAssociationKey RekeySm::getPairSakey(const SecurityAssociationKey& key) const {
  const Ptr<Ike::SecurityAssociation> sa = findSa(key);
  if (!sa) {
    return {};
  }
  SecurityAssociationKey pair;
  pair.spi = sa->pairSpi();
  pair.daddr = sa->saddr();
  pair.reqid = sa->reqid();
  if (const Ptr<Ike::PeerConnectionState>& peer =
          sm_->ipsecStatus()->ipsecPeerConnectionState(sa->remoteIp())) {
    pair.proto = peer->proto();
    pair.family = peer->family();
  }
  return pair;
}

Ptr<Ike::SecurityAssociation> RekeySm::findSa(const SecurityAssociationKey& key) const {
  const Ptr<SaInfo>* saInfo = pathConnSaInfo_.find(key);
  return saInfo == nullptr ? nullptr : (*saInfo)->notifier()->sa();
}

SmState RekeySm::dhSmStateOf(const DhKeyPair& pair) const {
  const Ptr<Ike::DhState>& dhState = pathConnState_->dhState(pair);
  return dhState ? dhState->dhSmState() : SmState::idle;
}

// Setters.

void RekeySm::setSaType(const Ptr<Ike::SecurityAssociation>& sa, SaType type) {
  const SaType old = sa->saType();
  sa->saTypeIs(type);
  TRACE("SA type changed from", old, "to", type, sa->sakey(), connectionKey_);
}

void RekeySm::setSaRekeyState(const SecurityAssociationKey& key, SaRekeyState state) {
  const Ptr<Ike::PathConnSaInfo> saInfo =
      pathConnState_ ? pathConnState_->pathConnSaInfo(key) : nullptr;
  if (!saInfo) {
    return;
  }
  const SaRekeyState old = saInfo->saRekeyState();
  saInfo->saRekeyStateIs(state);
  TRACE("SA state changed from", old, "to", state, connectionKey_);
}

void RekeySm::setDhRekeyState(const DhKeyPair& pair, DhRekeyState state) {
  const Ptr<Ike::DhState> dhState = pathConnState_ ? pathConnState_->dhState(pair) : nullptr;
  if (!dhState) {
    return;
  }
  const DhRekeyState old = dhState->dhRekeyState();
  dhState->dhRekeyStateIs(state);
  TRACE("DH Rekey SM changed from", old, "to", state, pair, connectionKey_);
}

void RekeySm::setSaSmState(SmState state) {
  if (!pathConnState_) {
    TRACE("pathConnState not found", connectionKey_);
    return;
  }
  const SmState old = pathConnState_->saSmState();
  pathConnState_->saSmStateIs(state);
  TRACE("SA Rekey SM changed from", old, "to", state, connectionKey_);
}

void RekeySm::setPathState(const Ptr<Ike::PathConnState>& path, DynamicPathState state) {
  sm_->paths().setPathState(path, state);
}

}  // namespace tessel::Ipsec
