#include "sm/PeerRecovery.h"

#include "host/facility/Trace.h"
#include "sm/DhRekey.h"
#include "sm/KeyDerivation.h"
#include "sm/Paths.h"
#include "sm/PeerKeys.h"
#include "sm/TesselV1Sm.h"

namespace tessel::Ipsec {

void PeerRecovery::recoverPeers() {
  KeySet<IpGenAddr> toRecover;
  // A peer whose newest record is not stored yet waits in the peer queue, which deals with it.
  const auto isEstablishedPeer = [this](const IpGenAddr& peer) {
    const Controller::PeerKeyInfo& info = sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo(peer);
    return sm_.peerKeys().initialDhCompleted(peer) && !info.isEq(Controller::PeerKeyInfo()) &&
           sm_.peerKeys().getPeerKeyInfo(peer, {0, info.rekeyCounter}) &&
           !sm_.peerKeys().startsOver(peer);
  };
  for (const auto& [peer, state] : sm_.ipsecStatus()->ipsecPeerConnectionState()) {
    if (state->peerConnStatus() != PeerConnStatus::ready && isEstablishedPeer(peer)) {
      toRecover.insert(peer);
    }
  }
  for (const auto& [key, pathStatus] : sm_.ipsecPathStatusDir()->ipsecPathStatus()) {
    const IpGenAddr& peer = pathStatus->remoteIp();
    const Ptr<Ike::PeerConnectionState>& state = sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
    if (state && !state->pathConnStateHas(key) && isWanted(*pathStatus) &&
        isEstablishedPeer(peer)) {
      toRecover.insert(peer);
    }
  }
  for (const IpGenAddr& peer : toRecover.keys()) {
    recoverPeer(peer);
    sm_.dhRekey().doDhRekey(peer);
    sm_.dhRekey().catchUpPaths(peer);
    establishWantedPaths(peer);
  }
}

void PeerRecovery::recoverPeer(const IpGenAddr& peer) {
  TRACE("recoverPeer", peer);
  const Ptr<Ike::PeerConnectionState> state = sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
  if (!state) {
    TRACE("peerConnState not found", peer);
    return;
  }
  const uint64_t published = sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo(peer).rekeyCounter;
  if (const Ptr<TesselPeerKeyInfoList> list = sm_.peerKeys().localPeerKeyInfoList(peer)) {
    for (const auto& [counter, generation] : list->peerKeyInfo()) {
      bool hasCrypto = false;
      for (const auto& [pair, crypto] : state->dhCryptoInfo()) {
        hasCrypto |= pair.peerRekeyCount == counter;
      }
      if (counter != published && !hasCrypto) {
        TRACE("Deleting local peerKeyInfo with rekeyCounter:", counter);
        list->peerKeyInfoDel(counter);
      }
    }
  }
  if (state->peerConnStatus() == PeerConnStatus::ready) {
    return;
  }
  const DhKeyPair current{sm_.ipsecLocalKeyDir()->rekeyCounter(), published};
  if (state->dhCryptoInfoHas(current) || !state->pathConnState().empty()) {
    // With paths that stand, the DH rekey that follows derives the pair and moves them to it, and
    // marks the peer down again if it cannot.
    state->peerConnStatusIs(PeerConnStatus::ready);
  } else if (!sm_.keyDerivation().doGeneratePeerCryptoInfo(peer, current, true)) {
    TRACE("Could not create crypto info for dhKeyPair :", current);
  }
}

void PeerRecovery::establishWantedPaths(const IpGenAddr& peer) {
  const Ptr<Ike::PeerConnectionState> state = sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
  if (!state || state->peerConnStatus() != PeerConnStatus::ready) {
    return;
  }
  sm_.ipsecPathStatusDir()->forEachTowards(
      peer, [this, &state](const Path::PathStatus& pathStatus) {
        if (!state->pathConnStateHas(pathStatus.connectionKey()) && isWanted(pathStatus)) {
          sm_.paths().establishPath(pathStatus.connectionKey());
        }
      });
}

bool PeerRecovery::isWanted(const Path::PathStatus& pathStatus) const {
  return pathStatus.establishAllowed() && pathStatus.state() == Path::UnderlayState::established &&
         sm_.ipsecDpsPathConfig()->ipsecPathConfig(pathStatus.connectionKey()).ipsecEnabled;
}

}  // namespace tessel::Ipsec
