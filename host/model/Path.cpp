#include "host/model/Path.h"

#include <algorithm>

namespace tessel::Path {

std::string stringValue(UnderlayState state) {
  static constexpr const char* names[] = {"down", "connecting", "connected", "established"};
  const auto number = static_cast<size_t>(state);
  const char* name = number < std::size(names) ? names[number] : "unknown";
  return std::string(name) + "(" + std::to_string(number) + ")";
}

void PeerIndex::move(PathStatus& status, const IpGenAddr& from, const IpGenAddr& to) {
  if (std::vector<PathStatus*>* left = from == IpGenAddr() ? nullptr : byPeer_.find(from)) {
    std::erase(*left, &status);
    if (left->empty()) {
      byPeer_.take(from);
    }
  }
  if (to != IpGenAddr()) {
    std::vector<PathStatus*>& joined = byPeer_.emplace(to).first;
    joined.insert(std::ranges::upper_bound(joined, status.order(), {}, &PathStatus::order),
                  &status);
  }
}

PathStatus::PathStatus(const PathStatusDir& directory, const ConnectionKey& key)
    : connectionKey_(key), peers_(directory.peers_), order_(peers_->nextOrder()) {}

PathStatus::~PathStatus() {
  peers_->move(*this, remoteIp(), IpGenAddr());
}

void PathStatus::remoteIpIs(const IpGenAddr& peer) {
  if (peer == remoteIp()) {
    return;
  }
  peers_->move(*this, remoteIp(), peer);  // Whoever is told of the change finds the path there.
  remoteIp_.valueIs(*this, remoteIpName, peer);
}

std::vector<Ptr<PathStatus>> PathStatusDir::towards(const IpGenAddr& peer) const {
  std::vector<Ptr<PathStatus>> result;
  if (const std::vector<PathStatus*>* found = peers_->find(peer)) {
    for (PathStatus* const status : *found) {
      result.emplace_back(status);
    }
  }
  return result;
}

}  // namespace tessel::Path

namespace tessel {

template class KeyedCollection<IpGenAddr, std::vector<Path::PathStatus*>>;
template class KeyedCollection<ConnectionKey, Path::PathConfig>;
template class KeyedCollection<ConnectionKey, Ptr<Path::PathStatus>>;
template class KeyedCollection<ConnectionKey, MergedConnection>;
template class KeyedCollection<MergeResolutionKey, Ptr<MergeConnectionInfo>>;

}  // namespace tessel
