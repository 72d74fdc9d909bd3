// DhRekey: what a DH rekey does to each peer and path.
#include <algorithm>
#include <vector>

#include "host/facility/Trace.h"
#include "sm/DhRekey.h"
#include "sm/EventRecorder.h"
#include "sm/KeyDerivation.h"
#include "sm/LocalKey.h"
#include "sm/Paths.h"
#include "sm/PeerKeys.h"
#include "sm/PeerRecovery.h"
#include "sm/SecurityAssociations.h"
#include "sm/TesselV1Sm.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::Ipsec {

// Execution, per peer.

void DhRekey::dhRekeyBacklogProcessElem(const IpGenAddr& peer) {
  TRACE("Process dhRekeyTask for peer", peer);
  if (sm_.peerKeys().startsOver(peer)) {
    // Validating the record against the stored key would hide that they differ. The first exchange
    // brings the peer back into the rekey.
    TRACE("Skip DH rekey for peer that waits for its first DH exchange", peer);
    return;
  }
  if (const Ptr<Ike::PeerConnectionState>& state =
          sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
      state && state->peerConnStatus() != PeerConnStatus::ready &&
      sm_.peerKeys().initialDhCompleted(peer) && !state->pathConnState().empty()) {
    // One path's failure marked the peer down; the others must not miss the rekey for it.
    sm_.peerRecovery().recoverPeer(peer);
  }
  doInitiatorDhRekey(peer);
}

void DhRekey::doInitiatorDhRekey(const IpGenAddr& peer) {
  TRACE("doInitiatorDhRekey", peer);
  const bool rekeyed = doDhRekey(peer);
  const bool caughtUp = catchUpPaths(peer);
  if (rekeyed || caughtUp) {
    sm_.events().recordPeerEvent("initiatorDhRekey", peer);
  }
}

void DhRekey::doResponderDhRekey(const IpGenAddr& peer) {
  TRACE("doResponderDhRekey", peer);
  markPathsAsDhRekeyResponder(peer);
  doDhRekey(peer);
  sm_.events().recordPeerEvent("responderDhRekey", peer);
}

bool DhRekey::doDhRekey(const IpGenAddr& peer) {
  TRACE("doDhRekey", peer);
  const Ptr<Ike::PeerConnectionState> state = sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
  if (!state) {
    TRACE("peerConnState not found", peer);
    return false;
  }
  if (state->peerConnStatus() != PeerConnStatus::ready) {
    TRACE("peer is not ready for rekey, peer conn status:", state->peerConnStatus());
    return false;
  }
  const Ptr<TesselPeerKeyInfoList> list = sm_.peerKeys().localPeerKeyInfoList(peer);
  if (!list) {
    TRACE("local peerKey not found for peer", peer);
    return false;
  }
  std::vector<DhKeyPair> candidates;
  for (const auto& [localCount, generation] : sm_.localKey().localKeyInfo()) {
    for (const auto& [peerCount, peerGeneration] : list->peerKeyInfo()) {
      if (!state->dhCryptoInfoHas({localCount, peerCount})) {
        candidates.push_back({localCount, peerCount});
      }
    }
  }
  const uint64_t newestLocal = sm_.localKey().getNewestLocalRekeyCount();
  const std::optional<uint64_t> newestPeer = sm_.peerKeys().getNewestPeerRekeyCount(peer);
  if (!newestPeer) {
    TRACE("Failed to find newest peer rekey counter", peer);
    return false;
  }
  bool changed = false;
  for (const DhKeyPair& pair : candidates) {
    const SmState role = getDhRekeyRole(pair, newestLocal, *newestPeer);
    if (role == SmState::noRole) {
      TRACE("Skip DH rekey for peer with key pair:", peer, pair);
      continue;
    }
    TRACE("DH rekey for peer with key pair:", peer, pair);
    changed = true;
    for (const auto& [key, path] : state->pathConnState()) {
      setDhSmState(pair, path, role);
      if (const Ptr<RekeySm>& rekeySm = sm_.paths().rekeySm(key)) {
        rekeySm->setSaSmState(SmState::dhRekeying);
      } else {
        TRACE("rekeySm not found", key);
      }
    }
    if (!sm_.keyDerivation().doGeneratePeerCryptoInfo(peer, pair, true)) {
      TRACE("Could not create crypto info for dhKeyPair :", pair);
      break;  // The peer is down and has no paths left; the other pairs must not hide that.
    }
    for (const auto& [key, path] : state->pathConnState()) {
      createDhRekeyInSa(*path, pair);
    }
  }
  return changed;
}

