#include "lab/dataplane/DataPlane.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "lab/dataplane/Esp.h"
#include "lab/dataplane/InnerPacket.h"
#include "lab/net/ByteOrder.h"

namespace tessel::lab {
namespace {

constexpr int kPriority = 0;  // Before the machine's own work.
constexpr uint16_t kDefaultPort = 4500;
constexpr uint16_t kProbePort = 7;  // Echo.
constexpr uint8_t kIpv4InIp = 4;
constexpr uint8_t kIpv6InIp = 41;
constexpr size_t kRememberedSas = 16;

uint16_t portOr(uint16_t port) {
  return port != 0 ? port : kDefaultPort;
}

/// The protocol number of an inner packet; nothing when it is no whole IP packet.
std::optional<uint8_t> innerProtocol(BytesView inner) {
  if (ipPacketSize(inner) != inner.size()) {
    return std::nullopt;
  }
  return inner[0] >> 4U == 4 ? kIpv4InIp : kIpv6InIp;
}

/// The word that an SA asks the data path to carry, in host byte order; 0 = none.
uint32_t nonceWordOf(const Ike::SecurityAssociation& sa) {
  if (!sa.rekey()) {
    return 0;
  }
  std::array<uint8_t, 4> wire{};
  const uint32_t nonce = sa.nonce();
  std::memcpy(wire.data(), &nonce, wire.size());  // It is in network byte order already.
  return get32(wire.data());
}

/// Why an SA cannot be carried whatever its keys are; empty when it can.
std::string whyUnusable(const Ike::SecurityAssociation& sa) {
  if (!isInSa(sa.saType()) && !isOutSa(sa.saType())) {
    return "saType " + stringValue(sa.saType()) + ": has no direction";
  }
  if (sa.mode() != 1) {
    return "mode " + std::to_string(sa.mode()) + ": is not tunnel mode (1)";
  }
  if (sa.encapType() != IpsecEncapProtocol::udp) {
    return "encapType " + stringValue(sa.encapType()) + ": is not UDP";
  }
  const AddressFamily family = sa.saddr().family();
  if (family == AddressFamily::none || sa.sakey().daddr.family() != family) {
    return "saddr " + sa.saddr().stringValue() + ": is of another family than daddr " +
           sa.sakey().daddr.stringValue();
  }
  if (sa.sakey().spi == 0) {
    return "spi 0: marks IKE messages";
  }
  return {};
}

bool isCipherAttribute(const Change& change) {
  using Sa = Ike::SecurityAssociation;
  return change.is(Sa::cryptoAlgoName) || change.is(Sa::cryptoKeyName) ||
         change.is(Sa::cryptoKeyLenName) || change.is(Sa::authAlgoName) ||
         change.is(Sa::authKeyName) || change.is(Sa::authKeyLenName) ||
         change.is(Sa::authTruncLenName) || change.is(Sa::icvLenName);
}

}  // namespace

/// What is kept of a path as long as the data plane lives.
struct DataPlane::PathRecord final : RefCounted {
  /// The sequence numbers of an SA that is gone.
  struct RememberedSequence {
    bool inbound = false;
    bool fromSaRekey = false;
    uint32_t spi = 0;
    uint64_t keyTag = 0;
    uint32_t sequence = 0;
    ReplayWindow window;
  };

  explicit PathRecord(const ConnectionKey& path) : key(path) {}

  /// The installed out-SA that was handed over last; null when there is none.
  Sa* sendingSa() const;

  const ConnectionKey key;
  std::vector<Sa*> outSas;  // In the order of hand-over.
  PathStatistics statistics;
  uint64_t sentBeforeProbe = 0;
  uint64_t probes = 0;
  bool probed = true;
  std::vector<RememberedSequence> remembered;  // Oldest first.
};

class DataPlane::Sa final : public RefCounted {
 public:
  Sa(const SecurityAssociationKey& saKey, PathRecord* pathRecord, uint64_t number)
      : key(saKey), path(pathRecord), handOver(number) {}

