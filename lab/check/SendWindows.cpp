#include "lab/check/SendWindows.h"

#include <algorithm>

#include "lab/run/Lab.h"

namespace tessel::lab {
namespace {

/// A DH rekey waits that long for a path's in-SA.
constexpr Duration kMaxPending = seconds(60);

/// The path as the router's agent lists it at the peer that the path layer names; null when not.
Ptr<Ike::PeerConnectionState> peerOf(const MeshView::End& end) {
  return end.router->entities().ipsecStatus->ipsecPeerConnectionState(end.path->end.peerAddr);
}

Ptr<Ike::PathConnState> pathOf(const MeshView::End& end) {
  const Ptr<Ike::PeerConnectionState> peer = end.router->up() ? peerOf(end) : nullptr;
  return peer ? peer->pathConnState(end.path->end.key) : nullptr;
}

bool isUsable(const PathCondition& condition) {
  return condition.up && condition.allowed && condition.enabled &&
         (condition.connection == Ike::ConnectionState::established ||
          condition.connection == Ike::ConnectionState::connected);
}

/// Whether the engine can see that an SA is installed: an entry that is corrupt reads as none.
bool isReported(const IpsecCounters::IpsecCounterTable& table, const SecurityAssociationKey& key) {
  try {
    return table.saCounterEntry(key).addTime != 0;
  } catch (const IpsecCounters::CorruptionException&) {
    return false;
  }
}

}  // namespace

SendWindows::SendWindows(const Lab& lab, const MeshView& mesh)
    : lab_(lab),
      mesh_(mesh),
      windows_(mesh.paths()),
      rekeyInitiated_(lab.routers().size(), Duration::never()) {}

void SendWindows::handleAllGone(EndId id) {
  Window& window = windows_[id.path];
  window.open = true;
  window.since = lab_.now();
  window.inSaRekey[1 - id.end] = isInSaRekey(id.other());
  window.leftBehind = {};
}

void SendWindows::handleInstalled(EndId id) {
  closeIfMatching(id.path);
  std::optional<LeftBehind>& left = windows_[id.path].leftBehind[id.end];
  if (left && hasInSa(id, left->newest)) {
    left.reset();
  }
}

void SendWindows::handleMarkedForRebuild(EndId id) {
  Window& window = windows_[id.path];
  window.open = true;
  window.since = lab_.now();
  window.marked[id.end] = true;
}

void SendWindows::handleRekeyInitiated(const Router& router) {
  rekeyInitiated_[router.index()] = lab_.now();
}

void SendWindows::handlePublished(const Router& router, uint64_t generation) {
  for (const EndId id : mesh_.endsOf(router)) {
    if (!mesh_.end(id).sas.empty() && !hasInSa(id, generation) && !couldTakePart(id)) {
      std::optional<LeftBehind>& left = windows_[id.path].leftBehind[id.end];
      left = {.first = left ? left->first : generation, .newest = generation, .since = lab_.now()};
    }
  }
}

void SendWindows::look() {
  for (size_t path = 0; path < windows_.size(); ++path) {
    openIfBlind(path);
    if (closed(path)) {
      continue;
    }
    closeIfMatching(path);
    if (!isImpeded(path)) {
      continue;
    }
    windows_[path].since = lab_.now();
    for (std::optional<LeftBehind>& left : windows_[path].leftBehind) {
      if (left) {
        left->since = lab_.now();
      }
    }
  }
}

std::string SendWindows::whyNot(EndId from, const SaReport& sa) {
  Window& window = windows_[from.path];
  openIfBlind(from.path);
  std::string why = "no window is open";
  if (window.open) {
    if (!isOverdue(from.path, window.since)) {
      return {};
    }
    why = "the path has not come back since " + stringValue(window.since);
  }
  if (std::optional<LeftBehind>& left = window.leftBehind[1 - from.end]) {
    const Ptr<Ike::SecurityAssociation>* const entity =
        mesh_.end(from).router->entities().tesselV1->sa().find(sa.key);
    const uint64_t generation = entity == nullptr ? 0 : (*entity)->dhKeyPair().peerRekeyCount;
    if (entity != nullptr && left->first <= generation && generation <= left->newest) {
      if (!isOverdue(from.path, left->since)) {
        return {};
      }
      why = "the path was left behind at " + stringValue(left->since) + " and not rebuilt";
    }
  }
  return why;
}

bool SendWindows::closed(size_t path) const {
  const Window& window = windows_[path];
  return !window.open && !window.leftBehind[0] && !window.leftBehind[1];
}

void SendWindows::closeIfMatching(size_t path) {
  Window& window = windows_[path];
  if (!window.open) {
    return;
  }
  bool back = true;
  for (const size_t end : {0U, 1U}) {
    window.inSaRekey[end] = window.inSaRekey[end] && isInSaRekey({path, end});
    window.marked[end] = window.marked[end] && !isSteady({path, end});
    back = back && !window.inSaRekey[end] && !window.marked[end] && mesh_.matches({path, end});
  }
  window.open = !back;
}

void SendWindows::openIfBlind(size_t path) {
  Window& window = windows_[path];
  if (!window.open && (isBlind({path, 0}) || isBlind({path, 1}))) {
    window.open = true;
    window.since = lab_.now();
  }
}

/// Whether an end goes by something else than what its data path sees of the traffic.
bool SendWindows::isBlind(EndId id) const {
  const MeshView::End& end = mesh_.end(id);
  if (!end.router->up()) {
    return false;
  }
  const RouterEntities& entities = end.router->entities();
  const Ptr<Ike::TestKnob>& knob = entities.ipsecStatus->testKnob();
  if (knob && knob->forcePathActive()) {
    return true;
  }
  return std::ranges::any_of(end.sas, [&](const MeshView::Sa& sa) {
    const std::optional<SaReport> report = end.router->dataPlane().sa(sa.key);
    const bool never = report && report->installedAt.isNever();
    return report && ((report->state == SaInstallState::failed && never) ||
                      (report->state == SaInstallState::installed &&
                       !isReported(*entities.ipsecCounterTable, sa.key)));
  });
}

bool SendWindows::isInSaRekey(EndId id) const {
  const Ptr<Ike::PathConnState> path = pathOf(mesh_.end(id));
  return path &&
         (path->saSmState() == SmState::initiator || path->saSmState() == SmState::responder);
}

bool SendWindows::isSteady(EndId id) const {
  const Ptr<Ike::PathConnState> path = pathOf(mesh_.end(id));
  return path && (path->pathState() == DynamicPathState::established ||
                  path->pathState() == DynamicPathState::idle ||
                  path->pathState() == DynamicPathState::active);
}

Duration SendWindows::bound(size_t path) const {
  // An end that has other SAs than the other one sees no traffic at its next pass, expires, and is
  // rebuilt at the pass after that. An SA rekey that falls due meanwhile restarts the expiry once.
  const Duration expiry = std::max(mesh_.end({path, 0}).router->settings().sanityExpiry,
                                   mesh_.end({path, 1}).router->settings().sanityExpiry);
  return (expiry + kSanityInterval) * 2 + kSanityInterval;
}

bool SendWindows::isOverdue(size_t path, Duration& since) {
  if (lab_.now() - since <= bound(path)) {
    return false;
  }
  if (isImpeded(path)) {
    since = lab_.now();
    return false;
  }
  return true;
}

bool SendWindows::isImpeded(size_t path) const {
  if (isImpeded({path, 0}) || isImpeded({path, 1})) {
    return true;
  }
  // Both in the same role: they derive different keys for as long as neither starts over.
  return peerOf(mesh_.end({path, 0}))->initiator() == peerOf(mesh_.end({path, 1}))->initiator();
}

/// Whether an end lacks something that it needs to have the path up.
bool SendWindows::isImpeded(EndId id) const {
  const MeshView::End& end = mesh_.end(id);
  const Router& router = *end.router;
  const Router& other = *mesh_.end(id.other()).router;
  if (!router.up() || !other.up() || router.running().scheduler->paused()) {
    return true;
  }
  const Ptr<Ike::TestKnob>& knob = router.entities().ipsecStatus->testKnob();
  if (!end.path->wanted() || !isUsable(end.path->end.condition) ||
      (knob && knob->forcePathActive())) {
    return true;
  }
  const std::shared_ptr<const Controller::PeerKeyInfo> record =
      readRecord(*other.entities().ipsecLocalKeyDir);
  if (!record ||
      !router.entities().ipsecPeerKeyDir->ipsecPeerKeyInfo(other.routerId()).isEq(*record)) {
    return true;
  }
  const Ptr<Ike::PeerConnectionState> peer = peerOf(end);
  return !peer || peer->peerConnStatus() != PeerConnStatus::ready ||
         std::ranges::any_of(end.sas, [](const MeshView::Sa& sa) { return !sa.installed; });
}

/// Whether a DH rekey of the router has to wait for the path.
bool SendWindows::couldTakePart(EndId id) const {
  const MeshView::End& end = mesh_.end(id);
  const Ptr<Ike::PeerConnectionState> peer = peerOf(end);
  const Ptr<Ike::PathConnState> path = peer ? peer->pathConnState(end.path->end.key) : nullptr;
  if (!path || peer->peerConnStatus() != PeerConnStatus::ready ||
      !isUsable(end.path->end.condition) ||
      lab_.now() - rekeyInitiated_[end.router->index()] > kMaxPending) {
    return false;
  }
  bool in = false;
  bool out = false;
  for (const auto& [key, saInfo] : path->pathConnSaInfo()) {
    in |= saInfo->sa()->saType() == SaType::steadyIn;
    out |= saInfo->sa()->saType() == SaType::steadyOut;
  }
  return in && out;
}

/// Whether an in-SA of that own key is installed.
bool SendWindows::hasInSa(EndId id, uint64_t generation) const {
  const MeshView::End& end = mesh_.end(id);
  return std::ranges::any_of(end.sas, [&](const MeshView::Sa& sa) {
    const Ptr<Ike::SecurityAssociation>* const entity =
        end.router->entities().tesselV1->sa().find(sa.key);
    return sa.inbound && sa.installed && entity != nullptr &&
           (*entity)->dhKeyPair().localRekeyCount == generation;
  });
}

}  // namespace tessel::lab
