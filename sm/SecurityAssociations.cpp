#include "sm/SecurityAssociations.h"

#include "host/entity/Assert.h"
#include "host/facility/Trace.h"
#include "sm/EventRecorder.h"
#include "sm/KeyDerivation.h"
#include "sm/LocalKey.h"
#include "sm/Paths.h"
#include "sm/PeerKeys.h"
#include "sm/SaRekey.h"
#include "sm/TesselV1Sm.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::Ipsec {

namespace {

constexpr uint8_t kTunnelMode = 1;
constexpr uint8_t kOtherMode = 0;

/// In-SAs are the types 1, 4 and 6; whatever else is created is an out-SA.
bool isCreatedAsInSa(SaType type) {
  return type == SaType::steadyIn || type == SaType::saRekeyIn || type == SaType::dhRekeyIn;
}

/// Whether generation `x` is more than one generation older than `published`.
bool isMoreThanOneBehind(uint64_t x, uint64_t published) {
  return x < published && published - x > 1;
}

/// Whether an SA of the peer has a key generation pair that `matches`.
template <class Matches>
bool isInUse(const Ike::PeerConnectionState& peer, Matches matches) {
  for (const auto& [key, path] : peer.pathConnState()) {
    for (const auto& [saKey, saInfo] : path->pathConnSaInfo()) {
      if (matches(saInfo->sa()->dhKeyPair())) {
        return true;
      }
    }
  }
  return false;
}

}  // namespace

ConnectionKey getConnectionKeyFromSa(const Ike::SecurityAssociation& sa) {
  if (sa.saType() == SaType::none) {
    TRACE("Unknown SA with srcAddr :", sa.saddr(), sa.sakey().daddr);
  }
  if (isOutSa(sa.saType())) {
    return {0, sa.saddr(), sa.sakey().daddr, sa.connId()};
  }
  return {0, sa.sakey().daddr, sa.saddr(), sa.connId()};
}

// Creation.

void SecurityAssociations::doCreateIpsecControllerSAs(const ConnectionKey& connKey,
                                                      const DhKeyPair& dhKeyPair,
                                                      const std::string& profileName,
                                                      uint32_t reqid, SaType saType) {
  TRACE("doCreateIpsecControllerSAs", connKey, dhKeyPair, saType);
  if (!sm_.ipsecStatus()->ipsecConnectionStatusInfoHas(connKey)) {
    TRACE("ipsecConnectionStatusInfo not found", connKey);
    return;
  }
  const Ptr<Path::PathStatus> pathStatus = sm_.ipsecPathStatusDir()->ipsecPathStatus(connKey);
  if (!pathStatus) {
    TRACE("ipsecPathStatus not found", connKey);
    return;
  }
  const IpGenAddr remoteIp = pathStatus->remoteIp();
  const IpGenAddr publicIp = pathStatus->publicIp();
  if (!sm_.ipsecConfig()->ipsecProfileHas(profileName)) {
    TRACE("ipsecProfile not found", profileName);
    return;
  }
  if (!sm_.ipsecStatus()->ipsecPeerConnectionStateHas(remoteIp)) {
    TRACE("peerConnState not found", remoteIp);
    return;
  }
  if (!sm_.ipsecStatus()->vrfStatusHas(vrfIdToName(connKey.vrfId, sm_.vrfIdStatus()))) {
    TRACE("ipsecVrfStatus not found", connKey);
    return;
  }
  if (reqid == 0) {
    const ConnectionKeySource source{connKey, kDynamicPathConnection};
    const EncapId encapId = sm_.encapIdHelper() ? sm_.encapIdHelper()->encapId(source) : EncapId();
    if (encapId == EncapId()) {
      TRACE("EncapId not found for profile:", profileName);
      return;
    }
    reqid = encapId.reqid;
    TRACE("Found", source.connectionType, " encapId with reqid:", reqid);
  }

  const auto create = [&](SaType type) {
    doCreateIpsecControllerSA(remoteIp, connKey, dhKeyPair, profileName, publicIp, reqid, type);
  };
  switch (saType) {
    case SaType::steadyPair:
      create(SaType::steadyIn);
      create(SaType::steadyOut);
      break;
    case SaType::saRekeyIn:
    case SaType::saRekeyOut:
    case SaType::dhRekeyIn:
    case SaType::dhRekeyOut:
      create(saType);
      break;
    case SaType::none:
    case SaType::steadyIn:
    case SaType::steadyOut:
    case SaType::retiredIn:
    case SaType::retiredOut:
      break;  // Nothing that one asks for.
  }
  sm_.events().recordPathEvent("createControllerSAs", connKey,
                               sm_.keyDerivation().getCurrentBgpDhKeyPair(remoteIp));
}