  /// Follows the entity that was handed over.
  void entityIs(Ptr<Ike::SecurityAssociation> sa) {
    entity = std::move(sa);
    subscription.attach<&Sa::handleEntity>(*entity, *this);
    cipherChanged = true;
    takeNonce();
  }

  void handleEntity(const Change& change) {
    if (change.is(Ike::SecurityAssociation::rekeyName)) {
      takeNonce();
    } else if (isCipherAttribute(change)) {
      cipherChanged = true;
    }
  }

  void takeNonce() {
    if (!inbound) {
      nonceWord = nonceWordOf(*entity);
      nonceTold = false;
    }
  }

  bool installed() const { return state == SaInstallState::installed; }

  /// Goes on where an earlier SA with this SPI and key of the path stopped.
  void resumeSequence() {
    const auto found = std::ranges::find_if(path->remembered, [this](const auto& each) {
      return each.inbound == inbound && each.spi == key.spi && each.keyTag == transform->keyTag();
    });
    window = ReplayWindow();
    if (found == path->remembered.end()) {
      return;
    }
    sequence = std::max(sequence, found->sequence);
    window = found->window;
    path->remembered.erase(found);
  }

  void rememberSequence() const {
    std::vector<PathRecord::RememberedSequence>& all = path->remembered;
    const auto sameKind = [this](const PathRecord::RememberedSequence& each) {
      return each.inbound == inbound && each.fromSaRekey == fromSaRekey;
    };
    if (static_cast<size_t>(std::ranges::count_if(all, sameKind)) >= kRememberedSas) {
      all.erase(std::ranges::find_if(all, sameKind));
    }
    all.push_back({.inbound = inbound,
                   .fromSaRekey = fromSaRekey,
                   .spi = key.spi,
                   .keyTag = transform->keyTag(),
                   .sequence = sequence,
                   .window = window});
  }

  SaReport report() const {
    return {.key = key,
            .path = path != nullptr ? path->key : ConnectionKey(),
            .saType = entity->saType(),
            .inbound = inbound,
            .state = state,
            .handOver = handOver,
            .handedOverAt = handedOverAt,
            .installedAt = installedAt,
            .addTime = addTime,
            .sequence = inbound ? window.highest() : sequence,
            .pkts = pkts,
            .bytes = bytes,
            .nonceWord = nonceWord,
            .keyTag = transform ? transform->keyTag() : 0,
            .refusal = refusal};
  }

