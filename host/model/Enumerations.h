// The enumerations of the state model: the number that is stored and compared stands beside the
// name that says its role. Each has a `stringValue` that prints both: "active(3)".
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "host/facility/Export.h"

namespace tessel {

/// Kind of an SA on a path.
enum class SaType : uint8_t {
  none = 0,
  steadyIn = 1,
  steadyOut = 2,   ///< The only kind that lifetime expiry rekeys.
  steadyPair = 3,  ///< A request for the steady pair; no SA ever has it.
  saRekeyIn = 4,
  saRekeyOut = 5,
  dhRekeyIn = 6,
  dhRekeyOut = 7,
  retiredIn = 8,  ///< Replaced by a completed rekey.
  retiredOut = 9,
};
TESSEL_API bool isInSa(SaType type);
TESSEL_API bool isOutSa(SaType type);
TESSEL_API std::string stringValue(SaType type);

/// A rekey role or state: of a path's SA rekey (`saSmState`), and of a path in a DH rekey
/// (`dhSmState`, one per pair of generations).
enum class SmState : uint8_t {
  idle = 0,
  dhRekeying = 1,  ///< The path is taken by a DH rekey.
  initiator = 2,
  responder = 3,
  bothInitiated = 4,  ///< Both sides started an SA rekey at once.
  noRole = 5,         ///< Both generations of the pair are older than the newest ones.
};
TESSEL_API std::string stringValue(SmState state);

/// Progress of a DH rekey: the router's own, and per pair of generations that of a path.
enum class DhRekeyState : uint8_t {
  notRekeying = 0,
  initiated = 1,
  inSaInstalled = 2,
  inProgress = 3,
  outSaInstalling = 4,  ///< Traffic was seen on the new in-SA.
};
TESSEL_API std::string stringValue(DhRekeyState state);

/// Progress of one SA in a rekey.
enum class SaRekeyState : uint8_t {
  steady = 0,
  peerNonceReceived = 1,
  installed = 2,
  inUse = 3,
  nonceFailed = 4,
};
TESSEL_API std::string stringValue(SaRekeyState state);

/// Where a path stands.
enum class DynamicPathState : uint8_t {
  none = 0,
  established = 1,  ///< SAs created, traffic not yet confirmed.
  idle = 2,         ///< Established but not passing traffic.
  active = 3,       ///< Traffic confirmed on the steady SAs.
  dhInitiatorMarked = 4,
  dhInitiatorInSaInstalled = 5,
  dhInitiatorOutSaInstalling = 6,
  dhInitiatorOutSaInstalled = 7,  ///< Waits for traffic.
  dhInitiatorComplete = 8,
  dhResponderMarked = 9,
  dhResponderInSaInstalled = 10,
  dhResponderOutSaInstalled = 11,  ///< Waits for traffic.
  dhResponderComplete = 12,
  dhResponderMarkedAgain = 13,  ///< The peer rekeyed while this router's rekey ran.
  dhInitiatorMarkedAgain = 14,  ///< This router rekeyed while the peer's rekey ran.
  dhOldOutSaInstalled = 15,     ///< Of a generation that is no longer the latest.
  dhLatestOutSaInstalling = 16,
  saInitiatorNonceSent = 17,
  saInitiatorTieWon = 18,  ///< Both sides initiated; this one stays initiator.
  saInitiatorAnswered = 19,
  saInitiatorInSaInstalled = 20,
  saInitiatorOutSaInstalled = 21,  ///< Waits for traffic.
  saInitiatorComplete = 22,
  saResponderNonceAccepted = 23,
  saResponderUnused = 24,
  saResponderInSaInstalled = 25,
  saResponderOutSaInstalling = 26,
  saResponderOutSaInstalled = 27,  ///< Waits for traffic.
  saResponderComplete = 28,
  saBothInitiated = 29,  ///< The tie is about to be broken.
  unused = 30,
  rebuild = 31,
};
inline constexpr size_t kDynamicPathStates = 32;
TESSEL_API std::string stringValue(DynamicPathState state);
/// Established, idle or active: no rekey runs, and the steady SAs carry the traffic.
constexpr bool isSteady(DynamicPathState state) {
  return state == DynamicPathState::established || state == DynamicPathState::idle ||
         state == DynamicPathState::active;
}

/// Whether a peer's crypto is derived.
enum class PeerConnStatus : uint8_t { ready = 0, down = 1 };
TESSEL_API std::string stringValue(PeerConnStatus status);

/// Why a peer went down.
enum class PeerDownReason : uint8_t {
  none = 0,
  dhGroupMismatch = 1,
  dhKeyLengthMismatch = 2,
  nonceLengthMismatch = 3,
  encryptAlgoMismatch = 4,
  hashAlgoMismatch = 5,
  keyDerivationFailed = 6,
};
TESSEL_API std::string stringValue(PeerDownReason reason);

/// ESP encryption algorithm: the code that key records carry.
enum class IpsecEspAlgorithm : uint8_t {
  none = 0,
  aes128Cbc = 1,
  aes128Gcm64 = 2,   ///< 8-byte ICV (RFC 4106).
  aes128Gcm128 = 3,  ///< 16-byte ICV.
  aes256Gcm128 = 4,
  aes256Cbc = 5,
  nullEncryption = 6,
  aes192Cbc = 7,
};
TESSEL_API std::string stringValue(IpsecEspAlgorithm algorithm);

/// ESP integrity algorithm: the code that key records carry.
enum class IpsecHmacAlgorithm : uint8_t {
  md5 = 0,
  sha1 = 1,
  sha256 = 2,
  sha384 = 3,
  sha512 = 4,
  none = 5,
  unused = 6,
};
TESSEL_API std::string stringValue(IpsecHmacAlgorithm algorithm);

/// The algorithms of the crypto-suite configuration: the codes are those that key records carry.
using EncryptionAlgo = IpsecEspAlgorithm;
using IntegrityAlgo = IpsecHmacAlgorithm;

/// Kind of a nonce that a peer sent in band.
enum class NonceType : uint8_t {
  none = 0,
  initiator = 1,  ///< The sender starts an SA rekey.
  responder = 2,  ///< The sender answers one.
};
TESSEL_API std::string stringValue(NonceType type);
/// Converts a received number; throws std::out_of_range("NonceType out of range").
TESSEL_API NonceType NonceTypeInstance(uint32_t number);

/// Diffie-Hellman group of the key-controller settings, by its number in the IANA registry of
/// IKEv2 group numbers.
enum class IpsecDhGroup : uint8_t {
  none = 0,
  modp768 = 1,
  modp1024 = 2,
  modp1536 = 5,
  modp2048 = 14,
  modp3072 = 15,
  modp4096 = 16,
  modp6144 = 17,
  ecp256 = 19,
  ecp384 = 20,
  ecp521 = 21,
  modp2048s256 = 24,
};
TESSEL_API std::string stringValue(IpsecDhGroup group);

/// IANA group number, as the DH primitive takes it; 0 means unsupported.
using DhGroupNum = uint32_t;
TESSEL_API DhGroupNum getDhGroupNum(IpsecDhGroup group);

/// How an SA is encapsulated.
enum class IpsecEncapProtocol : uint8_t { none = 0, udp = 1 };
TESSEL_API std::string stringValue(IpsecEncapProtocol protocol);

}  // namespace tessel