void SecurityAssociations::doCreateIpsecControllerSA(
    const IpGenAddr& remoteIp, const ConnectionKey& connKey, const DhKeyPair& dhKeyPair,
    const std::string& profileName, const IpGenAddr& publicIp, uint32_t reqid, SaType saType) {
  TRACE("doCreateIpsecControllerSA", connKey, saType);
  const Ptr<Ike::PeerConnectionState> peer = sm_.ipsecStatus()->ipsecPeerConnectionState(remoteIp);
  if (!peer) {
    TRACE("peerConnState not found", remoteIp);
    return;
  }
  const Ptr<Ike::VrfStatus> vrfStatus = sm_.ipsecStatus()->vrfStatus(peer->vrfName());
  if (!vrfStatus) {
    TRACE("ipsecVrfStatus not found", peer->vrfName());
    return;
  }
  const Ptr<Path::PathStatus> pathStatus = sm_.ipsecPathStatusDir()->ipsecPathStatus(connKey);
  if (!pathStatus) {
    TRACE("ipsecPathStatus not found", connKey);
    return;
  }
  const Ptr<Ike::IpsecProfileConfig> profile = sm_.ipsecConfig()->ipsecProfile(profileName);
  if (!profile) {
    TRACE("ipsecProfile not found", profileName);
    return;
  }
  const Ptr<Ike::SecurityAssociationConfig> saConfig =
      sm_.ipsecConfig()->securityAssoc(profile->securityAssocName());
  if (!saConfig) {
    TRACE("Security Association not configured for profile :", profileName);
    return;
  }
  Ptr<Ike::CryptoInfoPair> pair = peer->dhCryptoInfo(dhKeyPair);
  if (!pair) {
    TRACE("cryptoInfoPair not found :", dhKeyPair);
    return;
  }
  if (saType == SaType::saRekeyIn || saType == SaType::saRekeyOut) {
    const Ptr<Ike::PathConnState>& path = peer->pathConnState(connKey);
    pair = path ? path->saCryptoInfo(dhKeyPair) : nullptr;
    if (!pair) {
      TRACE("saCryptoInfo not found :", dhKeyPair);
      return;
    }
  }
  const Ike::CryptoInfo& info = pair->cryptoInfo();
  const bool initiator = peer->initiator();
  const SpiPair spis = wireSpis(info, connKey, publicIp, initiator);

  SecurityAssociationKey key;
  key.proto = peer->proto();
  key.reqid = reqid;
  key.family = peer->family();
  const bool in = isCreatedAsInSa(saType);
  key.spi = in ? spis.in : spis.out;
  key.daddr = in ? connKey.srcAddr : connKey.dstAddr;

  if (sm_.tesselV1()->cpSaHas(key) && sm_.tesselV1()->cpSa(key) != connKey) {
    // Two paths under one request id between the same addresses; sharing the SA would make either
    // path delete it under the other.
    TRACE("SA belongs to another path already, reqid :", reqid, key, connKey,
          sm_.tesselV1()->cpSa(key));
    return;
  }

  const Ptr<Ike::SecurityAssociation> sa = vrfStatus->tesselSaIs(key);
  sa->remoteIpIs(remoteIp);
  sa->dhKeyPairIs(dhKeyPair);
  sa->saddrIs(in ? connKey.dstAddr : connKey.srcAddr);
  sa->modeIs(profile->mode() == "tunnel" ? kTunnelMode : kOtherMode);
  sa->seqIs(0);
  sa->reqidIs(reqid);
  sa->saTypeIs(saType);
  sa->connIdIs(connKey.connId);
  sa->cryptoKeyLenIs(info.cryptoKeyLen);
  sa->cryptoAlgoIs(info.cryptoAlgo);
  sa->authKeyLenIs(info.authKeyLen);
  sa->authAlgoIs(info.authAlgo);
  sa->authTruncLenIs(info.authTruncLen);
  sa->icvLenIs(info.icvLen);
  sa->pairSpiIs(in ? spis.out : spis.in);
  // Both directions use the same keys: the initiator its first ones, the responder its second.
  const SecretBytes& cryptoKey = initiator ? info.firstEncryptionKey : info.secondEncryptionKey;
  const SecretBytes& authKey = initiator ? info.firstIntegrityKey : info.secondIntegrityKey;
  sa->cryptoKeyIs(cryptoKey.first(info.cryptoKeyLen / 8U));
  sa->authKeyIs(authKey.first(info.authKeyLen / 8U));
  sa->isInitiatorIs(initiator);
  sa->encapTypeIs(IpsecEncapProtocol::udp);
  sa->flowEncapIs(profile->flowEncap());
  sa->encapSrcPortIs(pathStatus->encapSrcPort());
  sa->encapDstPortIs(pathStatus->encapDstPort());
  sa->encapSrcPortRangeIs(profile->encapSrcPortRange());
  sa->pathIndexIs(pathStatus->pathIndex());

  fillLifetimes(*saConfig, *vrfStatus->lifetimeCfgIs(key));
  fillPathConnSaInfo(sa);
  sm_.tesselV1()->cpSaIs(key, connKey);
  sm_.tesselV1()->saIs(sa);
  TRACE("Created", saType, ", reqid:", reqid, ", spi:", key, ", srcPort:", sa->encapSrcPort(),
        ", dstPort:", sa->encapDstPort(), ", srcPortRange:", sa->encapSrcPortRange());
  sm_.events().recordSaEvent("createControllerSA", key, connKey);
}

