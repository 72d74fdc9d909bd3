// What the data plane of a router tells others: reports on SAs, statistics, findings, events.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/model/Bytes.h"
#include "host/model/Duration.h"
#include "host/model/Enumerations.h"
#include "host/model/Keys.h"
#include "lab/net/DropReason.h"
#include "lab/net/UdpPacket.h"

namespace tessel::lab {

/// How far an SA that was handed over has come.
enum class SaInstallState : uint8_t {
  pending = 0,    ///< Handed over, not installed yet (or never, as a fault).
  installed = 1,  ///< Carries packets.
  refused = 2,    ///< Its attributes make no usable SA.
  failed = 3,     ///< The installation failed, as a fault.
};
/// "pending", "installed", "refused", "failed".
const char* saInstallStateName(SaInstallState state);

/// One SA as the data plane sees it.
struct SaReport {
  SecurityAssociationKey key;
  ConnectionKey path;
  SaType saType = SaType::none;  ///< What the engine calls it now.
  bool inbound = false;
  SaInstallState state = SaInstallState::pending;
  uint64_t handOver = 0;  ///< Position in the sequence of all hand-overs of the router, from 1.
  Duration handedOverAt;  ///< Monotonic.
  Duration installedAt = Duration::never();  ///< Monotonic.
  uint64_t addTime = 0;                      ///< UTC seconds; 0 while not installed.
  /// Out-SA: the last sequence number sent. In-SA: the highest one received. 0 = none.
  uint32_t sequence = 0;
  uint64_t pkts = 0;
  uint64_t bytes = 0;  ///< Of inner packets.
  /// Out-SA: the nonce word that its packets carry. In-SA: the last one received. Host byte order,
  /// 0 = none.
  uint32_t nonceWord = 0;
  /// One-way digest of the SA's keys: equal for equal keys. 0 while not installed.
  uint64_t keyTag = 0;
  std::string refusal;  ///< Why it was refused: names the attribute and its value.
};

/// Packets of one path, or of all. At every time
/// sent packets of one end = received + receiveDrops of the other end + what the network has or
/// lost, and offered = sent + sendDrops.
struct PathStatistics {
  uint64_t offered = 0;  ///< Packets that were to be sent.
  uint64_t sent = 0;     ///< Sealed and given to the network.
  uint64_t sentBytes = 0;
  uint64_t probesSent = 0;  ///< Of the sent ones.
  uint64_t received = 0;    ///< Opened and delivered.
  uint64_t receivedBytes = 0;
  DropCounts sendDrops;
  DropCounts receiveDrops;

  PathStatistics& operator+=(const PathStatistics& other);
  friend bool operator==(const PathStatistics&, const PathStatistics&) = default;
};

/// A packet that was dropped.
struct PacketDrop {
  DropReason reason = DropReason::noSa;
  bool sending = false;                 ///< Dropped by its sender; else by its receiver.
  std::optional<ConnectionKey> path{};  ///< Absent when the packet matches no SA.
  uint32_t spi = 0;                     ///< 0 when it was not read or there is none.
  uint32_t sequence = 0;                ///< 0 when it was not read.
  UdpEnds ends{};                       ///< Of a received packet, as far as they were read.
};

/// A packet that was sealed, just before the network gets it.
struct PacketSent {
  const SaReport* sa = nullptr;  ///< Valid during the call.
  uint32_t sequence = 0;
  BytesView iv;     ///< 8 bytes (AES-GCM), 16 (AES-CBC) or none; valid during the call.
  BytesView outer;  ///< The whole packet; valid during the call.
};

/// A hard limit that an SA passed while it was installed. Packets go on.
struct HardLimitFinding {
  enum class Limit : uint8_t { time, packets, bytes };
  SecurityAssociationKey key;
  ConnectionKey path;
  Limit limit = Limit::time;
  uint64_t allowed = 0;  ///< Seconds, packets or bytes.
  Duration at;           ///< Monotonic.
};
/// "time", "packets", "bytes".
const char* hardLimitName(HardLimitFinding::Limit limit);

/// Watches a data plane. A call happens inside the operation that it tells of, when that is done;
/// an observer must not destroy the data plane.
class DataPlaneObserver {
 public:
  virtual ~DataPlaneObserver() = default;

  virtual void handleSaHandedOver(const SaReport&) {}
  virtual void handleSaInstalled(const SaReport&) {}
  /// Refused, or failed to install: see its state.
  virtual void handleSaNotInstalled(const SaReport&) {}
  /// Deleted; the report is of the moment before.
  virtual void handleSaRemoved(const SaReport&) {}
  /// The first packet that carries a new nonce word was sent, or the first one received.
  virtual void handleNonceSent(const SaReport&, uint32_t /*nonceWord*/) {}
  virtual void handleNonceReceived(const SaReport&, uint32_t /*nonceWord*/) {}
  virtual void handleHardLimit(const HardLimitFinding&) {}
  virtual void handleDrop(const PacketDrop&) {}
  /// For every packet, and it costs a report each: only for observers that ask for it.
  virtual bool wantsPackets() const { return false; }
  virtual void handlePacketSent(const PacketSent&) {}
};

}  // namespace tessel::lab
