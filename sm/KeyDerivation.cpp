#include "sm/KeyDerivation.h"

#include <algorithm>
#include <cstring>

#include "host/crypto/HmacPRFunc.h"
#include "host/crypto/IpsecDHGeneral.h"
#include "host/crypto/NonceGenerator.h"
#include "host/crypto/PRFuncPlus.h"
#include "host/facility/Trace.h"
#include "sm/CryptoParams.h"
#include "sm/EventRecorder.h"
#include "sm/LocalKey.h"
#include "sm/Paths.h"
#include "sm/PeerKeys.h"
#include "sm/SecurityAssociations.h"
#include "sm/TesselV1Sm.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::Ipsec {

namespace {

constexpr uint16_t kFamilyIpv4 = 2;
constexpr uint32_t kProtoEsp = 50;

/// Whether the local nonce makes this router the initiator: the larger one as unsigned bytes over
/// the shorter length, the longer one if that ties.
bool decideInitiator(BytesView local, BytesView peer) {
  const size_t length = std::min(local.size(), peer.size());
  const int order = length == 0 ? 0 : std::memcmp(local.data(), peer.data(), length);
  if (order != 0) {
    return order > 0;
  }
  if (local.size() == peer.size()) {
    TRACE("Both nonces are equal, the two routers cannot agree on their roles");
  }
  return local.size() > peer.size();
}

/// Four bytes of the stream as a number, least significant byte first.
uint32_t readSpi(const SecretBytes& bytes) {
  uint32_t spi = 0;
  for (size_t i = 0; i < 4; ++i) {
    spi |= static_cast<uint32_t>(bytes.data()[i]) << (8 * i);
  }
  return spi;
}

}  // namespace

bool KeyDerivation::doGeneratePeerCryptoInfo(const IpGenAddr& peer, const DhKeyPair& dhKeyPair,
                                             bool isDhRekey) {
  TRACE("doGeneratePeerCryptoInfo", peer, dhKeyPair);
  Ike::Status& status = *sm_.ipsecStatus();
  if (status.ipsecPeerConnectionState().empty()) {
    status.setDhRekeyDelayTime();
    TRACE("Updated Dh Rekey Delay Time", status.getDhRekeyDelayTime());
  }
  const Ptr<Ike::PeerConnectionState> state = status.ipsecPeerConnectionStateIs(peer);
  if (!isDhRekey) {
    state->initialDiscoveryTimeIs(sm_.monotonicTime());
  }
  const Ptr<TesselPeerKeyInfo> pki = sm_.peerKeys().getPeerKeyInfo(peer, dhKeyPair);
  if (!sm_.ipsecLocalKeyDir()->valid()) {
    TRACE("Process peerKeyInfo only after the local key is generated", peer);
    return false;
  }
  if (sm_.peerKeys().isCurrentPeerKey(peer, dhKeyPair) &&
      !sm_.cryptoParams().doValidateCryptoParams(peer)) {
    TRACE("Validation of crypto params failed", peer);
    state->peerConnStatusIs(PeerConnStatus::down);
    sm_.securityAssociations().doDeletePeerSAs(peer);
    return false;
  }
  if (!isDhRekey && pki) {
    // A peer whose record was away and came back has not forgotten its role, and so must not we.
    const std::optional<bool> remembered = sm_.peerKeys().rememberedRole(peer);
    state->initiatorIs(
        remembered.value_or(decideInitiator(sm_.ipsecLocalKeyDir()->nonce(), pki->nonce)));
  }
  if (!doGenerateCryptoKeys(peer, ConnectionKey(), dhKeyPair, false)) {
    state->peerConnStatusIs(PeerConnStatus::down);
    state->peerDownReasonIs(PeerDownReason::keyDerivationFailed);
    sm_.securityAssociations().doDeletePeerSAs(peer);
    return false;
  }
  state->peerConnStatusIs(PeerConnStatus::ready);
  state->upTimeIs(sm_.utcTime());
  sm_.events().recordPeerEvent("generatePeerCryptoInfo", peer);
  return true;
}