void SecurityAssociations::fillLifetimes(const Ike::SecurityAssociationConfig& config,
                                         Ike::LifetimeCfg& limits) const {
  limits.hardByteLimitIs(config.byteLimit());
  limits.softByteLimitIs(getSoftRekey(config.byteLimit()));
  limits.hardPacketLimitIs(config.packetLimit());
  limits.softPacketLimitIs(getSoftRekey(config.packetLimit()));
  limits.hardAddExpireIs(config.lifetime());
  limits.softAddExpireIs(getTimedSoftRekey(config.lifetime()));
}

uint32_t SecurityAssociations::getSpiForConnection(uint32_t spi, const IpGenAddr& localAddr,
                                                   const IpGenAddr& remoteAddr,
                                                   const IpGenAddr& publicIp, bool /*isInitiator*/,
                                                   bool firstSpi) const {
  if (sm_.testKnobForceSpiInitiatorValue() != 0 || sm_.testKnobForceSpiResponderValue() != 0) {
    return spi;
  }
  uint32_t a = localAddr.v4Addr();
  uint32_t b = remoteAddr.v4Addr();
  if (!publicIp.isUnspecified()) {
    (firstSpi ? a : b) = publicIp.v4Addr();
  }
  return spi + a + b;
}

SecurityAssociations::SpiPair SecurityAssociations::wireSpis(const Ike::CryptoInfo& info,
                                                             const ConnectionKey& connKey,
                                                             const IpGenAddr& publicIp,
                                                             bool isInitiator) const {
  return {getSpiForConnection(info.firstSpi, connKey.srcAddr, connKey.dstAddr, publicIp,
                              isInitiator, true),
          getSpiForConnection(info.secondSpi, connKey.dstAddr, connKey.srcAddr, publicIp,
                              isInitiator, false)};
}

void SecurityAssociations::fillPathConnSaInfo(const Ptr<Ike::SecurityAssociation>& sa) {
  TRACE("fillPathConnSaInfo");
  const ConnectionKey connKey = getConnectionKeyFromSa(*sa);
  const Ptr<Ike::PeerConnectionState> peer =
      sm_.ipsecStatus()->ipsecPeerConnectionState(sa->remoteIp());
  if (!peer) {
    TRACE("peerConnState not found", sa->remoteIp());
    return;
  }
  const Ptr<Ike::PathConnState> path = peer->pathConnStateIs(connKey);
  path->dhStateIs(sa->dhKeyPair());
  path->reqidIs(sa->reqid());
  if (sa->saType() == SaType::steadyOut || sa->saType() == SaType::dhRekeyOut) {
    path->curOutSaDhKeyPairIs(sa->dhKeyPair());
  }
  path->pathConnSaInfoIs(sa->sakey(), sa)->saIs(sa);
  sm_.events().recordPathEvent("fillPathConnSaInfo", connKey, sa->dhKeyPair());
  TRACE(sa->saType(), sa->sakey(), sa->saddr(), sa->sakey().daddr);
}

void SecurityAssociations::setSaInfoEntry(const SecurityAssociationKey& key) {
  if (const Paths::WatchedSa* watched = sm_.paths().watchedSa(key)) {
    setSaInfoEntry(*watched->saInfo);
    return;
  }
  const Ptr<Ike::VrfStatus>& vrfStatus = sm_.ipsecStatus()->vrfStatus(L3::kDefaultVrfName);
  if (!vrfStatus) {
    TRACE("ipsecVrfStatus not found", L3::kDefaultVrfName);
    return;
  }
  const Ptr<Ike::SecurityAssociation>& sa = vrfStatus->tesselSa(key);
  if (!sa) {
    TRACE("setSaInfoEntry: sa not found, could have been recently deleted", key);
    return;
  }
  const Ptr<RekeySm>& rekeySm = sm_.paths().rekeySm(getConnectionKeyFromSa(*sa));
  if (!rekeySm) {
    TRACE("rekeySm not found", key);
    return;
  }
  const Ptr<Ike::PathConnSaInfo> saInfo =
      rekeySm->pathConnState() ? rekeySm->pathConnState()->pathConnSaInfo(key) : nullptr;
  if (!saInfo) {
    TRACE("setSaInfoEntry: pathConnState not found", key);
    return;
  }
  setSaInfoEntry(*saInfo);
}

