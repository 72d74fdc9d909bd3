// Installation of the new SAs of a rekey, and its completion. For both kinds of rekey: the new
// in-SA first; the out-SA only when the peer is known to receive on it; then the new pair is
// steady.
#include "host/facility/Trace.h"
#include "sm/DhRekey.h"
#include "sm/EventRecorder.h"
#include "sm/KeyDerivation.h"
#include "sm/SecurityAssociations.h"
#include "sm/TesselV1Sm.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::Ipsec {

void RekeySm::doInstallRekeySa(const Ptr<Ike::SecurityAssociation>& sa, SaType type) {
  TRACE("Creating SA saType : ", type, ", reqid : ", sa->reqid());
  sm_->securityAssociations().doCreateIpsecControllerSAs(
      connectionKey_, sa->dhKeyPair(), sm_->ipsecConfig()->keyController().profileName, sa->reqid(),
      type);
  sm_->events().recordSaEvent("installRekeySa", sa->sakey(), connectionKey_);
}

bool RekeySm::handleSaInstalled(const SecurityAssociationKey& key) {
  TRACE("handleSaInstalled", key);
  const Ptr<Ike::SecurityAssociation> sa = findSa(key);
  if (!sa) {
    TRACE("saInfo is NULL", key);
    return false;
  }
  const SaType type = sa->saType();
  const SmState saSmState = pathConnState_->saSmState();
  const SmState dhSmState = dhSmStateOf(sa->dhKeyPair());
  if (saSmState == SmState::idle && dhSmState == SmState::idle) {
    return false;  // Nothing rekeys on the path.
  }
  if (type == SaType::steadyIn || type == SaType::steadyOut) {
    return false;
  }
  TRACE("SA has been installed", type, key, sa->dhKeyPair());
  setSaRekeyState(key, SaRekeyState::installed);
  bool acted = false;
  if (dhSmState == SmState::initiator) {
    acted = handleDhInitiatorInstalled(sa);
  } else if (dhSmState == SmState::responder) {
    acted = handleDhResponderInstalled(sa);
  } else if (saSmState == SmState::initiator) {
    acted = handleSaInitiatorInstalled(sa);
  } else if (saSmState == SmState::responder) {
    acted = handleSaResponderInstalled(sa);
  } else {
    TRACE("Do nothing after SA installation");
  }
  TRACE("handled SA installation", connectionKey_);
  if (acted) {
    sm_->events().recordSaEvent("handleSaInstalled", key, connectionKey_);
  }
  return false;
}

bool RekeySm::handleDhInitiatorInstalled(const Ptr<Ike::SecurityAssociation>& sa) {
  const Ptr<Ike::PathConnState> path = pathConnState_;
  const DhKeyPair pair = sa->dhKeyPair();
  if (sa->saType() == SaType::dhRekeyIn) {
    setPathState(path, DynamicPathState::dhInitiatorInSaInstalled);
    setDhRekeyState(pair, DhRekeyState::inSaInstalled);
    return true;
  }
  if (sa->saType() != SaType::dhRekeyOut) {
    return false;
  }
  if (isLatestDhKeyPair(pair)) {
    setPathState(path, DynamicPathState::dhInitiatorOutSaInstalled);
    markRekeyComplete(sa->sakey());
    return true;
  }
  setPathState(path, DynamicPathState::dhOldOutSaInstalled);
  if (const std::optional<SecurityAssociationKey> latest = getLatestInSaKey(sa->sakey())) {
    installDhRekeyOutSa(*latest);
  }
  return true;
}

bool RekeySm::handleDhResponderInstalled(const Ptr<Ike::SecurityAssociation>& sa) {
  const Ptr<Ike::PathConnState> path = pathConnState_;
  if (sa->saType() == SaType::dhRekeyIn) {
    setPathState(path, DynamicPathState::dhResponderInSaInstalled);
    installDhRekeyOutSa(sa->sakey());
    return true;
  }
  if (sa->saType() != SaType::dhRekeyOut) {
    return false;
  }
  if (isLatestDhKeyPair(sa->dhKeyPair())) {
    setPathState(path, DynamicPathState::dhResponderOutSaInstalled);
    markRekeyComplete(sa->sakey());
  } else {
    setPathState(path, DynamicPathState::dhOldOutSaInstalled);
  }
  return true;
}

bool RekeySm::handleSaInitiatorInstalled(const Ptr<Ike::SecurityAssociation>& sa) {
  const Ptr<Ike::PathConnState> path = pathConnState_;
  if (sa->saType() == SaType::saRekeyIn) {
    if (hasNewerOutSa(sa->dhKeyPair())) {
      return false;
    }
    setPathState(path, DynamicPathState::saInitiatorInSaInstalled);
    doInstallRekeySa(sa, SaType::saRekeyOut);
    return true;
  }
  if (sa->saType() == SaType::saRekeyOut) {
    setPathState(path, DynamicPathState::saInitiatorOutSaInstalled);
    markRekeyComplete(sa->sakey());
    return true;
  }
  return false;
}

