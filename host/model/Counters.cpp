#include "host/model/Counters.h"

namespace tessel::IpsecCounters {

const IpsecSACounterEntry& IpsecCounterTable::saCounterEntry(
    const SecurityAssociationKey& key) const {
  static const IpsecSACounterEntry none;
  if (!corruptSa_.empty() && corruptSa_.has(key)) {
    throw CorruptionException("corrupt SA counter entry: " + stringValue(key));
  }
  const IpsecSACounterEntry* found = sa_.find(key);
  return found == nullptr ? none : *found;
}

const IpsecSessionCounterEntry& IpsecCounterTable::sessionCounterEntry(uint32_t reqid) const {
  static const IpsecSessionCounterEntry none;
  if (!corruptSession_.empty() && corruptSession_.has(reqid)) {
    throw CorruptionException("corrupt session counter entry: reqid " + std::to_string(reqid));
  }
  const IpsecSessionCounterEntry* found = session_.find(reqid);
  return found == nullptr ? none : *found;
}

IpsecSACounterEntry& IpsecCounterTable::saCounterEntryIs(const SecurityAssociationKey& key) {
  return sa_.emplace(key).first;
}

IpsecSessionCounterEntry& IpsecCounterTable::sessionCounterEntryIs(uint32_t reqid) {
  return session_.emplace(reqid).first;
}

void IpsecCounterTable::saCounterEntryCorruptIs(const SecurityAssociationKey& key, bool corrupt) {
  corrupt ? corruptSa_.insert(key) : corruptSa_.erase(key);
}

void IpsecCounterTable::sessionCounterEntryCorruptIs(uint32_t reqid, bool corrupt) {
  corrupt ? corruptSession_.insert(reqid) : corruptSession_.erase(reqid);
}

void IpsecCounterTable::doCorruptionDetected(const std::string& message) {
  ++corruptionsDetected_;
  lastCorruption_ = message;
}

}  // namespace tessel::IpsecCounters