void SecurityAssociations::setSaInfoEntry(Ike::PathConnSaInfo& watched) {
  const IpsecCounters::IpsecSACounterEntry counters = saCounters(watched.sakey());
  if (counters == IpsecCounters::IpsecSACounterEntry()) {
    TRACE("saCounterEntry not found for sa with reqid :", watched.sa()->reqid());
    return;
  }
  const uint32_t type = counters.nonceWord >> 28U;
  if (type > static_cast<uint32_t>(NonceType::responder)) {
    TRACE("NonceType out of range", type);
    return;
  }
  const NonceType nonceType = NonceTypeInstance(type);
  const Duration addTime = seconds(static_cast<double>(counters.addTime));
  if (watched.pkts() == counters.pkts && watched.addTime() == addTime &&
      watched.peerNonce() == counters.nonceWord && watched.pktsPresent() == (counters.pkts != 0) &&
      watched.peerNonceType() == nonceType) {
    return;  // Seen before: the record need not be written to, not even to hold it.
  }
  const Ptr<Ike::PathConnSaInfo> saInfo(&watched);  // What hears of it may take it away.
  saInfo->peerNonceTypeIs(nonceType);
  saInfo->peerNonceIs(counters.nonceWord);
  saInfo->addTimeIs(addTime);
  saInfo->pktsIs(counters.pkts);
  saInfo->pktsPresentIs(counters.pkts != 0);
}

IpsecCounters::IpsecSACounterEntry SecurityAssociations::saCounters(
    const SecurityAssociationKey& key) const {
  if (!sm_.ipsecCounterTable()) {
    return {};
  }
  try {
    return sm_.ipsecCounterTable()->saCounterEntry(key);
  } catch (const IpsecCounters::CorruptionException& corruption) {
    sm_.ipsecCounterTable()->doCorruptionDetected(corruption.what());
    return {};
  }
}

// Deletion and retirement.

void SecurityAssociations::doDeleteSA(const Ptr<Ike::SecurityAssociation>& deleted,
                                      const Ptr<Ike::PathConnState>& path) {
  const Ptr<Ike::SecurityAssociation> sa = deleted;  // The caller's handle may go with the SA.
  HOST_ASSERT(sa != nullptr, "an SA of a path was taken from its entry");
  HOST_ASSERT(path && path->pathConnSaInfoHas(sa->sakey()), "an SA is deleted from another path");
  const SecurityAssociationKey& key = sa->sakey();
  TRACE(key, " saType :", sa->saType());
  const ConnectionKey connKey = getConnectionKeyFromSa(*sa);

  // The VRF by the key's first field, as the host's map resolves it; an SA that is not there lies
  // with its peer or in the default VRF.
  Ike::Status& status = *sm_.ipsecStatus();
  const Ptr<Ike::PeerConnectionState>& peer = status.ipsecPeerConnectionState(sa->remoteIp());
  Ptr<Ike::VrfStatus> vrfStatus;
  for (const L3::VrfName& name :
       {vrfIdToName(key.spi, sm_.vrfIdStatus()), peer ? peer->vrfName() : L3::VrfName(),
        L3::VrfName(L3::kDefaultVrfName)}) {
    vrfStatus = status.vrfStatus(name);
    if (vrfStatus && vrfStatus->tesselSaHas(key)) {
      break;
    }
  }
  sm_.tesselV1()->saDel(key);
  sm_.tesselV1()->cpSaDel(key);
  if (vrfStatus) {
    vrfStatus->tesselSaDel(key);
    vrfStatus->lifetimeCfgDel(key);
  }
  path->pathConnSaInfoDel(key);
  sm_.events().recordSaEvent("deleteSA", key, connKey);
}

