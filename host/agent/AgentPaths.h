// AgentPaths: how an agent tells its machine of paths.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/agent/AgentEntities.h"
#include "host/facility/Export.h"
#include "host/model/IkeStatus.h"
#include "host/model/Keys.h"
#include "host/model/Path.h"

namespace tessel {

/// One path, as the machine is to see it.
struct TESSEL_API PathDescription {
  /// VRF 0, the own underlay address, the address at which the peer is seen, and an id that tells
  /// paths between the same two addresses apart.
  ConnectionKey key;
  IpGenAddr peer;          ///< The peer's router id.
  std::string name;        ///< For the event logs.
  uint32_t reqid = 0;      ///< Its encapsulation id: one of its own for every path, not 0.
  uint32_t index = 0;      ///< Its number, for reports.
  uint16_t localPort = 0;  ///< Own outer UDP port, host byte order.
  uint16_t remotePort = 0;
  IpGenAddr publicAddr{};  ///< The own public address behind a translator, else unspecified.

  bool enabled = true;  ///< Its configuration asks for it.
  bool allowed = true;  ///< It may be established.
  Path::UnderlayState underlay = Path::UnderlayState::established;
  /// Of the connection that carries it; nothing while that is not known.
  std::optional<Ike::ConnectionState> connection = Ike::ConnectionState::established;
};

/// Writes the entities of paths in the order that the machine relies on. A path that is not there
/// is left alone by everything but `add`. The entities must outlive it.
class TESSEL_API AgentPaths {
 public:
  explicit AgentPaths(const AgentEntities& entities) : entities_(entities) {}

  /// Brings a path to the machine's notice: configuration, path status, connection status,
  /// encapsulation id, and at last the merged data.
  void add(const PathDescription& path);
  /// Takes a path away: its configuration, a change of its merged data (at which the machine drops
  /// the path), then the merged data, path status, connection status and encapsulation id.
  void remove(const ConnectionKey& key);
  /// Writes what is said about a path, without announcing it.
  void update(const PathDescription& path);
  /// Changes the path's merged data, at which the machine looks at the path again, and makes it
  /// anew when it is enabled.
  void announce(const ConnectionKey& key);
  bool has(const ConnectionKey& key) const;

 private:
  void write(const PathDescription& path);

  const AgentEntities& entities_;
  uint64_t lastVersion_ = 0;
};

}  // namespace tessel
