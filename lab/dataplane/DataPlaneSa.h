// What the data plane keeps of a path and of an SA. For its own sources alone.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/agent/Esp.h"
#include "lab/dataplane/DataPlane.h"

namespace tessel::lab {

inline constexpr int kDataPlanePriority = 0;  // Before the machine's own work.

/// What is kept of a path as long as the data plane lives.
struct DataPlane::PathRecord final : RefCounted {
  /// The sequence numbers of an SA that is gone.
  struct RememberedSequence {
    bool inbound = false;
    bool fromSaRekey = false;
    uint32_t spi = 0;
    uint64_t keyTag = 0;
    uint32_t sequence = 0;
    ReplayWindow window;
  };

  explicit PathRecord(const ConnectionKey& path) : key(path) {}

  /// The installed out-SA that was handed over last; null when there is none.
  Sa* sendingSa() const;

  const ConnectionKey key;
  std::vector<Sa*> outSas;  // In the order of hand-over.
  PathStatistics statistics;
  uint64_t sentBeforeProbe = 0;
  uint64_t probes = 0;
  bool probed = true;
  std::vector<RememberedSequence> remembered;  // Oldest first.
};

class DataPlane::Sa final : public RefCounted {
 public:
  Sa(const SecurityAssociationKey& saKey, PathRecord* pathRecord, uint64_t number)
      : key(saKey), path(pathRecord), handOver(number) {}

  /// Follows the entity that was handed over.
  void entityIs(Ptr<Ike::SecurityAssociation> sa) {
    entity = std::move(sa);
    subscription.attach<&Sa::handleEntity>(*entity, *this);
    cipherChanged = true;
    takeNonce();
  }

  void handleEntity(const Change& change);

  void takeNonce();

  bool installed() const { return state == SaInstallState::installed; }

  /// Goes on where an earlier SA with this SPI and key of the path stopped.
  void resumeSequence();

  void rememberSequence() const;

  SaReport report() const;

  const SecurityAssociationKey key;
  PathRecord* const path;  // Null when the table names none.
  const uint64_t handOver;
  Ptr<Ike::SecurityAssociation> entity;
  bool inbound = false;
  bool fromSaRekey = false;
  bool cipherChanged = false;
  bool installFails = false;
  bool reported = true;
  bool nonceTold = false;
  SaInstallState state = SaInstallState::pending;
  Duration handedOverAt;
  Duration installedAt = Duration::never();
  uint64_t addTime = 0;
  std::optional<EspTransform> transform;
  uint32_t sequence = 0;  // Out: the last one sent.
  ReplayWindow window;    // In.
  uint64_t pkts = 0;
  uint64_t bytes = 0;
  uint32_t nonceWord = 0;
  uint8_t limitsFound = 0;  // Bit per HardLimitFinding::Limit.
  std::string refusal;
  Ptr<Ike::LifetimeCfg> lifetime;
  Ptr<TimerTask> timer;  // Until it is installed: when that is; then: its hard time limit.
  Subscription subscription;
};

template <class Call>
void DataPlane::tell(Call call) {
  for (size_t i = 0; i < observers_.size(); ++i) {  // An observer may add and remove observers.
    call(*observers_[i]);
  }
}

}  // namespace tessel::lab
