// Paths: the life of a path, from its configuration to its destruction.
#pragma once

#include <cstdint>

#include "host/entity/KeyedCollection.h"
#include "host/model/Events.h"
#include "host/model/IkePath.h"
#include "host/model/IkeStatus.h"
#include "host/model/Keys.h"
#include "sm/KeptMember.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::Ipsec {

class TesselV1Sm;

/// Mirrors configured paths into state and SAs, and is the one writer of `pathState`.
class Paths {
 public:
  explicit Paths(TesselV1Sm& sm);
  ~Paths();
  Paths(const Paths&) = delete;
  Paths& operator=(const Paths&) = delete;

  /// Reconciles one path with its configuration.
  void handlePath(const ConnectionKey& key);
  /// Builds the path's state and SAs; stops, with nothing changed, when something is missing.
  void establishPath(const ConnectionKey& key);
  /// Tears the path down, at whichever peer it stands.
  void destroyPath(const ConnectionKey& key);
  /// Tears down this very state of a path.
  void destroyPath(const Ptr<Ike::PathConnState>& path);
  /// What the path queue does with a key.
  void pathBacklogProcessElem(const ConnectionKey& key);

  /// The only writer of `pathState`. Restarts the sanity expiry, also when the state stays.
  void setPathState(const Ptr<Ike::PathConnState>& path, DynamicPathState newState);
  /// The path's state, or null: by the peer of its status, or without a status where it stands.
  Ptr<Ike::PathConnState> getPathConnState(const ConnectionKey& key) const;
  /// Paths of all peers.
  uint32_t totalPaths() const;

  /// The rekey machine of each path. `rekeySm(key)` is null when there is none.
  const KeyedCollection<ConnectionKey, Ptr<RekeySm>>& rekeySm() const { return rekeySm_; }
  const Ptr<RekeySm>& rekeySm(const ConnectionKey& key) const;
  const Ptr<RekeySm>& rekeySmIs(TesselV1Sm* sm, const ConnectionKey& key,
                                const Ptr<RecordEvents>& recordEvents);
  void rekeySmDel(const ConnectionKey& key);
  void rekeySmDelAll();
  void rekeySmNotificationActiveIs(bool active);

  /// Who watches an SA, and what of it. The sweeps ask for it once per SA: it names all that they
  /// look at itself, so that nothing in between has to be fetched from memory.
  struct WatchedSa {
    RekeySm* rekeySm = nullptr;
    Ike::PathConnState* path = nullptr;
    Ike::PathConnSaInfo* saInfo = nullptr;
    /// The path's connection status.
    KeptMember<const Ike::IpsecConnectionStatusInfo> connection;
  };
  /// Null for an SA that no path's rekey machine watches. One that is watched is one of the path's,
  /// and lies in the table of SAs as long as it is.
  const WatchedSa* watchedSa(const SecurityAssociationKey& key) const {
    return watchedSa_.find(key);
  }
  void watchedSaIs(const SecurityAssociationKey& key, const WatchedSa& watched) {
    watchedSa_.emplace(key).first = watched;
  }
  /// Unless the SA is watched otherwise by now.
  void watchedSaDel(const SecurityAssociationKey& key, const RekeySm* rekeySm,
                    const Ike::PathConnSaInfo* saInfo) {
    if (const WatchedSa* found = watchedSa(key);
        found != nullptr && found->rekeySm == rekeySm && found->saInfo == saInfo) {
      watchedSa_.take(key);
    }
  }
  /// The path's state where it stands: what `getPathConnState` finds by the machine's path.
  Ptr<Ike::PathConnState> getPathConnState(const RekeySm& rekeySm) const;

 private:
  Ptr<Ike::PathConnState> findAtAnyPeer(const ConnectionKey& key) const;

  TesselV1Sm& sm_;
  // In the order in which the SAs were made, as the table that the sweeps walk.
  KeyedCollection<SecurityAssociationKey, WatchedSa> watchedSa_;
  KeyedCollection<ConnectionKey, Ptr<RekeySm>> rekeySm_;
};

}  // namespace tessel::Ipsec