bool DhRekey::catchUpPaths(const IpGenAddr& peer) {
  const Ptr<Ike::PeerConnectionState> state = sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
  const std::optional<uint64_t> newestPeer = sm_.peerKeys().getNewestPeerRekeyCount(peer);
  if (!state || state->peerConnStatus() != PeerConnStatus::ready || !newestPeer) {
    return false;
  }
  const uint64_t newestLocal = sm_.localKey().getNewestLocalRekeyCount();
  const DhKeyPair newest{newestLocal, *newestPeer};
  if (newestLocal <= sm_.ipsecLocalKeyDir()->rekeyCounter() || !state->dhCryptoInfoHas(newest)) {
    return false;
  }
  bool changed = false;
  for (const auto& [key, path] : state->pathConnState()) {
    const Ptr<RekeySm> rekeySm = sm_.paths().rekeySm(key);
    if (!rekeySm || (path->dhStateHas(newest) &&
                     (rekeySm->getSaFromDhKeyPairAndType(newest, SaType::steadyIn) ||
                      rekeySm->getSaFromDhKeyPairAndType(newest, SaType::dhRekeyIn)))) {
      continue;
    }
    TRACE("Path catches up with the local DH rekey", key, newest);
    // A retired SA of the same generation has the key that the new in-SA is about to take.
    if (const Ptr<Ike::SecurityAssociation> retired =
            rekeySm->getSaFromDhKeyPairAndType(newest, SaType::retiredIn)) {
      sm_.securityAssociations().doDeleteSA(retired, path);
    }
    changed |= !path->dhStateHas(newest);
    setDhSmState(newest, path, getDhRekeyRole(newest, newestLocal, *newestPeer));
    rekeySm->setSaSmState(SmState::dhRekeying);
    createDhRekeyInSa(*path, newest);
    changed |= rekeySm->getSaFromDhKeyPairAndType(newest, SaType::dhRekeyIn) != nullptr;
  }
  return changed;
}

void DhRekey::createDhRekeyInSa(const Ike::PathConnState& path, const DhKeyPair& pair) {
  sm_.securityAssociations().doCreateIpsecControllerSAs(
      path.connectionKey(), pair, sm_.ipsecConfig()->keyController().profileName, path.reqid(),
      SaType::dhRekeyIn);
}

void DhRekey::deleteReplacedGeneration(uint64_t localCount) {
  for (const auto& [peer, state] : sm_.ipsecStatus()->ipsecPeerConnectionState()) {
    for (const auto& [pair, crypto] : state->dhCryptoInfo()) {
      if (pair.localRekeyCount == localCount) {
        TRACE("Deleting dhCryptoInfo", pair);
        state->dhCryptoInfoDel(pair);
      }
    }
    for (const auto& [key, path] : state->pathConnState()) {
      for (const auto& [saKey, saInfo] : path->pathConnSaInfo()) {
        const Ptr<Ike::SecurityAssociation> sa = saInfo->sa();
        const SaType type = sa->saType();
        if (sa->dhKeyPair().localRekeyCount == localCount &&
            (type == SaType::dhRekeyIn || type == SaType::dhRekeyOut)) {
          sm_.securityAssociations().doDeleteSA(sa, path);
        }
      }
      for (const auto& [pair, dhState] : path->dhState()) {
        if (pair.localRekeyCount == localCount) {
          TRACE("Deleting dhState", pair);
          path->dhStateDel(pair);
        }
      }
    }
  }
}

SmState DhRekey::getDhRekeyRole(const DhKeyPair& dhKeyPair, uint64_t newestLocal,
                                uint64_t newestPeer) const {
  const bool localIsNewest = dhKeyPair.localRekeyCount == newestLocal;
  const bool peerIsNewest = dhKeyPair.peerRekeyCount == newestPeer;
  SmState role = SmState::noRole;
  if (localIsNewest && peerIsNewest) {
    role = dhRekeyState_ != DhRekeyState::notRekeying ? SmState::initiator : SmState::responder;
  } else if (localIsNewest) {
    role = SmState::initiator;
  } else if (peerIsNewest) {
    role = SmState::responder;
  } else {
    TRACE("DH key pair with both old rekey count", dhKeyPair);
  }
  TRACE("role:", role);
  return role;
}

// Execution, per path.

namespace {

bool isDhResponding(DynamicPathState state) {
  return state >= DynamicPathState::dhResponderMarked &&
         state <= DynamicPathState::dhResponderComplete;
}

bool isDhInitiating(DynamicPathState state) {
  return state >= DynamicPathState::dhInitiatorMarked &&
         state <= DynamicPathState::dhInitiatorComplete;
}

bool isSaRekeying(DynamicPathState state) {
  return state >= DynamicPathState::saInitiatorNonceSent &&
         state <= DynamicPathState::saResponderComplete;
}

}  // namespace

void DhRekey::markPathsAsDhRekeyInitiated() {
  TRACE("markPathsAsDhRekeyInitiated");
  for (const auto& [peer, state] : sm_.ipsecStatus()->ipsecPeerConnectionState()) {
    for (const auto& [key, path] : state->pathConnState()) {
      const DynamicPathState old = path->pathState();
      DynamicPathState marked = DynamicPathState::rebuild;
      if (old == DynamicPathState::established) {
        TRACE("Path was getting established while DH rekey is initiated", key);
        marked = DynamicPathState::dhInitiatorMarked;
      } else if (old == DynamicPathState::idle || old == DynamicPathState::active) {
        marked = DynamicPathState::dhInitiatorMarked;
      } else if (isDhResponding(old)) {
        marked = DynamicPathState::dhInitiatorMarkedAgain;
      } else if (isSaRekeying(old)) {
        TRACE("Path was SA rekeying while DH rekey is initiated", key);
        marked = DynamicPathState::dhInitiatorMarked;
      } else {
        TRACE_ERROR("Path is in a weird state :", old, key);
      }
      sm_.paths().setPathState(path, marked);
      sm_.events().recordPathEvent("markPathsAsDhRekeyInitiated", key,
                                   sm_.keyDerivation().getCurrentBgpDhKeyPair(peer));
    }
  }
  sm_.events().recordLocalEvent("markPathsAsDhRekeyInitiated",
                                sm_.ipsecLocalKeyDir()->rekeyCounter());
}

