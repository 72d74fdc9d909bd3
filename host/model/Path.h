// Path: what the dynamic path layer configures and reports; merged path data.
#pragma once

#include <cstdint>
#include <string>

#include "host/entity/Entity.h"
#include "host/model/Keys.h"

namespace tessel::Path {

/// Configuration of one dynamic path.
struct PathConfig {
  /// Asks for the path to be established, anew if it exists.
  bool ipsecEnabled = false;
  friend bool operator==(const PathConfig&, const PathConfig&) = default;
};

/// Dynamic path configuration.
class PathConnConfig final : public Entity {
  HOST_VALUES(ipsecPathConfig, ConnectionKey, PathConfig);
  /// The local router id (VTEP address).
  HOST_ATTRIBUTE(routerId, IpGenAddr);
};

/// State of the underlying path.
enum class UnderlayState : uint8_t { down = 0, connecting = 1, connected = 2, established = 3 };
std::string stringValue(UnderlayState state);

/// Status of one dynamic path.
class PathStatus final : public Entity {
 public:
  explicit PathStatus(const ConnectionKey& key) : connectionKey_(key) {}
  const ConnectionKey& connectionKey() const { return connectionKey_; }

  HOST_ATTRIBUTE(state, UnderlayState);
  /// Whether the path may be established.
  HOST_ATTRIBUTE(establishAllowed, bool);
  HOST_ATTRIBUTE(pathName, std::string);
  /// The peer's VTEP address.
  HOST_ATTRIBUTE(remoteIp, IpGenAddr);
  /// The own public address when the path goes through a translator, else unspecified.
  HOST_ATTRIBUTE(publicIp, IpGenAddr);
  /// Outer UDP ports, host byte order.
  HOST_ATTRIBUTE(encapSrcPort, uint16_t);
  HOST_ATTRIBUTE(encapDstPort, uint16_t);
  HOST_ATTRIBUTE(pathIndex, uint32_t);

 private:
  const ConnectionKey connectionKey_;
};

/// Status of all dynamic paths.
class PathStatusDir final : public Entity {
  HOST_COLLECTION(ipsecPathStatus, ConnectionKey, PathStatus);
};

}  // namespace tessel::Path

namespace tessel {

/// One connection of a merged entry. A new version says that its data changed.
struct MergedConnection {
  uint64_t version = 0;
  friend bool operator==(const MergedConnection&, const MergedConnection&) = default;
};

/// The connections between one pair of addresses.
class MergeConnectionInfo final : public Entity {
 public:
  explicit MergeConnectionInfo(const MergeResolutionKey& key) : key_(key) {}
  const MergeResolutionKey& key() const { return key_; }

  HOST_VALUES(connection, ConnectionKey, MergedConnection);

 private:
  const MergeResolutionKey key_;
};

/// Merged path data.
class MergeData final : public Entity {
  HOST_COLLECTION(connectionInfo, MergeResolutionKey, MergeConnectionInfo);
};

// Compiled once, in Path.cpp: most units of the engine use these.
extern template class KeyedCollection<ConnectionKey, Path::PathConfig>;
extern template class KeyedCollection<ConnectionKey, Ptr<Path::PathStatus>>;
extern template class KeyedCollection<ConnectionKey, MergedConnection>;
extern template class KeyedCollection<MergeResolutionKey, Ptr<MergeConnectionInfo>>;

}  // namespace tessel
