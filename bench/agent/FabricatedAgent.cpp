#include "bench/agent/FabricatedAgent.h"

#include <string>
#include <string_view>

#include "bench/agent/Floors.h"
#include "host/crypto/IpsecDHGeneral.h"
#include "host/crypto/NonceGenerator.h"
#include "lab/scenario/Scenario.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::bench {

namespace {

constexpr const char* kProfile = "overlay";

lab::RouterSettings settingsOf(const AgentSettings& settings) {
  lab::RouterSettings router;
  router.maxEventRecord = settings.maxEventRecord;
  return router;
}

/// A key and a nonce of the peer's next generation.
void renew(Controller::PeerKeyInfo& record) {
  IpsecDHGeneral dh(record.dhGroup);
  check(dh.initIpsecDH() && dh.getMyPublicKey(&record.dhKey) &&
        NonceGenerator().generateNonce(&record.nonce));
  record.dhKeyLen = static_cast<uint32_t>(record.dhKey.size());
  record.nonceLen = static_cast<uint32_t>(record.nonce.size());
}

}  // namespace

FabricatedAgent::FabricatedAgent(const AgentSettings& settings)
    : settings_(settings), host_(scheduler_->clock(), settingsOf(settings)) {
  host_.ipsecDpsPathConfig->routerIdIs(IpGenAddr::fromV4(0xC0000201));
  lab::writeProfile(*host_.ipsecConfig,
                    {.name = kProfile, .sa = {.lifetime = settings.saLifetime}});
  host_.ipsecConfig->keyControllerIs({.enabled = 1,
                                      .profileName = kProfile,
                                      .dhKeyLifetime = 30 * 86400,
                                      .holdTime = 0,
                                      .dhGroup = settings.group});
  host_.controllerStatus->connectedIs(true);
  for (uint32_t i = 0; i < settings.peers; ++i) {
    Controller::PeerKeyInfo& record = records_.emplace_back();
    record.originatorId = peerAddress(i);
    record.dhGroup = static_cast<uint32_t>(settings.group);
    record.encryptAlgo = static_cast<uint8_t>(IpsecEspAlgorithm::aes256Gcm128);
    record.hashAlgo = static_cast<uint8_t>(IpsecHmacAlgorithm::sha256);
    renew(record);
  }
  handedOver_.reserve(size_t{2} * paths());
  takenAway_.reserve(size_t{2} * paths());
  asked_.reserve(paths());
  table_.attach<&FabricatedAgent::handleTable>(*host_.tesselV1, *this);
  host_.recordEvents->observerIs(this);
  machine_ = Ipsec::tesselV1SmFactory(scheduler_, host_);
  check(host_.ipsecLocalKeyDir->valid());
}

FabricatedAgent::~FabricatedAgent() {
  host_.recordEvents->observerIs(nullptr);
  machine_ = nullptr;
}

IpGenAddr FabricatedAgent::peerAddress(uint32_t peer) const {
  return IpGenAddr::fromV4(0xC6000001 + peer);
}

ConnectionKey FabricatedAgent::pathKey(uint32_t peer, uint32_t path) const {
  return {.vrfId = 0,
          .srcAddr = IpGenAddr::fromV4(0x0A000001 + path),
          .dstAddr = IpGenAddr::fromV4(0x0B000001 + peer),
          .connId = uint64_t{peer} * settings_.pathsPerPeer + path + 1};
}

// The agent.

void FabricatedAgent::describePaths() {
  for (uint32_t peer = 0; peer < settings_.peers; ++peer) {
    for (uint32_t path = 0; path < settings_.pathsPerPeer; ++path) {
      describePath(peer, path);
    }
  }
}

void FabricatedAgent::describePath(uint32_t peer, uint32_t path) {
  const ConnectionKey key = pathKey(peer, path);
  const auto number = static_cast<uint32_t>(key.connId);
  host_.ipsecDpsPathConfig->ipsecPathConfigIs(key, {.ipsecEnabled = true});
  const Ptr<Path::PathStatus> status = host_.ipsecPathStatusDir->ipsecPathStatusIs(key);
  status->remoteIpIs(peerAddress(peer));
  status->pathNameIs("path-" + std::to_string(number));
  status->encapSrcPortIs(4500);
  status->encapDstPortIs(4500);
  status->pathIndexIs(number);
  status->establishAllowedIs(true);
  status->stateIs(Path::UnderlayState::established);
  host_.ipsecStatus->ipsecConnectionStatusInfoIs(key)->connectionStateIs(
      static_cast<uint8_t>(Ike::ConnectionState::established));
  host_.encapIdHelper->encapIdIs({key, kDynamicPathConnection}, {.reqid = number});
  // The entry of the merged data; its member comes with `touchPath`.
  host_.mergeData->connectionInfoIs({key.vrfId, key.srcAddr, key.dstAddr});
}

void FabricatedAgent::touchPaths() {
  for (uint32_t peer = 0; peer < settings_.peers; ++peer) {
    for (uint32_t path = 0; path < settings_.pathsPerPeer; ++path) {
      touchPath(pathKey(peer, path));
    }
  }
}