bool RekeySm::handleSaResponderInstalled(const Ptr<Ike::SecurityAssociation>& sa) {
  const Ptr<Ike::PathConnState> path = pathConnState_;
  if (sa->saType() == SaType::saRekeyIn) {
    setPathState(path, DynamicPathState::saResponderInSaInstalled);
    doUpdateNonceForPeer();
    return true;
  }
  if (sa->saType() == SaType::saRekeyOut) {
    setPathState(path, DynamicPathState::saResponderOutSaInstalled);
    markRekeyComplete(sa->sakey());
    return true;
  }
  return false;
}

bool RekeySm::handlePktsPresent(const SecurityAssociationKey& key) {
  TRACE("handlePktsPresent", key);
  const Ptr<Ike::SecurityAssociation> sa = findSa(key);
  if (!sa) {
    TRACE("saInfo is NULL", key);
    return false;
  }
  const Ptr<Ike::PathConnState> path = pathConnState_;
  const SaType type = sa->saType();
  const SmState saSmState = path->saSmState();
  const SmState dhSmState = dhSmStateOf(sa->dhKeyPair());
  if (saSmState == SmState::idle && dhSmState == SmState::idle) {
    return false;
  }
  if (!path->pathConnSaInfo(key)->pktsPresent()) {
    return false;
  }
  TRACE("SA is in use", type, key, sa->dhKeyPair());
  if (dhSmState == SmState::initiator && type == SaType::dhRekeyIn) {
    setPathState(path, DynamicPathState::dhInitiatorOutSaInstalling);
    setDhRekeyState(sa->dhKeyPair(), DhRekeyState::outSaInstalling);
    installDhRekeyOutSa(key);
  } else if (saSmState == SmState::responder && type == SaType::saRekeyIn &&
             !hasNewerOutSa(sa->dhKeyPair())) {
    setPathState(path, DynamicPathState::saResponderOutSaInstalling);
    setSaRekeyState(key, SaRekeyState::inUse);
    doInstallRekeySa(sa, SaType::saRekeyOut);
  } else {
    return false;
  }
  sm_->events().recordSaEvent("handlePktsPresent", key, connectionKey_);
  return false;
}

bool RekeySm::isLatestDhKeyPair(const DhKeyPair& pair) const {
  return sm_->keyDerivation().getLatestDhKeyPair(pathConnState_->remoteIp()) == pair;
}

std::optional<SecurityAssociationKey> RekeySm::getLatestInSaKey(
    const SecurityAssociationKey& key) const {
  const std::optional<DhKeyPair> latest =
      sm_->keyDerivation().getLatestDhKeyPair(pathConnState_->remoteIp());
  const Ptr<Ike::SecurityAssociation> inSa =
      latest ? getSaFromDhKeyPairAndType(*latest, SaType::dhRekeyIn) : nullptr;
  if (!inSa) {
    TRACE("inSa with the latest key pair was not found", key);
    return std::nullopt;
  }
  return inSa->sakey();
}

void RekeySm::installDhRekeyOutSa(const SecurityAssociationKey& inSaKey) {
  TRACE("installDhRekeyOutSa", inSaKey);
  const Ptr<Ike::SecurityAssociation> inSa = findSa(inSaKey);
  if (!inSa) {
    TRACE("saInfo is NULL", inSaKey);
    return;
  }
  if (const Ptr<Ike::SecurityAssociation> selected = selectInSaForOutSa(inSa)) {
    TRACE("Installing outSa");
    doInstallRekeySa(selected, SaType::dhRekeyOut);
    sm_->events().recordSaEvent("installDhRekeyOutSa", inSaKey, connectionKey_);
  }
}

