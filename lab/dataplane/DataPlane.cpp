// The data plane's SAs: hand-over, installation, removal, reports.
#include "lab/dataplane/DataPlane.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "host/crypto/RandomSource.h"
#include "host/model/ByteOrder.h"
#include "lab/dataplane/DataPlaneSa.h"

namespace tessel::lab {
namespace {

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

/// What the mutant with repeated IVs draws them from: 0, 1, 2...
class CountingSource final : public RandomSource {
 public:
  bool fill(std::span<uint8_t> out) override {
    std::ranges::fill(out, uint8_t{0});
    put64(out.data(), next_++);
    return true;
  }

 private:
  uint64_t next_ = 0;
};

}  // namespace

DataPlane::DataPlane(Host host, Transmit transmit, Deliver deliver)
    : host_(std::move(host)), transmit_(std::move(transmit)), deliver_(std::move(deliver)) {
  probeTimer_ = makePtr<TimerTask>(host_.scheduler, kDataPlanePriority, "dataPlaneProbe");
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
  sa->timer = makePtr<TimerTask>(host_.scheduler, kDataPlanePriority, "dataPlaneSa");
  sa->timer->handlerIs([this, key] { handleTimer(key); });
  planInstallation(*sa);
  tell([&](DataPlaneObserver& observer) { observer.handleSaHandedOver(sa->report()); });
}

void DataPlane::planInstallation(Sa& sa) {
  sa.state = SaInstallState::pending;
  const InstallPlan plan = plan_ ? plan_(sa.report()) : InstallPlan{.delay = installDelay_};
  sa.installFails = plan.fails;
  sa.reported = plan.reported;
  Duration delay = plan.delay;
  if (mutant_ == Mutant::reportsEarly && sa.inbound) {
    host_.counterTable->saCounterEntryIs(sa.key) = {
        .addTime = static_cast<uint64_t>(host_.scheduler->clock().utcTime().seconds())};
    delay += Duration(10);
  }
  sa.timer->scheduleTaskDelay(delay);
}

bool DataPlane::installationsWait() const {
  for (const auto& [key, sa] : sas_) {
    if (sa->state == SaInstallState::pending) {
      return true;
    }
  }
  return false;
}

void DataPlane::installNext() {
  std::optional<Duration> earliest;  // `sas_` is in the order of hand-over.
  for (const auto& [key, sa] : sas_) {
    if (sa->state == SaInstallState::pending &&
        sa->handedOverAt == earliest.value_or(sa->handedOverAt)) {
      earliest = sa->handedOverAt;
      sa->timer->scheduleTaskDelay(Duration());
    }
  }
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
  if (mutant_ != Mutant::none) {
    misinstall(sa);
  }
  tell([&](DataPlaneObserver& observer) { observer.handleSaInstalled(sa.report()); });
}

/// What mutants do to an SA in the moment of its installation.
void DataPlane::misinstall(Sa& sa) {
  if (mutant_ == Mutant::restartsIv) {
    sa.transform.emplace(*sa.entity, sa.inbound ? EspTransform::Use::open : EspTransform::Use::seal,
                         makePtr<CountingSource>());
  } else if (mutant_ == Mutant::wrongKey && !sa.inbound) {
    Bytes key(sa.entity->cryptoKey().view().begin(), sa.entity->cryptoKey().view().end());
    key[0] ^= 1U;
    const SecretBytes right = sa.entity->cryptoKey();
    sa.entity->cryptoKeyIs(SecretBytes(key));
    sa.transform.emplace(*sa.entity, EspTransform::Use::seal);
    sa.entity->cryptoKeyIs(right);
    sa.cipherChanged = false;
  } else if (mutant_ == Mutant::dropsOldInSa && sa.inbound) {
    for (const auto& [key, other] : sas_) {
      if (other->inbound && other->path == sa.path && other.get() != &sa && other->installed()) {
        uninstall(*other);
        handleNotInstalled(*other, SaInstallState::failed, "replaced");
      }
    }
  }
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

void DataPlane::restartCounters(const ConnectionKey& path) {
  for (const auto& [key, sa] : sas_) {
    if (!sa->installed() || sa->path == nullptr || sa->path->key != path) {
      continue;
    }
    if (sa->reported) {
      IpsecCounters::IpsecSACounterEntry& entry = host_.counterTable->saCounterEntryIs(key);
      entry.pkts = 0;
      entry.bytes = 0;
    }
    host_.counterTable->sessionCounterEntryIs(key.reqid) = {};
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