bool KeyDerivation::doGenerateCryptoKeys(const IpGenAddr& peer, const ConnectionKey& connKey,
                                         const DhKeyPair& dhKeyPair, bool isSaRekey) {
  TRACE("doGenerateCryptoKeys", peer, dhKeyPair);
  const Ptr<Ike::PeerConnectionState> state = sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
  if (!state) {
    TRACE("Failed to retrieve Peer Connection state for peer", peer);
    return false;
  }
  const Ptr<TesselPeerKeyInfo> pki = sm_.peerKeys().getPeerKeyInfo(peer, dhKeyPair);
  if (!pki) {
    TRACE("Could not find peer key info for peer", peer);
    return false;
  }
  const Ptr<LocalKeyInfo> lki = sm_.localKey().localKeyInfo(dhKeyPair.localRekeyCount);
  if (!lki) {
    TRACE("localKeyInfo not found", peer);
    return false;
  }
  state->familyIs(kFamilyIpv4);
  state->protoIs(kProtoEsp);
  state->vrfNameIs("default");

  if (!computeSharedSecret(peer, *lki, *pki)) {
    return false;
  }
  SharedSecret& shared = lki->sharedSecretIs(peer);
  const Ptr<Ike::PathConnState> path = isSaRekey ? state->pathConnState(connKey) : nullptr;
  const std::optional<Nonces> nonces = findNonces(peer, path, *lki, *pki, isSaRekey);
  if (!nonces) {
    return false;
  }
  // Both ends build the initiator's nonce first.
  const BytesView first = state->initiator() ? nonces->local : nonces->peer;
  const BytesView second = state->initiator() ? nonces->peer : nonces->local;
  if (!NonceGenerator().generateFullNonce(&shared.fullNonce, first, second)) {
    TRACE("Failed to generate full nonce", peer);
    return false;
  }
  shared.fullNonceLen = static_cast<uint32_t>(shared.fullNonce.size());

  sm_.cryptoParams().doGetCryptoKeyLen(peer);
  Ike::CryptoInfo info;
  info.cryptoKeyLen = state->cryptoKeyLen();
  info.cryptoAlgo = state->cryptoAlgoStr();
  info.authKeyLen = state->authKeyLen();
  info.authTruncLen = state->authTruncLen();
  info.authAlgo = state->authAlgoStr();
  info.icvLen = state->icvLen();
  if (!readStream(peer, shared, state->initiator(), info)) {
    return false;
  }

  if (isSaRekey) {
    path->remoteIpIs(peer);
    path->saCryptoInfoIs(dhKeyPair)->cryptoInfoIs(std::move(info));
    sm_.events().recordPathEvent("generateCryptoKeys", connKey, getCurrentBgpDhKeyPair(peer));
  } else {
    state->dhCryptoInfoIs(dhKeyPair)->cryptoInfoIs(std::move(info));
    sm_.events().recordPeerEvent("generateCryptoKeys", peer);
  }
  return true;
}

bool KeyDerivation::computeSharedSecret(const IpGenAddr& peer, LocalKeyInfo& lki,
                                        const TesselPeerKeyInfo& pki) {
  if (const SharedSecret* held = lki.sharedSecret().find(peer);
      held != nullptr && held->secretLen > 0 && held->peerKey == pki.dhKey) {
    return true;  // The same two keys share the same secret, and computing it is what is dear.
  }
  if (!lki.dh) {
    auto dh = std::make_unique<IpsecDHGeneral>(lki.dhGroup);
    if (!dh->initIpsecDH()) {
      TRACE("initIpsecDH failed to initialize ipsecLocalDH", peer);
      return false;
    }
    if (!dh->setMyPrivateKey(lki.privateKey, lki.publicKey)) {
      TRACE("Failed to set private key to ipsecLocalDh", peer);
      return false;
    }
    lki.dh = std::move(dh);
  }
  // An empty key is not set, but it makes the context forget the key of the peer before.
  const bool keySet = lki.dh->setPeerPublicKey(pki.dhKey);
  if (!keySet) {
    TRACE("dhKey of the peer is no public key of group", lki.dhGroup,
          ", or our own; length :", pki.dhKey.size(), " expected :", lki.publicKey.size(), peer);
  }
  if (!keySet && !pki.dhKey.empty()) {
    TRACE("Failed to set peer public key to ipsecLocalDh", peer);
    return false;
  }
  SecretBytes secret;
  if (!lki.dh->getSharedSecret(&secret)) {
    TRACE("Failed to get shared secret from ipsecLocalDh", peer);
    return false;
  }
  SharedSecret& shared = lki.sharedSecretIs(peer);
  shared.peerKey = pki.dhKey;
  shared.secretLen = static_cast<uint32_t>(secret.size());
  shared.secret = std::move(secret);
  return true;
}

std::optional<KeyDerivation::Nonces> KeyDerivation::findNonces(const IpGenAddr& peer,
                                                               const Ptr<Ike::PathConnState>& path,
                                                               const LocalKeyInfo& lki,
                                                               const TesselPeerKeyInfo& pki,
                                                               bool isSaRekey) {
  if (isSaRekey) {
    if (!path || !sm_.paths().rekeySm(path->connectionKey())) {
      TRACE("rekeySm not found", peer);
      return std::nullopt;
    }
    return Nonces{path->saLocalNonce().nonceBytes, path->saPeerNonce().nonceBytes};
  }
  if (lki.nonce.empty()) {
    TRACE("Failed to retrieve local nonce", peer);
    return std::nullopt;
  }
  if (pki.nonce.empty()) {
    TRACE("Failed to retrieve peer nonce", peer);
    return std::nullopt;
  }
  return Nonces{lki.nonce, pki.nonce};
}