Ptr<Ike::SecurityAssociation> RekeySm::selectInSaForOutSa(
    const Ptr<Ike::SecurityAssociation>& inSa) {
  const IpGenAddr peer = pathConnState_->remoteIp();
  const DhKeyPair pair = inSa->dhKeyPair();
  const DhKeyPair current = pathConnState_->curOutSaDhKeyPair();
  const uint64_t published = sm_->ipsecPeerKeyDir()->ipsecPeerKeyInfo(peer).rekeyCounter;
  const std::optional<DhKeyPair> latest = sm_->keyDerivation().getLatestDhKeyPair(peer);
  TRACE("saLocalDhRekeyCount : ", pair.localRekeyCount,
        " latestOutSaLocalRekeyCount : ", current.localRekeyCount,
        " saPeerDhRekeyCount : ", pair.peerRekeyCount,
        " latestOutSaPeerRekeyCount : ", current.peerRekeyCount, " peerRekeyCounter ", published);
  if (!latest) {
    TRACE("Not installing outSa without a latest key pair", peer);
    return nullptr;
  }

  const uint64_t publishedLocal = sm_->ipsecLocalKeyDir()->rekeyCounter();
  if (pair.localRekeyCount > publishedLocal) {
    TRACE("Not installing outSa of a key that is not published", pair);
    return nullptr;
  }
  if (pair.localRekeyCount == current.localRekeyCount) {
    if (pair.peerRekeyCount < published) {
      TRACE("Not installing outSa");
      return nullptr;
    }
    return inSa;
  }
  if (pair.localRekeyCount < current.localRekeyCount) {
    if (pair.peerRekeyCount < latest->peerRekeyCount) {
      TRACE("Not installing outSa for steady state inSa");
      return nullptr;
    }
    if (latest->localRekeyCount != current.localRekeyCount) {
      TRACE("Not installing outSA as curOutSa is invalid : ", current);
      return nullptr;
    }
    if (latest->peerRekeyCount == current.peerRekeyCount) {
      TRACE("Not installing latest outSa as it is already installed");
      return nullptr;
    }
    if (current.peerRekeyCount > latest->peerRekeyCount) {
      TRACE("Not installing outSA as curOutSa is invalid : ", current);
      return nullptr;
    }
  } else if (pair == *latest || latest->localRekeyCount > publishedLocal) {
    return inSa;  // The latest one, or the latest that the peer can know.
  }

  Ptr<Ike::SecurityAssociation> latestInSa = getSaFromDhKeyPairAndType(*latest, SaType::dhRekeyIn);
  if (!latestInSa) {
    TRACE("In SA with the latest key pair was not found");
    return nullptr;
  }
  if (pair.localRekeyCount < current.localRekeyCount) {
    const Ptr<Ike::PathConnState> path = pathConnState_;
    setPathState(path, DynamicPathState::dhLatestOutSaInstalling);
  }
  return latestInSa;
}

bool RekeySm::belongsToDhRekey(const Ike::SecurityAssociation& sa,
                               const DhKeyPair& completing) const {
  if (sa.saType() != SaType::dhRekeyIn && sa.saType() != SaType::dhRekeyOut) {
    return false;
  }
  const SmState role = dhSmStateOf(sa.dhKeyPair());
  return sa.dhKeyPair() != completing && (role == SmState::initiator || role == SmState::responder);
}

bool RekeySm::hasNewerOutSa(const DhKeyPair& pair) const {
  // The data path sends on what it was handed last: an out-SA of the SA rekey would take the place
  // of the newer one, and be retired when the DH rekey is complete.
  for (const auto& [key, saInfo] : pathConnState_->pathConnSaInfo()) {
    if (saInfo->sa()->saType() == SaType::dhRekeyOut && isNewer(saInfo->sa()->dhKeyPair(), pair)) {
      TRACE("Not installing outSa of an SA rekey, a DH rekey has a newer one", key);
      return true;
    }
  }
  return false;
}

void RekeySm::markRekeyComplete(const SecurityAssociationKey& outSaKey) {
  TRACE("markRekeyComplete", outSaKey);
  const Ptr<Ike::SecurityAssociation> outSa = findSa(outSaKey);
  if (!outSa) {
    TRACE("saInfo is NULL", outSaKey);
    return;
  }
  const Ptr<Ike::PathConnState> path = pathConnState_;
  const SecurityAssociationKey pairKey = getPairSakey(outSaKey);
  const DhKeyPair pair = outSa->dhKeyPair();
  const bool isSaRekey = outSa->saType() == SaType::saRekeyOut;
  if (pair != path->curOutSaDhKeyPair()) {
    TRACE("Ignoring old outSA. Current outSA DH Key pair", path->curOutSaDhKeyPair());
    return;
  }
  for (const auto& [key, saInfo] : path->pathConnSaInfo()) {
    const Ptr<Ike::SecurityAssociation> sa = saInfo->sa();
    if (!sa) {
      continue;
    }
    if (key == pairKey) {
      setSaType(sa, SaType::steadyIn);
      setSaRekeyState(key, SaRekeyState::steady);
    } else if (key == outSaKey) {
      setSaType(sa, SaType::steadyOut);
      setSaRekeyState(key, SaRekeyState::steady);
    } else if (isSaRekey && belongsToDhRekey(*sa, pair)) {
      TRACE("SA of a running DH rekey stays", key);
    } else {
      setSaType(sa, isInSa(sa->saType()) ? SaType::retiredIn : SaType::retiredOut);
    }
  }
  setSaSmState(SmState::idle);
  setDhRekeyState(pair, DhRekeyState::notRekeying);
  sm_->dhRekey().setDhSmState(pair, path, SmState::idle);
  sm_->events().recordPathEvent("markRekeyComplete", connectionKey_, pair);
}

}  // namespace tessel::Ipsec
