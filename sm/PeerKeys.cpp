#include "sm/PeerKeys.h"

#include <algorithm>

#include "host/facility/Trace.h"
#include "sm/DhRekey.h"
#include "sm/EventRecorder.h"
#include "sm/KeyDerivation.h"
#include "sm/LocalKey.h"
#include "sm/Paths.h"
#include "sm/PeerRecovery.h"
#include "sm/SecurityAssociations.h"
#include "sm/TesselV1Sm.h"

namespace tessel::Ipsec {

namespace {

/// How many peers that are gone keep their role.
constexpr size_t kMaxRememberedRoles = 1024;

}  // namespace

// Intake.

void PeerKeys::handleIpsecPeerKeyInfo(const IpGenAddr& peer, bool scheduleTask) {
  TRACE("handleIpsecPeerKeyInfo", peer);
  if (!sm_.ipsecLocalKeyDir()->valid()) {
    TRACE("Process peerKeyInfo only after the local key is generated", peer);
    return;
  }
  TRACE("Adding peer to peerKeyTask backlog", peer);
  sm_.peerKeyBacklogIs(peer);
  if (scheduleTask) {
    TRACE("Schedule peerKeyTask");
    sm_.peerKeyTask()->scheduleTask();
  }
  sm_.events().recordPeerEvent("handleIpsecPeerKeyInfo", peer);
}

void PeerKeys::handlePeerKeyInfo() {
  TRACE("handlePeerKeyInfo");
  if (!sm_.ipsecLocalKeyDir()->valid()) {
    TRACE("Process peerInfo only after the local key is generated");
    return;
  }
  for (const auto& [peer, info] : sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo()) {
    handleIpsecPeerKeyInfo(peer, false);
  }
  sm_.peerKeyTask()->scheduleTask();
}

void PeerKeys::handlePendingPeerKeyInfo() {
  TRACE("handlePendingPeerKeyInfo");
  if (!sm_.ipsecLocalKeyDir()->valid()) {
    TRACE("Process peerInfo only after the local key is generated");
    return;
  }
  bool queued = false;
  for (const auto& [peer, info] : sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo()) {
    if (sm_.ipsecStatus()->ipsecPeerConnectionStateHas(peer)) {
      TRACE("Peer is already processed", peer);
      continue;
    }
    handleIpsecPeerKeyInfo(peer, false);
    queued = true;
  }
  if (queued) {
    sm_.peerKeyTask()->scheduleTask();
  }
}

void PeerKeys::peerKeyBacklogProcessElem(const IpGenAddr& peer) {
  TRACE("Process peerKeyTask for peer", peer);
  if (peer == sm_.ipsecLocalKeyDir()->originatorId()) {
    TRACE("Ignoring the key record that is filed under the own router id", peer);
    return;
  }
  const Controller::PeerKeyInfo info = sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo(peer);
  if (info.isEq(Controller::PeerKeyInfo())) {
    sm_.peerKeyTaskDelKeyInc(1);
    rememberRole(peer);
    doDeletePeerKeyInfo(peer);
    return;
  }
  doCreatePeerKeyInfo(peer, info);
}

void PeerKeys::doCreatePeerKeyInfo(const IpGenAddr& peer, const Controller::PeerKeyInfo& info) {
  TRACE("doCreatePeerKeyInfo", peer);
  if (!sm_.ipsecLocalKeyDir()->valid()) {
    TRACE("Process peerInfo only after the local key is generated");
    return;
  }
  addLocalPeerKeyInfo(peer, info);
  if (!initialDhCompleted(peer)) {
    TRACE("Received a new DH key from peer with the new rekeyCounter:", peer, info.rekeyCounter);
    sm_.peerKeyTaskNewKeyInc(1);
    (void)rememberedRole(peer);  // Also when the exchange fails before the role is asked for.
    doFirstDhExchange(peer);
    joinLocalDhRekey(peer);
    return;
  }

  const Ptr<Ike::PeerConnectionState> state = sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
  const uint64_t oldCounter = state->rekeyCounter();
  const uint64_t newCounter = info.rekeyCounter;
  if (oldCounter == newCounter && state->nonce() == info.nonce) {
    TRACE("Received the same key with old and new rekeyCounter:", peer, newCounter);
    sm_.peerKeyTaskNoOpInc(1);
    return;
  }
  if (oldCounter >= newCounter) {
    TRACE("Received a new DH key from peer with the old rekeyCounter:", peer, oldCounter,
          " and the new rekeyCounter:", newCounter);
    sm_.peerKeyTaskNewKeyWithDelInc(1);
    doDeletePeerKeyInfo(peer);
    addLocalPeerKeyInfo(peer, info);
    doFirstDhExchange(peer);
    joinLocalDhRekey(peer);
  } else {
    TRACE("Received DH rekey message from peer with the old rekeyCounter:", peer, oldCounter,
          " and the new rekeyCounter:", newCounter);
    sm_.peerKeyTaskRekeyInc(1);
    const bool recovers = state->peerConnStatus() != PeerConnStatus::ready;
    if (recovers) {
      sm_.peerRecovery().recoverPeer(peer);
    }
    sm_.dhRekey().doResponderDhRekey(peer);
    if (recovers) {
      sm_.peerRecovery().establishWantedPaths(peer);
    }
  }
  sm_.events().recordPeerEvent("createPeerKeyInfo", peer);
}

void PeerKeys::doDeletePeerKeyInfo(const IpGenAddr& deleted) {
  const IpGenAddr peer = deleted;  // The caller's may go with the peer's state.
  TRACE("doDeletePeerKeyInfo", peer);
  deleteLocalPeerKeyInfo(peer);
  if (!sm_.ipsecStatus()->ipsecPeerConnectionStateHas(peer)) {
    TRACE("peerConnState not found", peer);
    return;
  }
  sm_.securityAssociations().doDeletePeerSAs(peer);
  TRACE("Deleting peerConnState", peer);
  initialDhCompletedDel(peer);
  sm_.ipsecStatus()->ipsecPeerConnectionStateDel(peer);
  sm_.events().recordPeerEvent("deletePeerKeyInfo", peer);
}

// First DH exchange.

void PeerKeys::doFirstDhExchange(const IpGenAddr& peer) {
  const uint64_t published = sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo(peer).rekeyCounter;
  const DhKeyPair pair{sm_.ipsecLocalKeyDir()->rekeyCounter(), published};
  TRACE("Exchanging initial DH keys with peer", peer, pair);
  if (!sm_.keyDerivation().doGeneratePeerCryptoInfo(peer, pair, false)) {
    TRACE("Could not create crypto info for dhKeyPair :", pair);
    return;
  }
  sm_.ipsecPathStatusDir()->forEachTowards(peer, [this](const Path::PathStatus& status) {
    if (status.establishAllowed()) {
      sm_.paths().establishPath(status.connectionKey());
    }
  });
  const Ptr<TesselPeerKeyInfoList> list = localPeerKeyInfoListIs(peer);
  for (const auto& [counter, generation] : list->peerKeyInfo()) {
    if (counter != published) {
      TRACE("Deleting local peerKeyInfo after first DH exchange with rekeyCounter:", counter);
      list->peerKeyInfoDel(counter);
    }
  }
  initialDhCompletedIs(peer);
  rememberedRoles_.take(peer);
  sm_.events().recordPeerEvent("firstDhExchange", peer);
}

void PeerKeys::joinLocalDhRekey(const IpGenAddr& peer) {
  if (!initialDhCompleted(peer) ||
      sm_.localKey().getNewestLocalRekeyCount() <= sm_.ipsecLocalKeyDir()->rekeyCounter()) {
    return;
  }
  TRACE("Local DH rekey is in progress at the first DH exchange, schedule DH rekey for the peer",
        peer);
  sm_.dhRekeyBacklogIs(peer);
  sm_.dhRekeyTask()->scheduleTask();
}

// Stored generations.

Ptr<TesselPeerKeyInfoList> PeerKeys::localPeerKeyInfoList(const IpGenAddr& peer) const {
  const Ptr<TesselPeerKeyInfoList>* found = localPeerKeyInfoList_.find(peer);
  return found == nullptr ? nullptr : *found;
}

Ptr<TesselPeerKeyInfoList> PeerKeys::localPeerKeyInfoListIs(const IpGenAddr& peer) {
  const auto [list, made] = localPeerKeyInfoList_.emplace(peer);
  if (made) {
    list = makePtr<TesselPeerKeyInfoList>(peer);
  }
  return list;
}

void PeerKeys::addLocalPeerKeyInfo(const IpGenAddr& peer, const Controller::PeerKeyInfo& info) {
  TRACE("Add local peer key list for peer with rekeyCounter:", peer, info.rekeyCounter);
  const Ptr<TesselPeerKeyInfo> entry =
      localPeerKeyInfoListIs(peer)->peerKeyInfoIs(info.rekeyCounter);
  entry->dhKey = info.dhKey;
  entry->dhKeyLen = info.dhKeyLen;
  entry->dhGroup = info.dhGroup;
  entry->nonce = info.nonce;
  entry->nonceLen = info.nonceLen;
  entry->encryptAlgo = info.encryptAlgo;
  entry->hashAlgo = info.hashAlgo;
  sm_.securityAssociations().generationsChangedIs();
}

void PeerKeys::deleteLocalPeerKeyInfo(const IpGenAddr& peer) {
  TRACE("Delete local peer key list for peer", peer);
  localPeerKeyInfoListDel(peer);
  for (const auto& [counter, generation] : sm_.localKey().localKeyInfo()) {
    generation->sharedSecretDel(peer);  // No secret outlives the keys that it came from.
  }
}

Ptr<TesselPeerKeyInfo> PeerKeys::getPeerKeyInfo(const IpGenAddr& peer,
                                                const DhKeyPair& dhKeyPair) const {
  const Ptr<TesselPeerKeyInfoList>* list = localPeerKeyInfoList_.find(peer);
  return list == nullptr ? nullptr : (*list)->peerKeyInfo(dhKeyPair.peerRekeyCount);
}

bool PeerKeys::isCurrentPeerKey(const IpGenAddr& peer, const DhKeyPair& dhKeyPair) const {
  return sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo(peer).rekeyCounter == dhKeyPair.peerRekeyCount;
}

bool PeerKeys::startsOver(const IpGenAddr& peer) const {
  const Controller::PeerKeyInfo& info = sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo(peer);
  const Ptr<TesselPeerKeyInfo> stored = getPeerKeyInfo(peer, {0, info.rekeyCounter});
  return stored && !info.isEq(Controller::PeerKeyInfo()) && stored->nonce != info.nonce;
}

std::optional<uint64_t> PeerKeys::getNewestPeerRekeyCount(const IpGenAddr& peer) const {
  const Ptr<TesselPeerKeyInfoList>* list = localPeerKeyInfoList_.find(peer);
  if (list == nullptr) {
    return std::nullopt;
  }
  uint64_t newest = 0;
  for (const auto& [counter, generation] : (*list)->peerKeyInfo()) {
    newest = std::max(newest, counter);
  }
  return newest;
}

// Roles.

void PeerKeys::rememberRole(const IpGenAddr& peer) {
  const Ptr<Ike::PeerConnectionState> state = sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
  if (!state || !initialDhCompleted(peer)) {
    return;
  }
  rememberedRoles_.take(peer);  // It is the youngest again.
  rememberedRoles_.emplace(peer, Role{state->initiator(), state->rekeyCounter(), state->nonce()});
  if (rememberedRoles_.size() > kMaxRememberedRoles) {
    const IpGenAddr oldest = (*rememberedRoles_.begin()).key;
    rememberedRoles_.take(oldest);
  }
}

std::optional<bool> PeerKeys::rememberedRole(const IpGenAddr& peer) {
  const Role* role = rememberedRoles_.find(peer);
  if (role == nullptr) {
    return std::nullopt;
  }
  const Controller::PeerKeyInfo& info = sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo(peer);
  const bool continues = info.rekeyCounter > role->rekeyCounter ||
                         (info.rekeyCounter == role->rekeyCounter && info.nonce == role->nonce);
  if (!continues) {
    rememberedRoles_.take(peer);
    return std::nullopt;
  }
  return role->initiator;
}

}  // namespace tessel::Ipsec
