#include "sm/LocalKey.h"

#include <algorithm>

#include "host/crypto/IpsecDHGeneral.h"
#include "host/crypto/NonceGenerator.h"
#include "host/facility/Trace.h"
#include "sm/DhRekey.h"
#include "sm/EventRecorder.h"
#include "sm/PeerKeys.h"
#include "sm/SecurityAssociations.h"
#include "sm/TesselV1Sm.h"

namespace tessel::Ipsec {

namespace {

/// The length that is published with every nonce, in bytes.
constexpr uint32_t kNonceLen = 32;

struct Algorithms {
  EncryptionAlgo encryptAlgo = EncryptionAlgo::none;
  IntegrityAlgo integrityAlgo{};
};

/// What a security association asks for: its most preferred crypto suite, or its own algorithms.
Algorithms selectAlgorithms(const Ike::Config& config,
                            const Ike::SecurityAssociationConfig& association) {
  const std::string* suiteName = nullptr;
  uint32_t lowest = 0;
  for (const auto& [preference, name] : association.cryptoSuite()) {
    if (suiteName == nullptr || preference < lowest) {
      lowest = preference;
      suiteName = &name;
    }
  }
  if (suiteName == nullptr) {
    TRACE("Using non crypto suite algos");
    return {association.encryptAlgo(), association.integrityAlgo()};
  }
  TRACE("SA:", association.name(), ", crypto suite:", *suiteName);
  const Ptr<Ike::SaCryptoSuiteConfig>& suite = config.saCryptoSuiteConfig(*suiteName);
  if (!suite) {
    TRACE("Crypto suite not configured, publishing algorithm codes 0:", *suiteName);
    return {};
  }
  TRACE("encr:", suite->encryptAlgo(), " integ:", suite->integrityAlgo());
  return {suite->encryptAlgo(), suite->integrityAlgo()};
}

}  // namespace

// Readiness.

bool LocalKey::invalidRouterId(const IpGenAddr& routerId) {
  return routerId == IpGenAddr() || routerId == IpGenAddr(AddressFamily::ipv4);
}

void LocalKey::updateRouterId() {
  const IpGenAddr routerId = sm_.ipsecDpsPathConfig()->routerId();
  TRACE("RouterId changed to", routerId, "from", sm_.ipsecLocalKeyDir()->originatorId());
  if (!invalidRouterId(routerId)) {
    sm_.ipsecLocalKeyDir()->originatorIdIs(routerId);
  }
  sm_.events().recordLocalEvent("updateRouterId", sm_.ipsecLocalKeyDir()->rekeyCounter());
}

void LocalKey::updateAppliedProfile() {
  const std::string newProfile = sm_.ipsecConfig()->keyController().profileName;
  for (const auto& [name, profile] : sm_.ipsecStatus()->appliedProfiles()) {
    if (!profile->appliedToKeyController()) {
      continue;
    }
    if (name == newProfile) {
      TRACE("applied profile", name, " did not change");
      return;
    }
    TRACE("profile changed from", name, "to", newProfile);
    profile->appliedToKeyControllerIs(false);
    sm_.confHelper()->maybeDeleteAppliedProfile(name);
    break;
  }
  if (!newProfile.empty()) {
    TRACE("applied profile", newProfile);
    sm_.confHelper()->updateAppliedProfile(newProfile, true)->appliedToKeyControllerIs(true);
  }
  sm_.events().recordLocalEvent("updateAppliedProfile", sm_.ipsecLocalKeyDir()->rekeyCounter());
}

bool LocalKey::localKeyReady() const {
  const IpGenAddr& routerId = sm_.ipsecDpsPathConfig()->routerId();
  const std::string& profile = sm_.ipsecConfig()->keyController().profileName;
  const bool ready =
      !invalidRouterId(routerId) && !profile.empty() && sm_.ipsecConfig()->ipsecProfileHas(profile);
  if (ready) {
    TRACE("localKey is ready with routerId and profile:", routerId, profile);
  } else {
    TRACE("localKey is not ready profile:", profile, routerId);
  }
  return ready;
}

void LocalKey::generateOrDestroyDhKey() {
  if (localKeyReady()) {
    doGenerateDhKey();
  } else {
    doDestroyDhKey();
  }
  sm_.events().recordLocalEvent("generateOrDestroyDhKey", sm_.ipsecLocalKeyDir()->rekeyCounter());
}

void LocalKey::handleRouterId() {
  TRACE("handleRouterId");
  if (!sm_.initialized()) {
    TRACE("not init!");
    return;
  }
  updateRouterId();
  generateOrDestroyDhKey();
  sm_.events().recordLocalEvent("handleRouterId", sm_.ipsecLocalKeyDir()->rekeyCounter());
}

void LocalKey::handleProfile(const std::string& profileName) {
  TRACE("handleProfile", profileName);
  if (!sm_.initialized()) {
    TRACE("not init!");
    return;
  }
  const Ptr<Ike::IpsecProfileConnectionMap> profile =
      sm_.ipsecStatus()->appliedProfiles(profileName);
  if (!profile || !profile->appliedToKeyController()) {
    TRACE("Skip processing", profileName);
    return;
  }
  generateOrDestroyDhKey();
  sm_.events().recordLocalEvent("handleProfile", sm_.ipsecLocalKeyDir()->rekeyCounter());
}

// Generations.

void LocalKey::doGenerateDhKey() {
  TRACE("doGenerateDhKey");
  sm_.peerKeys().forgetRoles();  // A new local nonce decides the roles anew.
  sm_.securityAssociations().doDeleteAllPeerSAs();
  sm_.dhRekey().setLocalDhState(0, DhRekeyState::notRekeying);
  if (!generateLocalKeyInfo(0)) {
    TRACE_ERROR("Failed to generate local key");
    doDestroyDhKey();
    return;
  }
  if (!updateLocalKeyInfo(0)) {
    TRACE_ERROR("Failed to update local key information");
  }
  if (!sm_.dhRekey().dhTimersRunning()) {
    sm_.dhRekey().startDHTimers();
  }
  sm_.peerKeys().handlePendingPeerKeyInfo();
  sm_.events().recordLocalEvent("generateDhKey", sm_.ipsecLocalKeyDir()->rekeyCounter());
}

void LocalKey::doDestroyDhKey() {
  TRACE("doDestroyDhKey");
  Controller::LocalKeyDir& published = *sm_.ipsecLocalKeyDir();
  if (!published.valid()) {
    TRACE("Skip destroying local key");
    return;
  }
  sm_.peerKeys().forgetRoles();
  sm_.securityAssociations().doDeleteAllPeerSAs();
  published.validIs(false);
  published.updateVersionInc(1);
  published.rekeyCounterIs(0);
  localKeyInfoDelAll();
  Ike::LocalKeyState state = sm_.ipsecStatus()->localKeyState();
  state.firstGenerationTime = Duration();
  state.latestGenerationTime = Duration();
  sm_.ipsecStatus()->localKeyStateIs(state);
  sm_.peerKeys().initialDhCompletedDelAll();
  if (sm_.dhRekey().dhTimersRunning()) {
    sm_.dhRekey().stopDHTimers();
  }
  sm_.events().recordLocalEvent("destroyDhKey", published.rekeyCounter());
}

bool LocalKey::generateLocalKeyInfo(uint64_t rekeyCount) {
  TRACE("New localRekeyCount is", rekeyCount);
  const Ike::KeyControllerConfig& settings = sm_.ipsecConfig()->keyController();
  const Ptr<Ike::IpsecProfileConfig> profile =
      sm_.ipsecConfig()->ipsecProfile(settings.profileName);
  if (!profile) {
    TRACE("ipsec profile config missing", settings.profileName);
    return false;
  }
  const Ptr<Ike::SecurityAssociationConfig> association =
      sm_.ipsecConfig()->securityAssoc(profile->securityAssocName());
  if (!association) {
    TRACE("Security association not configured", profile->securityAssocName());
    return false;
  }
  if (invalidRouterId(sm_.ipsecLocalKeyDir()->originatorId())) {
    TRACE("VTEP IP is not configured or the address is invalid");
    return false;
  }
  const DhGroupNum group = getDhGroupNum(settings.dhGroup);
  IpsecDHGeneral dh(group);
  if (!dh.initIpsecDH()) {
    TRACE("initIpsecDH failed for DH Group :", settings.dhGroup);
    return false;
  }
  Bytes publicKey;
  if (!dh.getMyPublicKey(&publicKey)) {
    TRACE("Failed to retrive local public key");
    return false;
  }
  SecretBytes privateKey;
  if (!dh.getMyPrivateKey(&privateKey)) {
    TRACE("Failed to retrive local private key");
    return false;
  }
  Bytes nonce;
  if (!NonceGenerator().generateNonce(&nonce)) {
    TRACE("Failed to generate nonce");
    return false;
  }

  localKeyInfoDel(rekeyCount);  // What its peers shared with a replaced key is void.
  const Ptr<LocalKeyInfo> generation = localKeyInfoIs(rekeyCount);
  generation->dhGroup = group;
  generation->privateKeyLen = static_cast<uint32_t>(privateKey.size());
  generation->privateKey = std::move(privateKey);
  generation->publicKeyLen = static_cast<uint32_t>(publicKey.size());
  generation->publicKey = std::move(publicKey);
  const Algorithms algorithms = selectAlgorithms(*sm_.ipsecConfig(), *association);
  generation->encryptAlgo = static_cast<uint16_t>(algorithms.encryptAlgo);
  generation->hashAlgo = static_cast<uint16_t>(algorithms.integrityAlgo);
  generation->nonce = std::move(nonce);
  if (const Ptr<Ike::TestKnob>& knob = sm_.ipsecStatus()->testKnob();
      knob && !knob->forcedNonce().empty()) {
    TRACE("Forcing nonce for testing");
    generation->nonce.assign(knob->forcedNonce().begin(), knob->forcedNonce().end());
  }
  generation->nonceLen = kNonceLen;
  for (const auto& [counter, newer] : localKeyInfo_) {
    if (counter > rekeyCount) {
      localKeyInfoDel(counter);
    }
  }

  Ike::LocalKeyState state = sm_.ipsecStatus()->localKeyState();
  if (state.firstGenerationTime == Duration()) {
    state.firstGenerationTime = sm_.utcTime();
  }
  state.latestGenerationTime = sm_.utcTime();
  sm_.ipsecStatus()->localKeyStateIs(state);
  sm_.events().recordLocalEvent("generateLocalKeyInfo", sm_.ipsecLocalKeyDir()->rekeyCounter());
  return true;
}

bool LocalKey::updateLocalKeyInfo(uint64_t rekeyCount) {
  TRACE("New localRekeyCount is", rekeyCount);
  const Ptr<LocalKeyInfo> generation = localKeyInfo(rekeyCount);
  if (!generation) {
    TRACE("Failed to retrieve local key", rekeyCount);
    return false;
  }
  // Readers take the record as changed when updateVersion changes, so that is written last.
  Controller::LocalKeyDir& published = *sm_.ipsecLocalKeyDir();
  published.dhGroupIs(generation->dhGroup);
  published.dhKeyIs(generation->publicKey);
  published.dhKeyLenIs(generation->publicKeyLen);
  published.nonceIs(generation->nonce);
  published.nonceLenIs(kNonceLen);
  published.encryptAlgoIs(generation->encryptAlgo);
  published.hashAlgoIs(generation->hashAlgo);
  published.rekeyCounterIs(rekeyCount);
  published.validIs(true);
  published.updateVersionInc(1);
  sm_.securityAssociations().generationsChangedIs();
  return true;
}

void LocalKey::deleteOldLocalKeys() {
  TRACE("deleteOldLocalKeys");
  if (sm_.dhRekey().dhRekeyState() != DhRekeyState::notRekeying) {
    TRACE("local DH rekey is going on, skip deleting old crypto info");
    return;
  }
  const uint64_t published = sm_.ipsecLocalKeyDir()->rekeyCounter();
  for (const auto& [counter, generation] : localKeyInfo_) {
    if (counter < published) {
      TRACE("Deleting localKeyInfo", counter);
      localKeyInfoDel(counter);
    }
  }
  sm_.events().recordLocalEvent("deleteOldLocalKeys", published);
}

uint64_t LocalKey::getNewestLocalRekeyCount() const {
  uint64_t newest = 0;
  for (const auto& [counter, generation] : localKeyInfo_) {
    newest = std::max(newest, counter);
  }
  return newest;
}

Ptr<LocalKeyInfo> LocalKey::localKeyInfo(uint64_t rekeyCount) const {
  const Ptr<LocalKeyInfo>* found = localKeyInfo_.find(rekeyCount);
  return found == nullptr ? nullptr : *found;
}

Ptr<LocalKeyInfo> LocalKey::localKeyInfoIs(uint64_t rekeyCount) {
  const auto [generation, made] = localKeyInfo_.emplace(rekeyCount);
  if (made) {
    generation = makePtr<LocalKeyInfo>(rekeyCount);
  }
  return generation;
}

}  // namespace tessel::Ipsec