void DhRekey::markPathsAsDhRekeyResponder(const IpGenAddr& peer) {
  TRACE("markPathsAsDhRekeyResponder", peer);
  const Ptr<Ike::PeerConnectionState> state = sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
  if (!state) {
    TRACE("peerConnState not found", peer);
    return;
  }
  for (const auto& [key, path] : state->pathConnState()) {
    const DynamicPathState old = path->pathState();
    DynamicPathState marked = DynamicPathState::rebuild;
    if (old == DynamicPathState::established) {
      TRACE("Path was getting established while peer DH rekeyed", key);
      marked = DynamicPathState::dhResponderMarked;
    } else if (old == DynamicPathState::idle || old == DynamicPathState::active) {
      marked = DynamicPathState::dhResponderMarked;
    } else if (isDhInitiating(old)) {
      marked = DynamicPathState::dhResponderMarkedAgain;
    } else if (isSaRekeying(old)) {
      TRACE("Path was SA rekeying while peer DH rekeyed", key);
      marked = DynamicPathState::dhResponderMarked;
    } else {
      TRACE_ERROR("Path is in a weird state :", old, key);
    }
    sm_.paths().setPathState(path, marked);
    sm_.events().recordPathEvent("markPathsAsDhRekeyResponder", key,
                                 sm_.keyDerivation().getCurrentBgpDhKeyPair(peer));
  }
  sm_.events().recordPeerEvent("markPathsAsDhRekeyResponder", peer);
}

std::vector<DhRekey::MarkedPath> DhRekey::snapshotPaths() const {
  std::vector<MarkedPath> paths;
  for (const auto& [peer, state] : sm_.ipsecStatus()->ipsecPeerConnectionState()) {
    for (const auto& [key, path] : state->pathConnState()) {
      const Ptr<Ike::SanityCheck>& sanity = path->sanityCheck();
      paths.push_back({path, path->pathState(), sanity ? sanity->expiryTime() : Duration()});
    }
  }
  return paths;
}

void DhRekey::restorePaths(const std::vector<MarkedPath>& paths) {
  for (const MarkedPath& marked : paths) {
    sm_.paths().setPathState(marked.path, marked.state);
    marked.path->sanityCheck()->expiryTimeIs(marked.expiryTime);
  }
}

void DhRekey::setDhSmState(const DhKeyPair& dhKeyPair, const Ptr<Ike::PathConnState>& path,
                           SmState smState) {
  const Ptr<Ike::DhState> dhState = path->dhStateIs(dhKeyPair);
  const SmState old = dhState->dhSmState();
  if (old == smState) {
    return;
  }
  dhState->dhSmStateIs(smState);
  TRACE("DH Rekey SM changed from", old, "to", smState, dhKeyPair, path->connectionKey());
}

bool DhRekey::checkAllLocalSaState(uint64_t count, DhRekeyState state, LocalSaCheck* check) const {
  TRACE("checkAllLocalSaState", count, state);
  const auto& pathStatuses = sm_.ipsecPathStatusDir()->ipsecPathStatus();
  if (pathStatuses.empty()) {
    TRACE("No active path status, skip checking local sa state");
    return true;
  }
  LocalSaCheck found;
  for (const auto& [key, pathStatus] : pathStatuses) {
    const IpGenAddr& peer = pathStatus->remoteIp();
    const Controller::PeerKeyInfo& info = sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo(peer);
    if (info.isEq(Controller::PeerKeyInfo())) {
      TRACE("ipsecPeerKeyInfo not found", peer);
      continue;
    }
    const Ptr<Ike::PeerConnectionState>& peerState =
        sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
    const Ptr<Ike::PathConnState> path = peerState ? peerState->pathConnState(key) : nullptr;
    Ptr<Ike::DhState> dhState;
    if (path) {
      dhState = path->dhState({count, info.rekeyCounter});
      if (!dhState) {
        dhState = path->dhState({count, info.rekeyCounter - 1});
      }
    }
    if (dhState && dhState->dhRekeyState() == state) {
      ++found.done;
    } else {
      found.pending.push_back(key);
    }
  }
  TRACE(" Total SAs with initator state", found.done, "Total dynamic paths :", pathStatuses.size(),
        " Initiator rekey count :", count);
  for (const ConnectionKey& key : found.pending) {
    TRACE("Connections pending to become", state, key);
  }
  const bool all = found.done > 0 && found.pending.empty();
  if (check != nullptr) {
    *check = std::move(found);
  }
  return all;
}

}  // namespace tessel::Ipsec
