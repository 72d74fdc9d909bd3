#include "sm/CryptoParams.h"

#include "host/facility/Trace.h"
#include "sm/TesselV1Sm.h"

namespace tessel::Ipsec {

namespace {

/// How the data path names an algorithm, and its lengths in bits.
struct IntegrityRow {
  const char* name;
  uint16_t keyLen;
  uint16_t truncLen;  ///< 0: the data path's default.
};
struct EncryptionRow {
  const char* name;
  uint16_t keyLen;  ///< Of AES-GCM with the 32-bit salt of RFC 4106.
  uint16_t icvLen;  ///< 0: no ICV of its own.
};

/// Rows of numbers outside the table have no name and no key.
constexpr IntegrityRow integrityRow(IpsecHmacAlgorithm algorithm) {
  switch (algorithm) {
    case IpsecHmacAlgorithm::md5:
      return {"md5", 128, 0};
    case IpsecHmacAlgorithm::sha1:
      return {"sha1", 160, 0};
    case IpsecHmacAlgorithm::sha256:
      return {"hmac(sha256)", 256, 128};
    case IpsecHmacAlgorithm::sha384:
      return {"hmac(sha384)", 384, 192};
    case IpsecHmacAlgorithm::sha512:
      return {"hmac(sha512)", 512, 256};
    case IpsecHmacAlgorithm::none:
    case IpsecHmacAlgorithm::unused:
      break;
  }
  return {nullptr, 0, 0};
}

constexpr EncryptionRow encryptionRow(IpsecEspAlgorithm algorithm) {
  switch (algorithm) {
    case IpsecEspAlgorithm::none:
      break;
    case IpsecEspAlgorithm::aes128Cbc:
      return {"aes", 128, 0};
    case IpsecEspAlgorithm::aes128Gcm64:
      return {"rfc4106(gcm(aes))", 160, 64};
    case IpsecEspAlgorithm::aes128Gcm128:
      return {"rfc4106(gcm(aes))", 160, 128};
    case IpsecEspAlgorithm::aes256Gcm128:
      return {"rfc4106(gcm(aes))", 288, 128};
    case IpsecEspAlgorithm::aes256Cbc:
      return {"aes", 256, 0};
    case IpsecEspAlgorithm::nullEncryption:
      return {"cipher_null", 0, 0};
    case IpsecEspAlgorithm::aes192Cbc:
      return {"aes", 192, 0};
  }
  return {nullptr, 0, 0};
}

}  // namespace

bool CryptoParams::doValidateCryptoParams(const IpGenAddr& peer) {
  TRACE("doValidateCryptoParams", peer);
  const Ptr<Ike::PeerConnectionState> state = sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
  if (!state) {
    TRACE("peerConnState not found", peer);
    return false;
  }
  const Controller::PeerKeyInfo info = sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo(peer);
  // Copied before the checks: a peer that fails still shows what it published.
  state->dhGroupIs(info.dhGroup);
  state->encryptAlgoIs(static_cast<IpsecEspAlgorithm>(info.encryptAlgo));
  state->hashAlgoIs(static_cast<IpsecHmacAlgorithm>(info.hashAlgo));
  state->dhKeyLenIs(info.dhKeyLen);
  state->nonceLenIs(info.nonceLen);
  state->nonceIs(info.nonce);
  state->rekeyCounterIs(info.rekeyCounter);

  const Controller::LocalKeyDir& local = *sm_.ipsecLocalKeyDir();
  if (local.dhGroup() != info.dhGroup) {
    TRACE("DH group mismatch. Local DH Group:", local.dhGroup(), " Remote DH Group :", info.dhGroup,
          peer);
    state->peerDownReasonIs(PeerDownReason::dhGroupMismatch);
    return false;
  }
  if (local.dhKeyLen() != info.dhKeyLen) {
    TRACE("DH length mismatch. Local DH length:", local.dhKeyLen(),
          " Remote DH length :", info.dhKeyLen, peer);
    state->peerDownReasonIs(PeerDownReason::dhKeyLengthMismatch);
    return false;
  }
  if (local.nonceLen() != info.nonceLen) {
    TRACE("Nonce length mismatch. Local Nonce length:", local.nonceLen(),
          " Remote Nonce length :", info.nonceLen, peer);
    state->peerDownReasonIs(PeerDownReason::nonceLengthMismatch);
    return false;
  }
  if (local.encryptAlgo() != info.encryptAlgo) {
    TRACE("Encryption Algo mismatch. Local algo:", local.encryptAlgo(),
          " Remote algo :", info.encryptAlgo, peer);
    state->peerDownReasonIs(PeerDownReason::encryptAlgoMismatch);
    return false;
  }
  if (local.hashAlgo() != info.hashAlgo) {
    TRACE("Integrity Algo mismatch. Local algo:", local.hashAlgo(), " Remote algo :", info.hashAlgo,
          peer);
    state->peerDownReasonIs(PeerDownReason::hashAlgoMismatch);
    return false;
  }
  return true;
}

void CryptoParams::doGetCryptoKeyLen(const IpGenAddr& peer) {
  TRACE("doGetCryptoKeyLen", peer);
  const Ptr<Ike::PeerConnectionState> state = sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
  if (!state) {
    TRACE("peerConnState not found", peer);
    return;
  }
  const IntegrityRow integrity = integrityRow(state->hashAlgo());
  const EncryptionRow encryption = encryptionRow(state->encryptAlgo());
  state->authTruncLenIs(integrity.truncLen);
  state->icvLenIs(encryption.icvLen);
  if (integrity.name != nullptr) {
    state->authAlgoStrIs(integrity.name);
  }
  state->authKeyLenIs(integrity.keyLen);
  if (encryption.name != nullptr) {
    state->cryptoAlgoStrIs(encryption.name);
  }
  state->cryptoKeyLenIs(encryption.keyLen);
}

}  // namespace tessel::Ipsec