  const SecurityAssociationKey key;
  PathRecord* const path;  // Null when the table names none.
  const uint64_t handOver;
  Ptr<Ike::SecurityAssociation> entity;
  bool inbound = false;
  bool fromSaRekey = false;
  bool cipherChanged = false;
  bool installFails = false;
  bool reported = true;
  bool nonceTold = false;
  SaInstallState state = SaInstallState::pending;
  Duration handedOverAt;
  Duration installedAt = Duration::never();
  uint64_t addTime = 0;
  std::optional<EspTransform> transform;
  uint32_t sequence = 0;  // Out: the last one sent.
  ReplayWindow window;    // In.
  uint64_t pkts = 0;
  uint64_t bytes = 0;
  uint32_t nonceWord = 0;
  uint8_t limitsFound = 0;  // Bit per HardLimitFinding::Limit.
  std::string refusal;
  Ptr<Ike::LifetimeCfg> lifetime;
  Ptr<TimerTask> timer;  // Until it is installed: when that is; then: its hard time limit.
  Subscription subscription;
};

DataPlane::Sa* DataPlane::PathRecord::sendingSa() const {
  const auto found =
      std::find_if(outSas.rbegin(), outSas.rend(), [](const Sa* sa) { return sa->installed(); });
  return found == outSas.rend() ? nullptr : *found;
}

template <class Call>
void DataPlane::tell(Call call) {
  for (size_t i = 0; i < observers_.size(); ++i) {  // An observer may add and remove observers.
    call(*observers_[i]);
  }
}

DataPlane::DataPlane(Host host, Transmit transmit, Deliver deliver)
    : host_(std::move(host)), transmit_(std::move(transmit)), deliver_(std::move(deliver)) {
  probeTimer_ = makePtr<TimerTask>(host_.scheduler, kPriority, "dataPlaneProbe");
  probeTimer_->handlerIs([this] { handleProbeTimer(); });
  probeIntervalIs(probeInterval_);
  tableSubscription_.attach<&DataPlane::handleTable>(*host_.table, *this);
  for (const auto& [key, sa] : host_.table->sa()) {
    handOver(key);
  }
}

DataPlane::~DataPlane() {
  observers_.clear();
  for (const SecurityAssociationKey& key : sas_.keys()) {
    remove(key);
  }
}

// --- SAs: hand-over, installation, removal

void DataPlane::handleTable(const Change& change) {
  const SecurityAssociationKey* const key = change.memberOf(IpsecCommon::TesselV1::saName);
  if (key == nullptr) {
    return;
  }
  if (change.kind() == Change::Kind::removed) {
    remove(*key);
  } else {
    handOver(*key);
  }
}

DataPlane::PathRecord& DataPlane::pathRecord(const ConnectionKey& path) {
  Ptr<PathRecord>& record = paths_.emplace(path).first;
  if (!record) {
    record = makePtr<PathRecord>(path);
  }
  return *record;
}

void DataPlane::handOver(const SecurityAssociationKey& key) {
  const Ptr<Ike::SecurityAssociation>* const entity = host_.table->sa().find(key);
  if (entity == nullptr) {
    return;  // Deleted by an observer that was told before.
  }
  if (const Ptr<Sa>* known = sas_.find(key)) {
    Sa& sa = **known;
    sa.entityIs(*entity);
    if (sa.state == SaInstallState::refused || sa.state == SaInstallState::failed) {
      planInstallation(sa);
    }
    return;
  }
  PathRecord* const path =
      host_.table->cpSaHas(key) ? &pathRecord(host_.table->cpSa(key)) : nullptr;
  const Ptr<Sa> sa = makePtr<Sa>(key, path, ++handOvers_);
  const SaType type = (*entity)->saType();
  sa->inbound = !isOutSa(type);
  sa->fromSaRekey = type == SaType::saRekeyIn || type == SaType::saRekeyOut;
  sa->entityIs(*entity);
  sa->handedOverAt = now();
  sa->sequence = (*entity)->seq();
  sas_.emplace(key, sa);
  ++sasByReqid_.emplace(key.reqid).first;
  if (sa->inbound) {
    inSasBySpi_.emplace(key.spi).first.push_back(sa.get());
  } else if (path != nullptr) {
    path->outSas.push_back(sa.get());
  }
  sa->timer = makePtr<TimerTask>(host_.scheduler, kPriority, "dataPlaneSa");
  sa->timer->handlerIs([this, key] { handleTimer(key); });
  planInstallation(*sa);
  tell([&](DataPlaneObserver& observer) { observer.handleSaHandedOver(sa->report()); });
}

void DataPlane::planInstallation(Sa& sa) {
  sa.state = SaInstallState::pending;
  const InstallPlan plan = plan_ ? plan_(sa.report()) : InstallPlan{.delay = installDelay_};
  sa.installFails = plan.fails;
  sa.reported = plan.reported;
  sa.timer->scheduleTaskDelay(plan.delay);
}

void DataPlane::handleTimer(const SecurityAssociationKey& key) {
  const Ptr<Sa>* const found = sas_.find(key);
  if (found == nullptr) {
    return;
  }
  const Ptr<Sa> sa = *found;
  if (sa->installed()) {
    addFinding(*sa, HardLimitFinding::Limit::time, sa->lifetime->hardAddExpire());
  } else if (sa->installFails) {
    handleNotInstalled(*sa, SaInstallState::failed, "installation failed");
  } else {
    install(*sa);
  }
}

void DataPlane::install(Sa& sa) {
  std::string why = sa.path == nullptr ? "cpSa: names no path" : whyUnusable(*sa.entity);
  if (why.empty()) {
    try {
      sa.transform.emplace(*sa.entity,
                           sa.inbound ? EspTransform::Use::open : EspTransform::Use::seal);
    } catch (const std::invalid_argument& error) {
      why = error.what();
    }
  }
  if (!why.empty()) {
    handleNotInstalled(sa, SaInstallState::refused, std::move(why));
    return;
  }
  sa.cipherChanged = false;
  sa.resumeSequence();
  sa.state = SaInstallState::installed;
  sa.installedAt = now();
  sa.addTime = static_cast<uint64_t>(std::floor(host_.scheduler->clock().utcTime().seconds()));
  if (sa.reported) {
    host_.counterTable->saCounterEntryIs(sa.key) = {.addTime = sa.addTime};
  }
  host_.counterTable->sessionCounterEntryIs(sa.key.reqid);
  for (const auto& [name, vrf] : host_.ipsecStatus->vrfStatus()) {
    if (vrf->lifetimeCfgHas(sa.key)) {
      sa.lifetime = vrf->lifetimeCfg(sa.key);
    }
  }
  if (sa.lifetime && sa.lifetime->hardAddExpire() != 0) {
    sa.timer->scheduleTaskDelay(Duration(static_cast<double>(sa.lifetime->hardAddExpire())));
  }
  tell([&](DataPlaneObserver& observer) { observer.handleSaInstalled(sa.report()); });
}

/// Takes an installed SA out of use; what an SA of the same SPI and key needs is kept.
void DataPlane::uninstall(Sa& sa) {
  sa.rememberSequence();
  sa.transform.reset();
  sa.timer->scheduleTaskDelay(Duration::never());
  host_.counterTable->saCounterEntryDel(sa.key);
}

void DataPlane::handleNotInstalled(Sa& sa, SaInstallState state, std::string why) {
  sa.state = state;
  sa.refusal = std::move(why);
  refusedSas_ += state == SaInstallState::refused ? 1 : 0;
  tell([&](DataPlaneObserver& observer) { observer.handleSaNotInstalled(sa.report()); });
}

void DataPlane::remove(const SecurityAssociationKey& key) {
  const std::optional<Ptr<Sa>> taken = sas_.take(key);
  if (!taken) {
    return;
  }
  const Ptr<Sa>& sa = *taken;
  const SaReport report = sa->report();
  sa->subscription.end();
  if (sa->installed()) {
    uninstall(*sa);
  }
  if (sa->inbound) {
    std::vector<Sa*>& sameSpi = *inSasBySpi_.find(key.spi);
    std::erase(sameSpi, sa.get());
    if (sameSpi.empty()) {
      inSasBySpi_.take(key.spi);
    }
  } else if (sa->path != nullptr) {
    std::erase(sa->path->outSas, sa.get());
  }
  if (--*sasByReqid_.find(key.reqid) == 0) {
    sasByReqid_.take(key.reqid);
    host_.counterTable->sessionCounterEntryDel(key.reqid);
  }
  sa->timer = nullptr;
  tell([&](DataPlaneObserver& observer) { observer.handleSaRemoved(report); });
}

/// Takes changed keys into use. False when they make no usable SA; it is refused then.
bool DataPlane::refreshTransform(Sa& sa) {
  sa.cipherChanged = false;
  std::optional<EspTransform> changed;
  try {
    changed.emplace(*sa.entity, sa.inbound ? EspTransform::Use::open : EspTransform::Use::seal);
  } catch (const std::invalid_argument& error) {
    uninstall(sa);
    handleNotInstalled(sa, SaInstallState::refused, error.what());
    return false;
  }
  const bool sameKey = changed->keyTag() == sa.transform->keyTag();
  if (!sameKey) {
    sa.rememberSequence();
  }
  sa.transform = std::move(changed);
  if (!sameKey) {
    sa.resumeSequence();
  }
  return true;
}

// --- Packets

std::optional<DropReason> DataPlane::sendPacket(const ConnectionKey& path, BytesView inner) {
  PathRecord& record = pathRecord(path);
  ++record.statistics.offered;
  const Ptr<Sa> sa(record.sendingSa());  // Held: whoever gets the packet may delete it.
  if (!sa) {
    const bool refused = std::ranges::any_of(
        record.outSas, [](const Sa* each) { return each->state == SaInstallState::refused; });
    return dropSending(record, refused ? DropReason::badSa : DropReason::noOutbound, nullptr);
  }
  if (sa->cipherChanged && !refreshTransform(*sa)) {
    return dropSending(record, DropReason::badSa, sa.get());
  }
  if (sa->sequence == UINT32_MAX) {
    return dropSending(record, DropReason::noOutbound, sa.get());
  }
  const std::optional<uint8_t> protocol = innerProtocol(inner);
  const std::array<uint8_t, kEspNonceSize> nonce = espNonceBytes(sa->nonceWord);
  const BytesView tfc = sa->nonceWord != 0 ? BytesView(nonce) : BytesView();
  const size_t headers = udpHeadersSize(sa->entity->saddr().family());
  Bytes outer(headers + sa->transform->sealedSize(inner.size() + tfc.size()));
  if (!protocol || outer.size() > 0xFFFF) {
    return dropSending(record, DropReason::malformed, sa.get());
  }
  const std::span<uint8_t> esp = std::span(outer).subspan(headers);
  sa->transform->seal(sa->key.spi, ++sa->sequence, inner, tfc, *protocol, esp);
  writeUdpHeaders(outer,
                  {.src = sa->entity->saddr(),
                   .dst = sa->key.daddr,
                   .srcPort = portOr(sa->entity->encapSrcPort()),
                   .dstPort = portOr(sa->entity->encapDstPort())},
                  UdpChecksum::none);
  ++record.statistics.sent;
  record.statistics.sentBytes += inner.size();
  ++host_.counterTable->sessionCounterEntryIs(sa->key.reqid).pktsOut;
  count(*sa, inner.size());
  if (sa->nonceWord != 0 && !sa->nonceTold) {
    sa->nonceTold = true;
    tell([&](DataPlaneObserver& observer) {
      observer.handleNonceSent(sa->report(), sa->nonceWord);
    });
  }
  tell([&](DataPlaneObserver& observer) {
    if (observer.wantsPackets()) {
      const SaReport report = sa->report();
      observer.handlePacketSent(
          {.sa = &report,
           .sequence = sa->sequence,
           .iv = BytesView(esp).subspan(kEspHeaderSize, sa->transform->ivSize()),
           .outer = outer});
    }
  });
  transmit_(path, std::move(outer));
  return std::nullopt;
}

DataPlane::Received DataPlane::receivePacket(Bytes outer) {
  const std::optional<UdpPacket> udp = readUdpPacket(outer);
  if (!udp) {
    return dropReceived(nullptr, DropReason::malformed, 0, 0);
  }
  const std::span<uint8_t> esp = std::span(outer).subspan(udp->payloadOffset, udp->payloadSize);
  const std::optional<EspHeader> header = readEspHeader(esp);
  if (!header) {
    return dropReceived(nullptr, DropReason::malformed, 0, 0);
  }
  const Ptr<Sa> sa(findInSa(header->spi, udp->ends));
  if (!sa || sa->state == SaInstallState::pending || sa->state == SaInstallState::failed) {
    return dropReceived(sa.get(), DropReason::noSa, header->spi, header->sequence);
  }
  if (!sa->installed() || (sa->cipherChanged && !refreshTransform(*sa))) {
    return dropReceived(sa.get(), DropReason::badSa, header->spi, header->sequence);
  }
  const EspTransform::Opened opened = sa->transform->open(esp);
  if (opened.failure != EspTransform::Failure::none) {
    const DropReason reason = opened.failure == EspTransform::Failure::badIcv
                                  ? DropReason::badIcv
                                  : DropReason::malformed;
    return dropReceived(sa.get(), reason, header->spi, header->sequence);
  }
  const ReplayWindow::Verdict verdict = sa->window.check(header->sequence);
  if (verdict != ReplayWindow::Verdict::fresh) {
    const DropReason reason =
        verdict == ReplayWindow::Verdict::replayed ? DropReason::replayed : DropReason::tooOld;
    return dropReceived(sa.get(), reason, header->spi, header->sequence);
  }
  sa->window.accept(header->sequence);
  const size_t innerSize = ipPacketSize(opened.payload).value_or(0);
  const BytesView inner = opened.payload.first(innerSize);
  if (innerSize == 0 || innerProtocol(inner) != opened.nextHeader) {
    return dropReceived(sa.get(), DropReason::malformed, header->spi, header->sequence);
  }
  return acceptReceived(*sa, inner, opened.payload.subspan(innerSize));
}

DataPlane::Received DataPlane::acceptReceived(Sa& sa, BytesView inner, BytesView tfc) {
  ++sa.path->statistics.received;
  sa.path->statistics.receivedBytes += inner.size();
  ++host_.counterTable->sessionCounterEntryIs(sa.key.reqid).pktsIn;
  count(sa, inner.size());
  if (const std::optional<uint32_t> word = readEspNonce(tfc); word && *word != sa.nonceWord) {
    sa.nonceWord = *word;
    if (sa.reported) {
      host_.counterTable->saCounterEntryIs(sa.key).nonceWord = *word;
    }
    tell([&](DataPlaneObserver& observer) { observer.handleNonceReceived(sa.report(), *word); });
  }
  deliver_(sa.path->key, inner);
  return {.drop = std::nullopt, .path = sa.path->key};
}

/// The in-SA, installed or not, of a packet with this SPI and these outer ends; null when there is
/// none.
DataPlane::Sa* DataPlane::findInSa(uint32_t spi, const UdpEnds& ends) const {
  const std::vector<Sa*>* const sameSpi = inSasBySpi_.find(spi);
  if (sameSpi == nullptr) {
    return nullptr;
  }
  const auto found = std::ranges::find_if(*sameSpi, [&](const Sa* sa) {
    const Ike::SecurityAssociation& entity = *sa->entity;
    // The ports of an SA are the path's, seen from here.
    return sa->key.daddr == ends.dst && portOr(entity.encapSrcPort()) == ends.dstPort &&
           (entity.flowEncap() || portOr(entity.encapDstPort()) == ends.srcPort);
  });
  return found == sameSpi->end() ? nullptr : *found;
}

void DataPlane::count(Sa& sa, size_t innerSize) {
  ++sa.pkts;
  sa.bytes += innerSize;
  if (sa.reported) {
    IpsecCounters::IpsecSACounterEntry& entry = host_.counterTable->saCounterEntryIs(sa.key);
    ++entry.pkts;
    entry.bytes += innerSize;
  }
  checkPacketLimits(sa);
}

void DataPlane::checkPacketLimits(Sa& sa) {
  if (!sa.lifetime) {
    return;
  }
  using enum HardLimitFinding::Limit;
  if (const uint64_t allowed = sa.lifetime->hardPacketLimit(); allowed != 0 && sa.pkts > allowed) {
    addFinding(sa, packets, allowed);
  }
  if (const uint64_t allowed = sa.lifetime->hardByteLimit(); allowed != 0 && sa.bytes > allowed) {
    addFinding(sa, bytes, allowed);
  }
}

void DataPlane::addFinding(Sa& sa, HardLimitFinding::Limit limit, uint64_t allowed) {
  const auto bit = static_cast<uint8_t>(1U << static_cast<unsigned>(limit));
  if ((sa.limitsFound & bit) != 0) {
    return;
  }
  sa.limitsFound = static_cast<uint8_t>(sa.limitsFound | bit);
  const HardLimitFinding finding = {
      .key = sa.key, .path = sa.path->key, .limit = limit, .allowed = allowed, .at = now()};
  findings_.push_back(finding);
  tell([&](DataPlaneObserver& observer) { observer.handleHardLimit(finding); });
}

DropReason DataPlane::dropSending(PathRecord& path, DropReason reason, const Sa* sa) {
  ++path.statistics.sendDrops[reason];
  tell([&](DataPlaneObserver& observer) {
    observer.handleDrop({.reason = reason,
                         .sending = true,
                         .path = path.key,
                         .spi = sa != nullptr ? sa->key.spi : 0});
  });
  return reason;
}

DataPlane::Received DataPlane::dropReceived(const Sa* sa, DropReason reason, uint32_t spi,
                                            uint32_t sequence) {
  PathRecord* const path = sa != nullptr ? sa->path : nullptr;
  ++(path != nullptr ? path->statistics.receiveDrops : unmatchedDrops_)[reason];
  const Received received = {.drop = reason,
                             .path = path != nullptr ? std::optional(path->key) : std::nullopt};
  tell([&](DataPlaneObserver& observer) {
    observer.handleDrop({.reason = reason,
                         .sending = false,
                         .path = received.path,
                         .spi = spi,
                         .sequence = sequence});
  });
  return received;
}

// --- Probes

std::optional<DropReason> DataPlane::sendProbe(const ConnectionKey& path) {
  PathRecord& record = pathRecord(path);
  const Sa* const sa = record.sendingSa();
  if (sa == nullptr) {
    return sendPacket(path, {});  // Counted as any packet that cannot be sent.
  }
  const IpGenAddr peer = sa->entity->remoteIp();
  if (peer.family() == AddressFamily::none || peer.family() != host_.localAddress.family()) {
    ++record.statistics.offered;
    return dropSending(record, DropReason::malformed, sa);
  }
  const Bytes probe = innerPacketBytes({.ends = {.src = host_.localAddress,
                                                 .dst = peer,
                                                 .srcPort = kProbePort,
                                                 .dstPort = kProbePort},
                                        .kind = InnerKind::probe,
                                        .sequence = ++record.probes});
  const std::optional<DropReason> drop = sendPacket(path, probe);
  record.statistics.probesSent += drop ? 0 : 1;
  return drop;
}

void DataPlane::probeIntervalIs(Duration interval) {
  probeInterval_ = interval;
  probeTimer_->scheduleTaskDelay(interval);
}

void DataPlane::probesIs(const ConnectionKey& path, bool on) {
  pathRecord(path).probed = on;
}

void DataPlane::handleProbeTimer() {
  probeTimer_->scheduleTaskDelay(probeInterval_);
  for (const auto& [key, record] : paths_) {
    const bool idle = record->statistics.sent == record->sentBeforeProbe;
    if (idle && record->probed && record->sendingSa() != nullptr) {
      sendProbe(key);
    }
    record->sentBeforeProbe = record->statistics.sent;
  }
}

// --- Reports

void DataPlane::observerAdd(DataPlaneObserver& observer) {
  observers_.push_back(&observer);
}

void DataPlane::observerDel(DataPlaneObserver& observer) {
  std::erase(observers_, &observer);
}

PathStatistics DataPlane::statistics(const ConnectionKey& path) const {
  const Ptr<PathRecord>* const record = paths_.find(path);
  return record == nullptr ? PathStatistics() : (*record)->statistics;
}

PathStatistics DataPlane::statistics() const {
  PathStatistics all;
  for (const auto& [key, record] : paths_) {
    all += record->statistics;
  }
  all.receiveDrops += unmatchedDrops_;
  return all;
}

std::vector<SaReport> DataPlane::sas() const {
  std::vector<SaReport> reports;
  for (const auto& [key, sa] : sas_) {
    reports.push_back(sa->report());
  }
  return reports;
}

std::vector<SaReport> DataPlane::sas(const ConnectionKey& path) const {
  std::vector<SaReport> reports = sas();
  std::erase_if(reports, [&](const SaReport& report) { return report.path != path; });
  return reports;
}

std::optional<SaReport> DataPlane::sa(const SecurityAssociationKey& key) const {
  const Ptr<Sa>* const found = sas_.find(key);
  return found == nullptr ? std::nullopt : std::optional((*found)->report());
}

std::optional<SaReport> DataPlane::sendingSa(const ConnectionKey& path) const {
  const Ptr<PathRecord>* const record = paths_.find(path);
  if (record == nullptr) {
    return std::nullopt;
  }
  const Sa* const sa = (*record)->sendingSa();
  return sa == nullptr ? std::nullopt : std::optional(sa->report());
}

bool DataPlane::holdsInSa(uint32_t spi, const UdpEnds& ends) const {
  const Sa* const sa = findInSa(spi, ends);
  return sa != nullptr && sa->installed();
}

}  // namespace tessel::lab