void FabricatedAgent::touchPath(const ConnectionKey& key) {
  const auto info = host_.mergeData->connectionInfoIs({key.vrfId, key.srcAddr, key.dstAddr});
  info->connectionIs(key, {.version = info->connection(key).version + 1});
}

void FabricatedAgent::removePaths() {
  for (uint32_t peer = 0; peer < settings_.peers; ++peer) {
    for (uint32_t path = 0; path < settings_.pathsPerPeer; ++path) {
      const ConnectionKey key = pathKey(peer, path);
      host_.ipsecDpsPathConfig->ipsecPathConfigDel(key);
      touchPath(key);
      host_.mergeData->connectionInfoDel({key.vrfId, key.srcAddr, key.dstAddr});
      host_.ipsecPathStatusDir->ipsecPathStatusDel(key);
      host_.ipsecStatus->ipsecConnectionStatusInfoDel(key);
      host_.encapIdHelper->encapIdDel({key, kDynamicPathConnection});
    }
  }
}

void FabricatedAgent::publishPeers() {
  for (uint32_t peer = 0; peer < settings_.peers; ++peer) {
    publishPeer(peer);
  }
}

void FabricatedAgent::publishPeer(uint32_t peer) {
  host_.ipsecPeerKeyDir->ipsecPeerKeyInfoIs(peerAddress(peer), records_[peer]);
}

void FabricatedAgent::withdrawPeers() {
  for (uint32_t peer = 0; peer < settings_.peers; ++peer) {
    host_.ipsecPeerKeyDir->ipsecPeerKeyInfoDel(peerAddress(peer));
  }
}

void FabricatedAgent::rekeyPeers() {
  for (Controller::PeerKeyInfo& record : records_) {
    ++record.rekeyCounter;
    renew(record);
  }
}

void FabricatedAgent::changeSettings() {
  Ike::KeyControllerConfig settings = host_.ipsecConfig->keyController();
  ++settings.dhKeyLifetime;
  host_.ipsecConfig->keyControllerIs(settings);
}

// The data path.

void FabricatedAgent::handleTable(const Change& change) {
  if (const auto* key = change.memberOf(IpsecCommon::TesselV1::saName)) {
    (change.kind() == Change::Kind::removed ? takenAway_ : handedOver_).push_back(*key);
  }
}

void FabricatedAgent::handleEvent(const SecurityAssociationKey& key, const ConnectionKey&,
                                  const SaEvent& event) {
  if (event.eventName.text() == std::string_view("maybeRekeySa")) {
    asked_.push_back(key);
  }
}

void FabricatedAgent::serveDataPath() {
  IpsecCounters::IpsecCounterTable& counters = *host_.ipsecCounterTable;
  for (const SecurityAssociationKey& key : takenAway_) {
    counters.saCounterEntryDel(key);  // One that came back starts anew below.
  }
  takenAway_.clear();
  const auto now = static_cast<uint64_t>(scheduler_->clock().utcTime().seconds());
  for (const SecurityAssociationKey& key : handedOver_) {
    if (host_.tesselV1->sa().has(key)) {
      counters.saCounterEntryIs(key).addTime = now;
    }
  }
  handedOver_.clear();
  for (const SecurityAssociationKey& key : asked_) {
    const Ptr<Ike::SecurityAssociation>* const out = host_.tesselV1->sa().find(key);
    if (out == nullptr || !(*out)->rekey()) {
      continue;
    }
    // The peer answers on the SA of the other direction.
    SecurityAssociationKey in = key;
    in.spi = (*out)->pairSpi();
    in.daddr = (*out)->saddr();
    if (host_.tesselV1->sa().has(in)) {
      counters.saCounterEntryIs(in).nonceWord =
          Ipsec::nonceWord(NonceType::responder, key.spi | 1U);
    }
  }
  asked_.clear();
}

void FabricatedAgent::carryTraffic(uint64_t packets) {
  const uint64_t published = host_.ipsecLocalKeyDir->rekeyCounter();
  for (const auto& [key, sa] : host_.tesselV1->sa()) {
    // Nobody sends on SAs of a key that has not been published.
    if (sa->dhKeyPair().localRekeyCount <= published) {
      IpsecCounters::IpsecSACounterEntry& counters = host_.ipsecCounterTable->saCounterEntryIs(key);
      if (counters.addTime != 0) {
        counters.pkts += packets;
        counters.bytes += packets * 1000;
      }
    }
  }
  for (const auto& [source, id] : host_.encapIdHelper->encapId()) {
    IpsecCounters::IpsecSessionCounterEntry& session =
        host_.ipsecCounterTable->sessionCounterEntryIs(id.reqid);
    session.pktsIn += packets;
    session.pktsOut += packets;
  }
}

double FabricatedAgent::live(Duration span) {
  double taken = 0;
  const Duration end = scheduler_->clock().monotonicTime() + span;
  while (scheduler_->clock().monotonicTime() < end) {
    const double start = threadSeconds();
    serveDataPath();
    if (++seconds_ % 10 == 0) {
      carryTraffic(1);
    }
    taken += threadSeconds() - start;
    scheduler_->runFor(seconds(1));
  }
  return taken;
}

}  // namespace tessel::bench
