// IpsecCounters: the data path's packet and byte counters.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "host/entity/KeyedCollection.h"
#include "host/entity/Ptr.h"
#include "host/facility/Export.h"
#include "host/model/Keys.h"

namespace tessel::IpsecCounters {

/// Counters of one SA. An SA has an entry only while it is installed.
struct TESSEL_API IpsecSACounterEntry {
  uint32_t nonceWord = 0;  ///< Last nonce word received on the SA, host byte order; 0 = none.
  uint64_t addTime = 0;    ///< When it was installed, UTC seconds.
  uint64_t pkts = 0;
  uint64_t bytes = 0;
  friend bool operator==(const IpsecSACounterEntry&, const IpsecSACounterEntry&) = default;
};

/// Counters of all SAs under one request id.
struct TESSEL_API IpsecSessionCounterEntry {
  uint64_t pktsIn = 0;   ///< Received.
  uint64_t pktsOut = 0;  ///< Sent.
  friend bool operator==(const IpsecSessionCounterEntry&,
                         const IpsecSessionCounterEntry&) = default;
};

/// Raised by reading an entry that is corrupt.
class TESSEL_API CorruptionException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The shared counter table. The machine reads it; the data path writes it with every packet, so it
/// notifies nobody.
class TESSEL_API IpsecCounterTable final : public RefCounted {
 public:
  /// The entry of an SA; the empty entry when there is none. Throws CorruptionException.
  const IpsecSACounterEntry& saCounterEntry(const SecurityAssociationKey& key) const;
  /// The entry of a request id; the empty entry when there is none. Throws CorruptionException.
  const IpsecSessionCounterEntry& sessionCounterEntry(uint32_t reqid) const;

  /// For the data path: finds or makes an entry. The reference holds until any entry is deleted.
  IpsecSACounterEntry& saCounterEntryIs(const SecurityAssociationKey& key);
  IpsecSessionCounterEntry& sessionCounterEntryIs(uint32_t reqid);
  void saCounterEntryDel(const SecurityAssociationKey& key) { sa_.take(key); }
  void sessionCounterEntryDel(uint32_t reqid) { session_.take(reqid); }
  size_t saCounterEntries() const { return sa_.size(); }
  size_t sessionCounterEntries() const { return session_.size(); }

  /// Marks an entry as corrupt, or sound again: reading it throws while it is corrupt.
  void saCounterEntryCorruptIs(const SecurityAssociationKey& key, bool corrupt);
  void sessionCounterEntryCorruptIs(uint32_t reqid, bool corrupt);

  /// The corruption handler: whoever catches the exception passes its message on.
  void doCorruptionDetected(const std::string& message);
  uint32_t corruptionsDetected() const { return corruptionsDetected_; }
  const std::string& lastCorruption() const { return lastCorruption_; }

 private:
  KeyedCollection<SecurityAssociationKey, IpsecSACounterEntry> sa_;
  KeyedCollection<uint32_t, IpsecSessionCounterEntry> session_;
  KeySet<SecurityAssociationKey> corruptSa_;
  KeySet<uint32_t> corruptSession_;
  uint32_t corruptionsDetected_ = 0;
  std::string lastCorruption_;
};

}  // namespace tessel::IpsecCounters