bool KeyDerivation::readStream(const IpGenAddr& peer, const SharedSecret& shared, bool initiator,
                               Ike::CryptoInfo& info) {
  HmacPRFunc prf;
  if (!prf.initHmacPRFunc(HashAlgorithm::sha512)) {
    TRACE("prf failed to init hmac-sha512", peer);
    return false;
  }
  if (!prf.setKey(shared.fullNonce)) {
    TRACE("prf failed to set fullnonce", peer);
    return false;
  }
  SecretBytes skeyseed;
  if (!prf.generatePRStream(shared.secret, &skeyseed)) {
    TRACE("prf failed to generate skeyseed", peer);
    return false;
  }
  if (!prf.setKey(skeyseed)) {
    TRACE("prf failed to set skeyseed", peer);
    return false;
  }
  PRFuncPlus plus(prf, true);
  if (!plus.initPRFuncPlus(shared.fullNonce)) {
    TRACE("prfPlus failed to initialize full nonce", peer);
    return false;
  }

  const size_t authKeyBytes = info.authKeyLen / 8U;
  const size_t cryptoKeyBytes = info.cryptoKeyLen / 8U;
  SecretBytes i1;
  SecretBytes i2;
  SecretBytes e1;
  SecretBytes e2;
  SecretBytes s1;
  SecretBytes s2;
  const struct {
    size_t length;
    SecretBytes* out;
    const char* failure;
  } reads[] = {
      {authKeyBytes, &i1, "generatePRStream failed to get first integrity key"},
      {authKeyBytes, &i2, "generatePRStream failed to get second integrity key"},
      {cryptoKeyBytes, &e1, "generatePRStream failed to get first encryption key"},
      {cryptoKeyBytes, &e2, "generatePRStream failed to get second encryption key"},
      {4, &s1, "generatePRStream failed to get first spi"},
      {4, &s2, "generatePRStream failed to get second spi"},
  };
  for (const auto& read : reads) {
    if (!plus.generatePRStream(read.length, read.out)) {
      TRACE(read.failure, peer);
      return false;
    }
  }
  const uint32_t forcedFirst = sm_.testKnobForceSpiInitiatorValue();
  const uint32_t forcedSecond = sm_.testKnobForceSpiResponderValue();
  const uint32_t spi1 = forcedFirst != 0 ? forcedFirst : readSpi(s1);
  const uint32_t spi2 = forcedSecond != 0 ? forcedSecond : readSpi(s2);

  info.firstEncryptionKey = initiator ? e1 : e2;
  info.secondEncryptionKey = initiator ? e2 : e1;
  info.firstIntegrityKey = initiator ? i1 : i2;
  info.secondIntegrityKey = initiator ? i2 : i1;
  info.firstSpi = initiator ? spi1 : spi2;
  info.secondSpi = initiator ? spi2 : spi1;
  return true;
}

std::optional<DhKeyPair> KeyDerivation::getLatestDhKeyPair(const IpGenAddr& peer) const {
  const Ptr<Ike::PeerConnectionState>& state = sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
  if (!state) {
    return std::nullopt;
  }
  DhKeyPair latest;
  bool tied = false;
  bool found = false;
  // Sums of two 64-bit counts, compared without wrapping.
  const auto sum = [](const DhKeyPair& pair) {
    return std::pair(pair.localRekeyCount + pair.peerRekeyCount < pair.localRekeyCount,
                     pair.localRekeyCount + pair.peerRekeyCount);
  };
  for (const auto& [pair, crypto] : state->dhCryptoInfo()) {
    if (!found || sum(pair) > sum(latest)) {
      latest = pair;
      tied = false;
      found = true;
    } else if (sum(pair) == sum(latest)) {
      tied = true;
    }
  }
  return tied ? std::nullopt : std::optional(latest);
}

DhKeyPair KeyDerivation::getCurrentBgpDhKeyPair(const IpGenAddr& peer) const {
  const uint64_t local = sm_.ipsecLocalKeyDir()->rekeyCounter();
  const Controller::PeerKeyInfo& info = sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo(peer);
  if (!sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfoHas(peer) || info.isEq(Controller::PeerKeyInfo())) {
    TRACE("Peer key info not found.", peer);
    return {local, UINT64_MAX};
  }
  return {local, info.rekeyCounter};
}

}  // namespace tessel::Ipsec
