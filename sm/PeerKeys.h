// PeerKeys: intake and classification of the peers' published keys, and the first DH exchange.
#pragma once

#include <cstdint>
#include <optional>

#include "host/entity/KeyedCollection.h"
#include "host/model/Bytes.h"
#include "host/model/Controller.h"
#include "host/model/KeyGenerations.h"
#include "host/model/Keys.h"

namespace tessel::Ipsec {

class TesselV1Sm;

/// Turns changes of the peer key directory into work, and keeps the generations of each peer that
/// SAs may still use. Nothing runs before the local key is valid.
class PeerKeys {
 public:
  explicit PeerKeys(TesselV1Sm& sm) : sm_(sm) {}

  /// Queues a peer whose directory entry changed.
  void handleIpsecPeerKeyInfo(const IpGenAddr& peer, bool scheduleTask);
  /// Queues every peer of the directory.
  void handlePeerKeyInfo();
  /// Queues every peer of the directory that has no state yet.
  void handlePendingPeerKeyInfo();
  void peerKeyBacklogProcessElem(const IpGenAddr& peer);

  /// Classifies a record that is not empty: first key, same key, restart, or DH rekey.
  void doCreatePeerKeyInfo(const IpGenAddr& peer, const Controller::PeerKeyInfo& info);
  void doDeletePeerKeyInfo(const IpGenAddr& peer);

  /// Derives the crypto of a peer's first key and establishes its paths.
  void doFirstDhExchange(const IpGenAddr& peer);
  bool initialDhCompleted(const IpGenAddr& peer) const { return initialDhCompleted_.has(peer); }
  void initialDhCompletedIs(const IpGenAddr& peer) { initialDhCompleted_.insert(peer); }
  void initialDhCompletedDel(const IpGenAddr& peer) { initialDhCompleted_.erase(peer); }
  void initialDhCompletedDelAll() { initialDhCompleted_.clear(); }

  /// The stored generations of each peer, filed under its address in the directory.
  const KeyedCollection<IpGenAddr, Ptr<TesselPeerKeyInfoList>>& localPeerKeyInfoList() const {
    return localPeerKeyInfoList_;
  }
  Ptr<TesselPeerKeyInfoList> localPeerKeyInfoList(const IpGenAddr& peer) const;
  Ptr<TesselPeerKeyInfoList> localPeerKeyInfoListIs(const IpGenAddr& peer);
  void localPeerKeyInfoListDel(const IpGenAddr& peer) { localPeerKeyInfoList_.take(peer); }
  void localPeerKeyInfoListDelAll() { localPeerKeyInfoList_.clear(); }
  void addLocalPeerKeyInfo(const IpGenAddr& peer, const Controller::PeerKeyInfo& info);
  void deleteLocalPeerKeyInfo(const IpGenAddr& peer);

  /// The stored generation that a pair names, or null.
  Ptr<TesselPeerKeyInfo> getPeerKeyInfo(const IpGenAddr& peer, const DhKeyPair& dhKeyPair) const;
  /// Whether the pair's peer generation is the one in the directory (0 without an entry).
  bool isCurrentPeerKey(const IpGenAddr& peer, const DhKeyPair& dhKeyPair) const;
  /// Whether the directory's record has the number of a stored generation but another nonce: the
  /// peer has a new key, which waits in the queue for its first exchange.
  bool startsOver(const IpGenAddr& peer) const;
  /// Absent without a list, 0 for an empty one.
  std::optional<uint64_t> getNewestPeerRekeyCount(const IpGenAddr& peer) const;

  /// The role that this router had towards a peer whose record vanished, if the peer's record now
  /// continues where it left off: the same counter and nonce, or a higher counter.
  /// A record that does not makes the role forgotten: the peer has started over.
  std::optional<bool> rememberedRole(const IpGenAddr& peer);
  /// Forgets all remembered roles: a new local key decides them anew.
  void forgetRoles() { rememberedRoles_.clear(); }

 private:
  struct Role {
    bool initiator = false;
    uint64_t rekeyCounter = 0;
    Bytes nonce;
  };

  /// A local DH rekey goes on that queued its peers before this one was there.
  void joinLocalDhRekey(const IpGenAddr& peer);
  void rememberRole(const IpGenAddr& peer);

  TesselV1Sm& sm_;
  KeyedCollection<IpGenAddr, Ptr<TesselPeerKeyInfoList>> localPeerKeyInfoList_;
  KeySet<IpGenAddr> initialDhCompleted_;
  KeyedCollection<IpGenAddr, Role> rememberedRoles_;  // The oldest first.
};

}  // namespace tessel::Ipsec
