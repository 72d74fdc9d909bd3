// AgentSas: the SAs that a machine hands over, as an agent's data path has to have them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "host/agent/AgentEntities.h"
#include "host/entity/Entity.h"
#include "host/entity/KeyedCollection.h"
#include "host/entity/Ptr.h"
#include "host/facility/Export.h"
#include "host/model/Counters.h"
#include "host/model/IkeSa.h"
#include "host/model/Keys.h"

namespace tessel {

/// One SA from its hand-over to its removal.
class TESSEL_API AgentSa final : public RefCounted {
 public:
  AgentSa(const SecurityAssociationKey& saKey, const ConnectionKey& pathKey,
          const Ptr<Ike::SecurityAssociation>& sa);

  const SecurityAssociationKey key;
  const ConnectionKey path;
  const bool inbound;  ///< As its type was when it was handed over.

  /// Its attributes, which may change while it lives.
  const Ike::SecurityAssociation& attributes() const { return *entity_; }
  bool installed() const { return installed_; }
  /// What every packet of an out-SA carries inside its protected part, in host byte order; 0 for
  /// nothing. It is the nonce that the SA had when its rekey began.
  uint32_t nonceWord() const { return nonceWord_; }

 private:
  friend class AgentSas;
  void entityIs(const Ptr<Ike::SecurityAssociation>& sa);
  void handleChange(const Change& change);
  void takeNonce();

  Ptr<Ike::SecurityAssociation> entity_;
  bool installed_ = false;
  uint32_t nonceWord_ = 0;
  Subscription changes_;
};

/// Follows the SA table: keeps the SAs of each path in the order of their hand-over, and their
/// entries in the counter table. What packets are moved with is the data path's own, which asks
/// here for the SA of every packet and reports every packet. To be made before the machine, and to
/// go after it. When it goes, the counter entries go, and nobody is told.
class TESSEL_API AgentSas {
 public:
  /// Called inside the machine's write. `handedOver` has the data path install the SA, at once or
  /// later, and report that by `installedIs`; `removed` has it take the SA away, installed or not.
  using Handler = std::function<void(const Ptr<const AgentSa>& sa)>;

  /// SAs that are in the table already are handed over at once. The entities must outlive it.
  AgentSas(const AgentEntities& entities, Handler handedOver, Handler removed);
  ~AgentSas();
  AgentSas(const AgentSas&) = delete;
  AgentSas& operator=(const AgentSas&) = delete;

  /// The data path has the SA in use: it gets its counter entry with the present time. One that has
  /// been removed meanwhile is left alone, also when another one has its key by now.
  void installedIs(const AgentSa& sa);

  /// The SA that a path sends on: the installed out-SA that was handed over last. Null when there
  /// is none. Like all that is returned here, it is valid until SAs are removed.
  const AgentSa* sendingSa(const ConnectionKey& path) const;
  /// The installed in-SA of a packet's SPI (host byte order) on the path that it came by; null when
  /// there is none.
  const AgentSa* receivingSa(const ConnectionKey& path, uint32_t spi) const;

  /// Counts a packet that was sealed with an SA, or that one has opened (authentic, and no
  /// repetition), with the length in bytes of what is inside. `nonceWord` is the word that was
  /// found in it, in host byte order; 0 for none. An SA that is not installed counts nothing.
  void countSent(const AgentSa& sa, size_t bytes);
  void countReceived(const AgentSa& sa, size_t bytes, uint32_t nonceWord);

 private:
  void handleTable(const Change& change);
  void handOver(const SecurityAssociationKey& key);
  void remove(const SecurityAssociationKey& key);
  void drop(AgentSa& sa);
  std::span<const Ptr<AgentSa>> sasOf(const ConnectionKey& path) const;
  IpsecCounters::IpsecSACounterEntry& count(const AgentSa& sa, size_t bytes);

  const AgentEntities& entities_;
  const Handler handedOver_;
  const Handler removed_;
  KeyedCollection<SecurityAssociationKey, Ptr<AgentSa>> sas_;
  KeyedCollection<ConnectionKey, std::vector<Ptr<AgentSa>>> byPath_;  // In order of hand-over.
  Subscription table_;
};

}  // namespace tessel