void SecurityAssociations::doDeleteIpsecControllerSAs(const Ptr<Ike::PathConnState>& path) {
  const ConnectionKey& key = path->connectionKey();
  TRACE("doDeleteIpsecControllerSAs", key);
  for (const auto& [saKey, saInfo] : path->pathConnSaInfo()) {
    const Ptr<Ike::SecurityAssociation> sa = saInfo->sa();
    TRACE("Deleting", sa->saType(), " with reqid :", sa->reqid(), " sa :", saKey);
    doDeleteSA(sa, path);
  }
  const Ptr<Path::PathStatus>& pathStatus = sm_.ipsecPathStatusDir()->ipsecPathStatus(key);
  if (!pathStatus) {
    TRACE("pathStatus not found.", key);
    return;
  }
  sm_.events().recordPathEvent("deleteControllerSAs", key,
                               sm_.keyDerivation().getCurrentBgpDhKeyPair(pathStatus->remoteIp()));
}

void SecurityAssociations::doDeletePeerSAs(const IpGenAddr& peer) {
  TRACE("doDeletePeerSAs", peer);
  const Ptr<Ike::PeerConnectionState> state = sm_.ipsecStatus()->ipsecPeerConnectionState(peer);
  if (!state) {
    TRACE("peerConnState not found", peer);
    return;
  }
  for (const auto& [key, path] : state->pathConnState()) {
    sm_.paths().destroyPath(path);
  }
  sm_.events().recordPeerEvent("deletePeerSAs", peer);
}

void SecurityAssociations::doDeleteAllPeerSAs() {
  TRACE("doDeleteAllPeerSAs");
  for (const auto& [peer, state] : sm_.ipsecStatus()->ipsecPeerConnectionState()) {
    sm_.peerKeys().doDeletePeerKeyInfo(peer);
  }
}

void SecurityAssociations::deleteOldCryptoInfos() {
  TRACE("deleteOldCryptoInfos");
  generationsChanged_ = false;
  const uint64_t local = sm_.ipsecLocalKeyDir()->rekeyCounter();
  bool deleted = false;
  for (const auto& [peer, state] : sm_.ipsecStatus()->ipsecPeerConnectionState()) {
    deleted |= deleteOldCryptoInfosOf(peer, *state, local);
  }
  if (deleted) {
    sm_.events().recordLocalEvent("deleteOldCryptoInfos", local);
  }
}

void SecurityAssociations::deleteOldCryptoInfosIfChanged() {
  if (generationsChanged_) {
    deleteOldCryptoInfos();
  }
}

bool SecurityAssociations::deleteOldCryptoInfosOf(const IpGenAddr& peer,
                                                  Ike::PeerConnectionState& state, uint64_t local) {
  const Controller::PeerKeyInfo& info = sm_.ipsecPeerKeyDir()->ipsecPeerKeyInfo(peer);
  if (info.isEq(Controller::PeerKeyInfo())) {
    return false;  // Which generation is current is not known.
  }
  // Before its first exchange a peer has refused keys at most, and their numbers may go down too.
  const bool refused = !sm_.peerKeys().initialDhCompleted(peer);
  const auto isOld = [published = info.rekeyCounter, refused](uint64_t count) {
    return refused ? count != published : isMoreThanOneBehind(count, published);
  };
  bool deleted = false;
  if (const Ptr<TesselPeerKeyInfoList> list = sm_.peerKeys().localPeerKeyInfoList(peer)) {
    for (const auto& [counter, generation] : list->peerKeyInfo()) {
      const uint64_t peerCount = counter;
      const auto isOfGeneration = [peerCount](const DhKeyPair& pair) {
        return pair.peerRekeyCount == peerCount;
      };
      if (!isOld(peerCount) || isInUse(state, isOfGeneration)) {
        continue;
      }
      TRACE("Deleting local peerKeyInfo with rekeyCounter:", peerCount);
      list->peerKeyInfoDel(peerCount);
      deleted = true;
      // Its crypto goes with it: a generation without crypto looks like one to be rekeyed.
      for (const auto& [pair, crypto] : state.dhCryptoInfo()) {
        if (isOfGeneration(pair)) {
          TRACE("Deleting dhCryptoInfo", pair);
          state.dhCryptoInfoDel(pair);
        }
      }
    }
  }
  for (const auto& [pair, crypto] : state.dhCryptoInfo()) {
    const DhKeyPair old = pair;
    // Crypto of a generation that is still stored stays: without it the pair would be rekeyed.
    if (isMoreThanOneBehind(old.localRekeyCount, local) &&
        !sm_.localKey().localKeyInfo().has(old.localRekeyCount) &&
        !isInUse(state, [&old](const DhKeyPair& used) { return used == old; })) {
      TRACE("Deleting dhCryptoInfo", old);
      state.dhCryptoInfoDel(old);
      deleted = true;
    }
  }
  return deleted;
}

}  // namespace tessel::Ipsec
