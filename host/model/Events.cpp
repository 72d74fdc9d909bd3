#include "host/model/Events.h"

#include <algorithm>

#include "host/model/AgentTables.h"

namespace tessel {

namespace {

template <class Key, class T, class... Args>
const Ptr<T>& findOrMake(KeyedCollection<Key, Ptr<T>>& logs, const Key& key, Args&&... args) {
  const auto [log, made] = logs.emplace(key);
  if (made) {
    log = makePtr<T>(std::forward<Args>(args)...);
  }
  return log;
}

}  // namespace

StoredEvent EventSlots::read(uint32_t slot) const {
  const Slot& kept = slots_[slot];
  StoredEvent event{kept.time, kept.first, kept.second, kept.name, kept.pathState};
  if (upper_) {
    event.first |= uint64_t{(*upper_)[slot].first} << 32U;
    event.second |= uint64_t{(*upper_)[slot].second} << 32U;
  }
  return event;
}

void EventSlots::write(uint32_t slot, const StoredEvent& event) {
  const UpperHalves upper{static_cast<uint32_t>(event.first >> 32U),
                          static_cast<uint32_t>(event.second >> 32U)};
  if (slot >= size()) {
    slots_.resize(slot + 1);
    if (upper_) {
      upper_->resize(slot + 1);
    }
  }
  if (!upper_ && (upper.first | upper.second) != 0) {
    upper_ = std::make_unique<std::vector<UpperHalves>>(size());
  }
  slots_[slot] = {event.time, static_cast<uint32_t>(event.first),
                  static_cast<uint32_t>(event.second), event.name, event.pathState};
  if (upper_) {
    (*upper_)[slot] = upper;
  }
}

StoredEvent EventForm<LocalEvent>::store(const LocalEvent& event) {
  return {event.time.seconds(), event.number, 0, event.eventName.number(), 0};
}

LocalEvent EventForm<LocalEvent>::read(const Key&, const StoredEvent& stored) {
  return {Duration(stored.time), EventName::fromNumber(stored.name), stored.first};
}

StoredEvent EventForm<PeerEvent>::store(const PeerEvent& event) {
  return {event.time.seconds(), event.dhKeyPair.localRekeyCount, event.dhKeyPair.peerRekeyCount,
          event.eventName.number(), 0};
}

PeerEvent EventForm<PeerEvent>::read(const Key& key, const StoredEvent& stored) {
  return {Duration(stored.time),
          EventName::fromNumber(stored.name),
          key,
          {stored.first, stored.second}};
}

StoredEvent EventForm<PathEvent>::store(const PathEvent& event) {
  return {event.time.seconds(), event.dhKeyPair.localRekeyCount, event.dhKeyPair.peerRekeyCount,
          event.eventName.number(), static_cast<uint8_t>(event.pathState)};
}

PathEvent EventForm<PathEvent>::read(const Key& key, const StoredEvent& stored) {
  return {Duration(stored.time),
          EventName::fromNumber(stored.name),
          key,
          static_cast<DynamicPathState>(stored.pathState),
          {stored.first, stored.second}};
}

StoredEvent EventForm<SaEvent>::store(const SaEvent& event) {
  return {event.time.seconds(), event.dhKeyPair.localRekeyCount, event.dhKeyPair.peerRekeyCount,
          event.eventName.number(), static_cast<uint8_t>(event.pathState)};
}

SaEvent EventForm<SaEvent>::read(const Key& key, const StoredEvent& stored) {
  return {Duration(stored.time),
          EventName::fromNumber(stored.name),
          key.spi,
          static_cast<DynamicPathState>(stored.pathState),
          {stored.first, stored.second}};
}

PathNameMapping::~PathNameMapping() {
  for (const auto& [key, log] : saEvents_) {
    log->mapping_ = nullptr;
  }
}

void PathNameMapping::saEventsIs(const Ptr<SaEventEntry>& log) {
  if (log->mapping_ == this) {
    return;
  }
  if (log->mapping_ != nullptr) {
    log->mapping_->saEventsDel(log->sakey());
  }
  saEvents_.emplace(log->sakey()).first = log;
  log->mapping_ = this;
}

void PathNameMapping::saEventsDel(const SecurityAssociationKey& key) {
  if (const std::optional<Ptr<SaEventEntry>> log = saEvents_.take(key)) {
    (*log)->mapping_ = nullptr;
  }
}

const Ptr<LocalEventLog>& RecordEvents::localEventsIs() {
  if (!local_) {
    local_ = makePtr<LocalEventLog>(LocalEventLog::Key(), maxEventRecord_);
  }
  return local_;
}

const Ptr<PeerEventEntry>& RecordEvents::peerEventsIs(const IpGenAddr& peer) {
  return findOrMake(peer_, peer, peer, maxEventRecord_);
}

const Ptr<PathEventEntry>& RecordEvents::pathEventsIs(const ConnectionKey& key) {
  return findOrMake(path_, key, key, maxEventRecord_);
}

const Ptr<SaEventEntry>& RecordEvents::saEventsIs(const SecurityAssociationKey& key) {
  return findOrMake(sa_, key, key, maxEventRecord_);
}

const Ptr<PathNameMapping>& RecordEvents::pathNameMappingIs(const std::string& pathName) {
  return findOrMake(names_, pathName);
}

void RecordEvents::follow(const Ptr<IpsecCommon::TesselV1>& tesselV1) {
  followed_ = tesselV1;
  sas_.attach<&RecordEvents::handleSa>(*tesselV1, *this);
}

void RecordEvents::handleSa(const Change& change) {
  const auto* key = change.memberOf(IpsecCommon::TesselV1::saName);
  if (key == nullptr || !followed_->cpSaHas(*key)) {
    return;
  }
  const ConnectionKey& path = followed_->cpSa(*key);
  if (change.kind() != Change::Kind::removed) {
    if (std::vector<SecurityAssociationKey>* gone = gone_.find(path)) {
      std::erase(*gone, *key);  // The SA is back, and its log goes on.
    }
    return;
  }
  std::vector<SecurityAssociationKey>& gone = gone_.emplace(path).first;
  gone.push_back(*key);
  // The last one stays until the next one goes: the event of its deletion is recorded after this,
  // and would make a log that nothing retires.
  while (gone.size() > std::max(maxGoneSaLogs_, 1U)) {
    if (const std::optional<Ptr<SaEventEntry>> log = sa_.take(gone.front());
        log && (*log)->mapping() != nullptr) {
      (*log)->mapping()->saEventsDel(gone.front());
    }
    gone.erase(gone.begin());
  }
}

template class KeyedCollection<SecurityAssociationKey, Ptr<SaEventEntry>>;
template class KeyedCollection<IpGenAddr, Ptr<PeerEventEntry>>;
template class KeyedCollection<ConnectionKey, Ptr<PathEventEntry>>;
template class KeyedCollection<std::string, Ptr<PathNameMapping>>;

}  // namespace tessel
