#include "lab/check/EntityChecks.h"

#include <utility>

#include "lab/controller/Controllers.h"
#include "sm/LocalKey.h"
#include "sm/Paths.h"
#include "sm/PeerKeys.h"

namespace tessel::lab {
namespace {

bool isComplete(const Controller::LocalKeyDir& dir) {
  return !dir.dhKey().empty() && dir.dhKey().size() == dir.dhKeyLen() && !dir.nonce().empty() &&
         dir.nonce().size() == dir.nonceLen();
}

/// Whether all of it is of one generation, and that is one that the router has.
bool isOfOneGeneration(const Controller::LocalKeyDir& dir, const Ipsec::TesselV1Sm& machine) {
  const Ptr<LocalKeyInfo> generation = machine.localKey().localKeyInfo(dir.rekeyCounter());
  return generation && dir.dhKey() == generation->publicKey && dir.nonce() == generation->nonce &&
         dir.dhGroup() == generation->dhGroup && dir.encryptAlgo() == generation->encryptAlgo &&
         dir.hashAlgo() == generation->hashAlgo;
}

}  // namespace

EntityChecks::EntityChecks(const Router& router, SendWindows& windows, Findings& findings)
    : router_(router), windows_(windows), findings_(findings) {
  const RouterEntities& entities = router.entities();
  localKeyDir_.attach<&EntityChecks::handleLocalKeyDir>(*entities.ipsecLocalKeyDir, *this);
  pathConfig_.attach<&EntityChecks::handlePathConfig>(*entities.ipsecDpsPathConfig, *this);
  pathStatus_.attach<&EntityChecks::handlePathStatus>(*entities.ipsecPathStatusDir, *this);
  peerKeyDir_.attach<&EntityChecks::handlePeerKeyDir>(*entities.ipsecPeerKeyDir, *this);
}

// The published record.

void EntityChecks::handleLocalKeyDir(const Change& change) {
  if (!change.is(Controller::LocalKeyDir::updateVersionName)) {
    return;
  }
  const Controller::LocalKeyDir& dir = *router_.entities().ipsecLocalKeyDir;
  wholeRecord_ = readRecord(dir);
  if (!wholeRecord_) {
    return;
  }
  windows_.handlePublished(router_, dir.rekeyCounter());
  // The first record is written while the machine is made: it cannot be asked yet.
  const Ptr<Ipsec::TesselV1Sm>& machine = router_.running().machine;
  const bool whole = isComplete(dir) && (!machine || isOfOneGeneration(dir, *machine)) &&
                     dir.originatorId() == router_.entities().ipsecDpsPathConfig->routerId();
  if (findings_.violated(Invariant::recordsWhole, whole)) {
    findings_.add(Invariant::recordsWhole, {.routers = {router_.name()}},
                  "version " + std::to_string(dir.updateVersion()) + ", key " +
                      std::to_string(dir.rekeyCounter()) + " is not one whole generation");
  }
}

void EntityChecks::handlePublished(const Controller::PeerKeyInfo& record) {
  if (findings_.violated(Invariant::recordsWhole, wholeRecord_ && record == *wholeRecord_)) {
    findings_.add(Invariant::recordsWhole, {.routers = {router_.name()}},
                  "the controllers have key " + std::to_string(record.rekeyCounter) +
                      " otherwise than it was published");
  }
}

// Removals.

EntityChecks::Tables EntityChecks::tablesWithout(const ConnectionKey& path) const {
  Tables tables;
  for (const auto& [key, sa] : router_.entities().tesselV1->sa()) {
    if (router_.entities().tesselV1->cpSa(key) != path) {
      tables.handedOver.push_back(key);
    }
  }
  for (const auto& [peer, state] : router_.entities().ipsecStatus->ipsecPeerConnectionState()) {
    tables.cryptoInfos[peer] = state->dhCryptoInfo().size();
    for (const auto& [key, entity] : state->pathConnState()) {
      if (key != path) {
        tables.paths[key] = entity->pathConnSaInfo().keys();
      }
    }
  }
  return tables;
}

/// Whether nothing of a path is left.
bool EntityChecks::isGone(const ConnectionKey& path) const {
  for (const auto& [sa, of] : router_.entities().tesselV1->cpSa()) {
    if (of == path) {
      return false;
    }
  }
  const Ptr<Ipsec::TesselV1Sm>& machine = router_.running().machine;
  return !machine || !machine->paths().rekeySm(path);
}

// The path layer removes a path's configuration first and its status last, in one job, and the
// machine drops the path in between.

void EntityChecks::handlePathConfig(const Change& change) {
  const ConnectionKey* const path = change.memberOf(Path::PathConnConfig::ipsecPathConfigName);
  if (path != nullptr && change.kind() == Change::Kind::removed) {
    beforePathRemoval_[*path] = tablesWithout(*path);
  }
}

void EntityChecks::handlePathStatus(const Change& change) {
  const ConnectionKey* const path = change.memberOf(Path::PathStatusDir::ipsecPathStatusName);
  if (path == nullptr || change.kind() != Change::Kind::removed) {
    return;
  }
  const auto before = beforePathRemoval_.extract(*path);
  if (before.empty()) {
    return;
  }
  const RouterPath* const named = router_.path(*path);
  const Place place = {.routers = {router_.name()}, .path = named ? named->end.name : ""};
  if (findings_.violated(Invariant::removalTakesItsOwn, tablesWithout(*path) == before.mapped())) {
    findings_.add(Invariant::removalTakesItsOwn, place,
                  "the removal of the path changed other paths or their records");
  }
  if (findings_.violated(Invariant::removalTakesItsOwn, isGone(*path))) {
    findings_.add(Invariant::removalTakesItsOwn, place, "something of the removed path is left");
  }
}

void EntityChecks::handlePeerKeyDir(const Change& change) {
  const IpGenAddr* const peer = change.memberOf(Controller::PeerKeyDir::ipsecPeerKeyInfoName);
  if (peer == nullptr) {
    return;
  }
  for (RemovedPeer& removed : removedPeers_) {
    removed.others.erase(*peer);  // Its paths may change for what happens to its own record.
  }
  if (change.kind() != Change::Kind::removed) {
    return;
  }
  RemovedPeer removed{.peer = *peer,
                      .version = router_.entities().ipsecLocalKeyDir->updateVersion()};
  for (const auto& [other, state] : router_.entities().ipsecStatus->ipsecPeerConnectionState()) {
    if (other != *peer && isTakenUp(other)) {
      removed.others[other] = state->pathConnState().keys();
    }
  }
  removedPeers_.push_back(std::move(removed));
}

/// Whether the machine has worked on the peer's record as it is: one that waits can cost the peer's
/// paths by itself.
bool EntityChecks::isTakenUp(const IpGenAddr& peer) const {
  const Controller::PeerKeyInfo& record =
      router_.entities().ipsecPeerKeyDir->ipsecPeerKeyInfo(peer);
  const Ptr<TesselPeerKeyInfoList> list =
      router_.running().machine->peerKeys().localPeerKeyInfoList(peer);
  const Ptr<TesselPeerKeyInfo> stored = list ? list->peerKeyInfo(record.rekeyCounter) : nullptr;
  return stored && stored->nonce == record.nonce && stored->dhKey == record.dhKey;
}

void EntityChecks::look() {
  if (router_.running().scheduler->paused()) {
    return;  // What is queued waits.
  }
  for (const RemovedPeer& removed : std::exchange(removedPeers_, {})) {
    judge(removed);
  }
}

/// A path of another peer may have been rebuilt meanwhile, but if nothing that it needs was
/// changed, it is there.
void EntityChecks::judge(const RemovedPeer& removed) {
  const RouterEntities& entities = router_.entities();
  const Place place = {.routers = {router_.name()}, .detail = "peer " + removed.peer.stringValue()};
  if (!entities.ipsecPeerKeyDir->ipsecPeerKeyInfoHas(removed.peer) &&
      findings_.violated(Invariant::removalTakesItsOwn,
                         !entities.ipsecStatus->ipsecPeerConnectionStateHas(removed.peer))) {
    findings_.add(Invariant::removalTakesItsOwn, place, "the removed peer is still listed");
  }
  if (entities.ipsecLocalKeyDir->updateVersion() != removed.version) {
    return;
  }
  for (const auto& [peer, paths] : removed.others) {
    const Ptr<Ike::PeerConnectionState>& state =
        entities.ipsecStatus->ipsecPeerConnectionState(peer);
    if (state && state->peerConnStatus() != PeerConnStatus::ready) {
      continue;  // It lost its paths for what its own record says.
    }
    for (const ConnectionKey& key : paths) {
      const RouterPath* const path = router_.path(key);
      if (path == nullptr || !path->wanted() || !path->end.condition.enabled ||
          path->end.peerAddr != peer) {
        continue;
      }
      if (findings_.violated(Invariant::removalTakesItsOwn,
                             state && state->pathConnStateHas(key))) {
        findings_.add(Invariant::removalTakesItsOwn, place,
                      "path " + path->end.name + " of another peer went with it");
      }
    }
  }
}

}  // namespace tessel::lab
