// The in-band nonce exchange of an SA rekey.
#include <arpa/inet.h>

#include "host/crypto/NonceGenerator.h"
#include "host/facility/Trace.h"
#include "sm/EventRecorder.h"
#include "sm/KeyDerivation.h"
#include "sm/SecurityAssociations.h"
#include "sm/TesselV1Sm.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::Ipsec {

namespace {

constexpr uint32_t kNonceValueMask = 0x0FFFFFFF;
constexpr uint32_t kNonceTypeShift = 28;

uint32_t readLittleEndian(const Bytes& bytes) {
  uint32_t value = 0;
  for (size_t i = 0; i < 4 && i < bytes.size(); ++i) {
    value |= static_cast<uint32_t>(bytes[i]) << (8 * i);
  }
  return value;
}

Ike::NonceFmt nonceFmt(uint32_t value) {
  Bytes bytes(4);
  for (size_t i = 0; i < 4; ++i) {
    bytes[i] = static_cast<uint8_t>(value >> (8 * i));
  }
  return {value, std::move(bytes)};
}

/// A fresh 28-bit nonce. 0 means "no nonce" to the peer, so it is drawn again; a source that yields
/// nothing else has failed.
std::optional<Ike::NonceFmt> generateRekeyNonce() {
  constexpr int maxDraws = 8;
  for (int draw = 0; draw < maxDraws; ++draw) {
    Bytes random;
    if (!NonceGenerator().generateNonce(&random)) {
      return std::nullopt;
    }
    if (const uint32_t value = readLittleEndian(random) & kNonceValueMask; value != 0) {
      return nonceFmt(value);
    }
  }
  return std::nullopt;
}

}  // namespace

uint32_t nonceWord(NonceType type, uint32_t nonceValue) {
  return (nonceValue & kNonceValueMask) | static_cast<uint32_t>(type) << kNonceTypeShift;
}

void RekeySm::setSaRekeyNonce(const SecurityAssociationKey& saKey) {
  TRACE("setSaRekeyNonce", saKey);
  const std::optional<Ike::NonceFmt> nonce = generateRekeyNonce();
  if (!nonce) {
    TRACE("Failed to generate nonce", saKey);
    setSaRekeyState(saKey, SaRekeyState::nonceFailed);
    return;
  }
  pathConnState_->saLocalNonceIs(*nonce);
}

void RekeySm::handlePeerNonce(const SecurityAssociationKey& saKey) {
  TRACE("handlePeerNonce", saKey);
  const Ptr<Ike::SecurityAssociation> sa = findSa(saKey);
  if (!sa) {
    TRACE("saInfo is NULL", saKey);
    return;
  }
  const Ptr<Ike::PathConnSaInfo> saInfo = pathConnState_->pathConnSaInfo(saKey);
  const IpGenAddr peerAddr = sa->remoteIp();
  const Ptr<Ike::PeerConnectionState> peer = sm_->ipsecStatus()->ipsecPeerConnectionState(peerAddr);
  if (!peer) {
    TRACE("peerConnState not found", peerAddr);
    return;
  }
  if (saInfo->peerNonce() == 0) {
    TRACE("Peer nonce is nonceInit", saKey);
    return;
  }
  if (sa->saType() != SaType::steadyIn) {
    TRACE("SaType is not an inSA", sa->saType());
    saInfo->peerNonceIs(0);
    return;
  }
  if (!handlePeerNonceType(saKey)) {
    return;
  }
  pathConnState_->saPeerNonceIs(nonceFmt(saInfo->peerNonce() & kNonceValueMask));
  TRACE("Peer Nonce : ", "length", pathConnState_->saPeerNonce().nonceBytes.size());
  if (pathConnState_->saLocalNonce().nonceValue == 0) {
    setSaRekeyNonce(saKey);
  }
  const Ptr<Ike::SecurityAssociation> inSa = getSaFromType(SaType::steadyIn);
  if (!inSa) {
    TRACE("Could not find inSa", connectionKey_);
    return;
  }
  const ConnectionKey key = getConnectionKeyFromSa(*inSa);
  if (!sm_->keyDerivation().doGenerateCryptoKeys(inSa->remoteIp(), key, inSa->dhKeyPair(), true)) {
    peer->peerConnStatusIs(PeerConnStatus::down);
    peer->peerDownReasonIs(PeerDownReason::keyDerivationFailed);
    TRACE("Could not create crypto info for dhKeyPair : ", inSa->dhKeyPair());
    const Ptr<Ike::PathConnState> path = pathConnState_;
    setPathState(path, DynamicPathState::rebuild);
    return;
  }
  setSaRekeyState(saKey, SaRekeyState::peerNonceReceived);
  doInstallRekeySa(inSa, SaType::saRekeyIn);
  sm_->events().recordSaEvent("handlePeerNonce", saKey, key);
}

bool RekeySm::handlePeerNonceType(const SecurityAssociationKey& saKey) {
  TRACE("handlePeerNonceType", saKey);
  const Ptr<Ike::PathConnState> path = pathConnState_;
  const SmState prev = path->saSmState();
  const uint32_t type = path->pathConnSaInfo(saKey)->peerNonce() >> kNonceTypeShift;
  TRACE("Peer Nonce type : ", type);
  if (type == static_cast<uint32_t>(NonceType::initiator)) {
    if (prev == SmState::initiator) {
      setSaSmState(SmState::bothInitiated);
      setPathState(path, DynamicPathState::saBothInitiated);
    } else {
      setSaSmState(SmState::responder);
      setPathState(path, DynamicPathState::saResponderNonceAccepted);
    }
  } else if (type == static_cast<uint32_t>(NonceType::responder)) {
    if (prev == SmState::initiator) {
      setPathState(path, DynamicPathState::saInitiatorAnswered);
    } else {
      TRACE("Non-initiator recieved ", type);
    }
  } else {
    TRACE("Unexpected peer nonce type received : ", type);
  }

  bool useNonce = true;
  if (path->saSmState() == SmState::bothInitiated) {
    const Ptr<Ike::PeerConnectionState>& peer =
        sm_->ipsecStatus()->ipsecPeerConnectionState(path->remoteIp());
    if (peer && peer->initiator()) {
      setSaSmState(SmState::initiator);
      setPathState(path, DynamicPathState::saInitiatorTieWon);
      useNonce = false;
    } else {
      setSaSmState(SmState::responder);
      setPathState(path, DynamicPathState::saResponderNonceAccepted);
    }
  }
  sm_->events().recordSaEvent("handlePeerNonceType", saKey, connectionKey_);
  return useNonce;
}

void RekeySm::doUpdateNonceForPeer() {
  TRACE("doUpdateNonceForPeer", connectionKey_);
  const uint32_t value = readLittleEndian(pathConnState_->saLocalNonce().nonceBytes);
  const Ptr<Ike::SecurityAssociation> out = getSaFromType(SaType::steadyOut);
  if (!out) {
    TRACE("Could not find outSa", connectionKey_);
    return;
  }
  out->nonceIs(htonl(nonceWord(NonceType::responder, value)));
  // Down and up again, so that the data path sees a change also when the flag was set before.
  out->rekeyIs(false);
  out->rekeyIs(true);
  sm_->events().recordSaEvent("updateNonceForPeer", out->sakey(), connectionKey_);
}

}  // namespace tessel::Ipsec
