#include "lab/check/SendWindows.h"

#include <algorithm>

#include "lab/run/Lab.h"

namespace tessel::lab {
namespace {

/// A DH rekey waits that long for a path's in-SA.
constexpr Duration kMaxPending = seconds(60);

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
  if (!window.open) {
    window.emptied[id.end] = mesh_.pathState(id);
  }
  window.open = true;
  window.since = lab_.now();
  window.inSaRekey[1 - id.end] = isInSaRekey(id.other());
  window.leftBehind = {};
}

void SendWindows::handleInstalled(EndId id) {
  closeIfMatching(id.path);
}

void SendWindows::handleRemoved(EndId id) {
  openIfBlind(id);
}

void SendWindows::handleDhRekeyMarked(EndId id) {
  // SAs of its last DH rekey are still to become the steady ones.
  const Ptr<Ike::PathConnState> path = mesh_.pathState(id);
  if (!path) {
    return;  // It stands at another peer than the path layer says.
  }
  for (const auto& [key, saInfo] : path->pathConnSaInfo()) {
    const SaType type = saInfo->sa()->saType();
    if ((type == SaType::dhRekeyIn || type == SaType::dhRekeyOut) &&
        saInfo->sa()->dhKeyPair().localRekeyCount > path->curOutSaDhKeyPair().localRekeyCount) {
      handleMarkedForRebuild(id);
      return;
    }
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
  for (const EndId id : mesh_.endsOf(router)) {
    windows_[id.path].wasUnusable[id.end] = !isUsable(mesh_.end(id).path->end.condition);
  }
}

void SendWindows::handleRekeyInSaInstalled(const Router& router) {
  for (const EndId id : mesh_.endsOf(router)) {
    windows_[id.path].waitedFor[id.end] = couldTakePart(id) ? mesh_.pathState(id) : nullptr;
  }
}

void SendWindows::handlePublished(const Router& router, uint64_t generation) {
  for (const EndId id : mesh_.endsOf(router)) {
    if (mesh_.end(id).sas.empty()) {
      continue;
    }
    Window& window = windows_[id.path];
    const Ptr<Ike::PathConnState> waitedFor = std::move(window.waitedFor[id.end]);
    // A peer in a DH rekey of its own may switch to the new key from its older one.
    const bool isMissed = hasInSa(id, generation)
                              ? window.wasUnusable[id.end] && isInDhRekey(id.other())
                              : !waitedFor || waitedFor != mesh_.pathState(id);
    if (isMissed) {
      std::optional<LeftBehind>& left = window.leftBehind[id.end];
      left = {.first = left ? left->first : generation, .newest = generation, .since = lab_.now()};
    }
  }
}

void SendWindows::look() {
  for (size_t path = 0; path < windows_.size(); ++path) {
    closeIfEmptied(path);
    openIfBlind({path, 0});
    openIfBlind({path, 1});
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
  closeIfEmptied(from.path);
  openIfBlind(from);
  openIfBlind(from.other());
  if (isBeingInstalled(from.other(), sa.key.spi)) {
    return {};
  }
  std::string why = "no window is open";
  if (window.open) {
    if (!isOverdue(from.path, window.since)) {
      return {};
    }
    why = "the path has not come back since " + stringValue(window.since);
  }
  if (std::optional<LeftBehind>& left = window.leftBehind[1 - from.end]) {
    const std::optional<DhKeyPair> pair = pairOf(from, sa.key);
    if (pair && left->first <= pair->peerRekeyCount && pair->peerRekeyCount <= left->newest) {
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

void SendWindows::closeIfEmptied(size_t path) {
  Window& window = windows_[path];
  for (const size_t end : {0U, 1U}) {
    const Ptr<Ike::PathConnState> emptied = std::move(window.emptied[end]);
    if (emptied && mesh_.pathState({path, end}) == emptied) {
      window.open = false;
    }
  }
}

void SendWindows::closeIfMatching(size_t path) {
  Window& window = windows_[path];
  for (const size_t end : {0U, 1U}) {
    std::optional<LeftBehind>& left = window.leftBehind[end];
    if (left && hasInSa({path, end}, left->newest) && mesh_.matches({path, 1 - end}) &&
        !isInDhRekey({path, 1 - end})) {
      left.reset();
    }
  }
  if (!window.open) {
    return;
  }
  bool back = true;
  for (const size_t end : {0U, 1U}) {
    window.inSaRekey[end] = window.inSaRekey[end] && isInSaRekey({path, end});
    const Ptr<Ike::PathConnState> state = mesh_.pathState({path, end});
    window.marked[end] = window.marked[end] && !(state && isSteady(state->pathState()));
    back = back && !window.inSaRekey[end] && !window.marked[end] && mesh_.matches({path, end});
  }
  window.open = !back;
}

void SendWindows::openIfBlind(EndId id) {
  Window& window = windows_[id.path];
  if (!window.open && isBlind(id)) {
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
  if (mesh_.forcesActive(id)) {
    return true;
  }
  const auto& counters = end.router->entities().ipsecCounterTable;
  return std::ranges::any_of(end.sas, [&](const MeshView::Sa& sa) {
    return sa.failed || (sa.installed && !isReported(*counters, sa.key));
  });
}

bool SendWindows::isInSaRekey(EndId id) const {
  const Ptr<Ike::PathConnState> path = mesh_.pathState(id);
  return path &&
         (path->saSmState() == SmState::initiator || path->saSmState() == SmState::responder);
}

bool SendWindows::isInDhRekey(EndId id) const {
  const Ptr<Ike::PathConnState> path = mesh_.pathState(id);
  return path && !isSteady(path->pathState()) && !isInSaRekey(id);
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
  return mesh_.peerState({path, 0})->initiator() == mesh_.peerState({path, 1})->initiator();
}

/// Whether an end lacks something that it needs to have the path up.
bool SendWindows::isImpeded(EndId id) const {
  const MeshView::End& end = mesh_.end(id);
  const Router& router = *end.router;
  const Router& other = *mesh_.end(id.other()).router;
  if (!router.up() || !other.up() || router.running().scheduler->paused()) {
    return true;
  }
  if (!end.path->wanted() || !isUsable(end.path->end.condition) || mesh_.forcesActive(id)) {
    return true;
  }
  const std::shared_ptr<const Controller::PeerKeyInfo> record =
      readRecord(*other.entities().ipsecLocalKeyDir);
  if (!record ||
      !router.entities().ipsecPeerKeyDir->ipsecPeerKeyInfo(other.routerId()).isEq(*record)) {
    return true;
  }
  const Ptr<Ike::PeerConnectionState> peer = mesh_.peerState(id);
  return !peer || peer->peerConnStatus() != PeerConnStatus::ready ||
         std::ranges::any_of(end.sas, [](const MeshView::Sa& sa) { return !sa.installed; });
}

/// Whether a DH rekey of the router has to wait for the path.
bool SendWindows::couldTakePart(EndId id) const {
  const MeshView::End& end = mesh_.end(id);
  const Ptr<Ike::PeerConnectionState> peer = mesh_.peerState(id);
  const Ptr<Ike::PathConnState> path = mesh_.pathState(id);
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

/// Whether the in-SA is handed over and not installed yet, though the out-SA of its pair of
/// generations is: an in-SA of an older own key, installed before, let the machine make that.
bool SendWindows::isBeingInstalled(EndId id, uint32_t spi) const {
  const MeshView::End& end = mesh_.end(id);
  const auto in = std::ranges::find_if(
      end.sas, [&](const MeshView::Sa& sa) { return sa.inbound && sa.key.spi == spi; });
  const std::optional<SaReport> report = in == end.sas.end() ? std::nullopt : mesh_.report(id, *in);
  if (!report || report->state != SaInstallState::pending ||
      lab_.now() - report->handedOverAt > kMaxPending) {
    return false;
  }
  const std::optional<DhKeyPair> pair = pairOf(id, in->key);
  const auto hasPair = [&](const MeshView::Sa& sa) { return pairOf(id, sa.key) == pair; };
  return pair &&
         std::ranges::any_of(
             end.sas,
             [&](const MeshView::Sa& sa) { return !sa.inbound && sa.installed && hasPair(sa); }) &&
         std::ranges::any_of(end.sas, [&](const MeshView::Sa& sa) {
           const std::optional<DhKeyPair> other = pairOf(id, sa.key);
           return sa.inbound && sa.installed && other &&
                  other->localRekeyCount < pair->localRekeyCount &&
                  other->peerRekeyCount == pair->peerRekeyCount;
         });
}

std::optional<DhKeyPair> SendWindows::pairOf(EndId id, const SecurityAssociationKey& key) const {
  const Ptr<Ike::SecurityAssociation>* const sa =
      mesh_.end(id).router->entities().tesselV1->sa().find(key);
  return sa == nullptr ? std::nullopt : std::optional((*sa)->dhKeyPair());
}

/// Whether an in-SA of that own key is installed.
bool SendWindows::hasInSa(EndId id, uint64_t generation) const {
  return std::ranges::any_of(mesh_.end(id).sas, [&](const MeshView::Sa& sa) {
    const std::optional<DhKeyPair> pair = pairOf(id, sa.key);
    return sa.inbound && sa.installed && pair && pair->localRekeyCount == generation;
  });
}

}  // namespace tessel::lab
