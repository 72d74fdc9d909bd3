#include "host/agent/AgentSas.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "host/agent/Esp.h"

namespace tessel {

AgentSa::AgentSa(const SecurityAssociationKey& saKey, const ConnectionKey& pathKey,
                 const Ptr<Ike::SecurityAssociation>& sa)
    : key(saKey), path(pathKey), inbound(!isOutSa(sa->saType())) {
  entityIs(sa);
}

void AgentSa::entityIs(const Ptr<Ike::SecurityAssociation>& sa) {
  entity_ = sa;
  changes_.attach<&AgentSa::handleChange>(*sa, *this);
  takeNonce();
}

void AgentSa::handleChange(const Change& change) {
  if (change.is(Ike::SecurityAssociation::rekeyName)) {
    takeNonce();
  }
}

void AgentSa::takeNonce() {
  nonceWord_ = inbound ? 0 : espNonceOf(*entity_);
}

AgentSas::AgentSas(const AgentEntities& entities, Handler handedOver, Handler removed)
    : entities_(entities), handedOver_(std::move(handedOver)), removed_(std::move(removed)) {
  table_.attach<&AgentSas::handleTable>(*entities_.tesselV1, *this);
  for (const auto& [key, sa] : entities_.tesselV1->sa()) {
    handOver(key);
  }
}

AgentSas::~AgentSas() {
  for (const auto& [key, sa] : sas_) {
    drop(*sa);
    entities_.ipsecCounterTable->sessionCounterEntryDel(key.reqid);
  }
}

void AgentSas::handleTable(const Change& change) {
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

void AgentSas::handOver(const SecurityAssociationKey& key) {
  const Ptr<Ike::SecurityAssociation>* const entity = entities_.tesselV1->sa().find(key);
  if (entity == nullptr || !entities_.tesselV1->cpSaHas(key)) {
    return;  // Removed by an observer that was told before, or of no path.
  }
  if (const Ptr<AgentSa>* const known = sas_.find(key)) {
    (*known)->entityIs(*entity);  // Keeps its place, its counters and its add time.
    return;
  }
  const auto sa = makePtr<AgentSa>(key, entities_.tesselV1->cpSa(key), *entity);
  sas_.emplace(key).first = sa;
  byPath_.emplace(sa->path).first.push_back(sa);
  handedOver_(sa);
}

void AgentSas::remove(const SecurityAssociationKey& key) {
  const std::optional<Ptr<AgentSa>> taken = sas_.take(key);
  if (!taken) {
    return;
  }
  const Ptr<AgentSa>& sa = *taken;
  std::vector<Ptr<AgentSa>>& ofPath = *byPath_.find(sa->path);
  std::erase(ofPath, sa);
  const auto sharesReqid = [&](const auto& other) { return other->key.reqid == key.reqid; };
  if (std::ranges::none_of(ofPath, sharesReqid)) {
    entities_.ipsecCounterTable->sessionCounterEntryDel(key.reqid);
  }
  if (ofPath.empty()) {
    byPath_.take(sa->path);
  }
  drop(*sa);
  removed_(sa);
}

/// Takes an SA out of use; whoever still holds it sees that.
void AgentSas::drop(AgentSa& sa) {
  sa.installed_ = false;
  sa.changes_.end();
  entities_.ipsecCounterTable->saCounterEntryDel(sa.key);
}

void AgentSas::installedIs(const AgentSa& sa) {
  const Ptr<AgentSa>* const current = sas_.find(sa.key);
  if (current == nullptr || current->get() != &sa || sa.installed()) {
    return;
  }
  (*current)->installed_ = true;
  entities_.ipsecCounterTable->saCounterEntryIs(sa.key) = {
      .addTime = static_cast<uint64_t>(std::floor(entities_.timing->clock.utcTime().seconds()))};
  entities_.ipsecCounterTable->sessionCounterEntryIs(sa.key.reqid);
}

std::span<const Ptr<AgentSa>> AgentSas::sasOf(const ConnectionKey& path) const {
  const std::vector<Ptr<AgentSa>>* const found = byPath_.find(path);
  return found != nullptr ? std::span(*found) : std::span<const Ptr<AgentSa>>();
}

const AgentSa* AgentSas::sendingSa(const ConnectionKey& path) const {
  const auto all = sasOf(path);
  const auto found = std::find_if(all.rbegin(), all.rend(), [](const Ptr<AgentSa>& sa) {
    return !sa->inbound && sa->installed();
  });
  return found != all.rend() ? found->get() : nullptr;
}

const AgentSa* AgentSas::receivingSa(const ConnectionKey& path, uint32_t spi) const {
  const auto all = sasOf(path);
  const auto found = std::ranges::find_if(all, [&](const Ptr<AgentSa>& sa) {
    return sa->inbound && sa->installed() && sa->key.spi == spi;
  });
  return found != all.end() ? found->get() : nullptr;
}

void AgentSas::countSent(const AgentSa& sa, size_t bytes) {
  if (sa.installed()) {
    count(sa, bytes);
    ++entities_.ipsecCounterTable->sessionCounterEntryIs(sa.key.reqid).pktsOut;
  }
}

void AgentSas::countReceived(const AgentSa& sa, size_t bytes, uint32_t nonceWord) {
  if (sa.installed()) {
    IpsecCounters::IpsecSACounterEntry& entry = count(sa, bytes);
    entry.nonceWord = nonceWord != 0 ? nonceWord : entry.nonceWord;
    ++entities_.ipsecCounterTable->sessionCounterEntryIs(sa.key.reqid).pktsIn;
  }
}

IpsecCounters::IpsecSACounterEntry& AgentSas::count(const AgentSa& sa, size_t bytes) {
  IpsecCounters::IpsecSACounterEntry& entry = entities_.ipsecCounterTable->saCounterEntryIs(sa.key);
  ++entry.pkts;
  entry.bytes += bytes;
  return entry;
}

}  // namespace tessel
