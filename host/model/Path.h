// Path: what the dynamic path layer configures and reports; merged path data.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/entity/Entity.h"
#include "host/facility/Export.h"
#include "host/model/Keys.h"

namespace tessel::Path {

/// Configuration of one dynamic path.
struct TESSEL_API PathConfig {
  /// Asks for the path to be established, anew if it exists.
  bool ipsecEnabled = false;
  friend bool operator==(const PathConfig&, const PathConfig&) = default;
};

/// Dynamic path configuration.
class TESSEL_API PathConnConfig final : public Entity {
  HOST_VALUES(ipsecPathConfig, ConnectionKey, PathConfig);
  /// The local router id (VTEP address).
  HOST_ATTRIBUTE(routerId, IpGenAddr);
};

/// State of the underlying path.
enum class UnderlayState : uint8_t { down = 0, connecting = 1, connected = 2, established = 3 };
TESSEL_API std::string stringValue(UnderlayState state);

class PathStatus;
class PathStatusDir;

/// Which path statuses name which peer. A directory and its statuses share it, since either may
/// outlive the other.
class TESSEL_API PeerIndex final : public RefCounted {
 public:
  /// The number of the next status: the larger, the younger.
  uint64_t nextOrder() { return ++lastOrder_; }
  /// `status` names `to` from now on, and `from` no more. The address without family is no peer.
  void move(PathStatus& status, const IpGenAddr& from, const IpGenAddr& to);
  /// The statuses that name `peer`, the oldest first; null for none.
  const std::vector<PathStatus*>* find(const IpGenAddr& peer) const { return byPeer_.find(peer); }

 private:
  KeyedCollection<IpGenAddr, std::vector<PathStatus*>> byPeer_;
  uint64_t lastOrder_ = 0;
};

/// Status of one dynamic path.
class TESSEL_API PathStatus final : public Entity {
 public:
  PathStatus(const PathStatusDir& directory, const ConnectionKey& key);
  ~PathStatus() override;
  const ConnectionKey& connectionKey() const { return connectionKey_; }
  /// Its place in the order of the directory.
  uint64_t order() const { return order_; }

  HOST_ATTRIBUTE(state, UnderlayState);
  /// Whether the path may be established.
  HOST_ATTRIBUTE(establishAllowed, bool);
  HOST_ATTRIBUTE(pathName, std::string);
  /// The peer's VTEP address: an attribute by which the directory finds the path.
  static constexpr AttributeName remoteIpName{"remoteIp"};
  const IpGenAddr& remoteIp() const { return remoteIp_.value(); }
  void remoteIpIs(const IpGenAddr& peer);
  /// The own public address when the path goes through a translator, else unspecified.
  HOST_ATTRIBUTE(publicIp, IpGenAddr);
  /// Outer UDP ports, host byte order.
  HOST_ATTRIBUTE(encapSrcPort, uint16_t);
  HOST_ATTRIBUTE(encapDstPort, uint16_t);
  HOST_ATTRIBUTE(pathIndex, uint32_t);

 private:
  const ConnectionKey connectionKey_;
  const Ptr<PeerIndex> peers_;
  const uint64_t order_;
  Attribute<IpGenAddr> remoteIp_;
};

/// Status of all dynamic paths.
class TESSEL_API PathStatusDir final : public Entity {
 public:
  HOST_COLLECTION(ipsecPathStatus, ConnectionKey, PathStatus);

  /// Calls `visit(status)` for each member that names `peer`, in the order of the collection and at
  /// the cost of these paths alone. `visit` may change everything: a member that it takes away, or
  /// gives another peer, is not visited any more, and one that it adds not yet.
  template <class Visit>
  void forEachTowards(const IpGenAddr& peer, Visit visit) const {
    for (const Ptr<PathStatus>& status : towards(peer)) {
      if (status->remoteIp() == peer && ipsecPathStatus(status->connectionKey()) == status) {
        visit(*status);
      }
    }
  }

 private:
  friend class PathStatus;

  /// A snapshot, in which there may be statuses that the directory has let go of.
  std::vector<Ptr<PathStatus>> towards(const IpGenAddr& peer) const;

  const Ptr<PeerIndex> peers_ = makePtr<PeerIndex>();
};

}  // namespace tessel::Path

namespace tessel {

/// One connection of a merged entry. A new version says that its data changed.
struct TESSEL_API MergedConnection {
  uint64_t version = 0;
  friend bool operator==(const MergedConnection&, const MergedConnection&) = default;
};

/// The connections between one pair of addresses.
class TESSEL_API MergeConnectionInfo final : public Entity {
 public:
  explicit MergeConnectionInfo(const MergeResolutionKey& key) : key_(key) {}
  const MergeResolutionKey& key() const { return key_; }

  HOST_VALUES(connection, ConnectionKey, MergedConnection);

 private:
  const MergeResolutionKey key_;
};

/// Merged path data.
class TESSEL_API MergeData final : public Entity {
  HOST_COLLECTION(connectionInfo, MergeResolutionKey, MergeConnectionInfo);
};

// Compiled once, in Path.cpp: most units of the engine use these.
extern template class KeyedCollection<IpGenAddr, std::vector<Path::PathStatus*>>;
extern template class KeyedCollection<ConnectionKey, Path::PathConfig>;
extern template class KeyedCollection<ConnectionKey, Ptr<Path::PathStatus>>;
extern template class KeyedCollection<ConnectionKey, MergedConnection>;
extern template class KeyedCollection<MergeResolutionKey, Ptr<MergeConnectionInfo>>;

}  // namespace tessel
