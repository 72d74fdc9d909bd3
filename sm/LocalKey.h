// LocalKey: the applied profile, the router id, and the local DH key that exists only with both.
#pragma once

#include <cstdint>
#include <string>

#include "host/entity/KeyedCollection.h"
#include "host/model/IpGenAddr.h"
#include "host/model/KeyGenerations.h"

namespace tessel::Ipsec {

class TesselV1Sm;

/// Generates, publishes, retires and destroys the generations of the local key.
class LocalKey {
 public:
  explicit LocalKey(TesselV1Sm& sm) : sm_(sm) {}

  // Readiness.

  /// True for "0.0.0.0" and for the unspecified address.
  static bool invalidRouterId(const IpGenAddr& routerId);
  /// Copies a valid router id into the published record.
  void updateRouterId();
  /// Makes `appliedToKeyController` mark exactly the profile that the key-controller settings name.
  void updateAppliedProfile();
  /// Whether the local key may exist: a valid router id, and a profile that is configured.
  bool localKeyReady() const;
  void generateOrDestroyDhKey();
  void handleRouterId();
  void handleProfile(const std::string& profileName);

  // Generations.

  /// Makes the local key afresh, with counter 0, and publishes it.
  void doGenerateDhKey();
  /// Withdraws the local key and forgets every generation.
  void doDestroyDhKey();
  /// Builds generation `rekeyCount` without publishing it. On failure nothing has changed.
  bool generateLocalKeyInfo(uint64_t rekeyCount);
  /// Publishes generation `rekeyCount`.
  bool updateLocalKeyInfo(uint64_t rekeyCount);
  /// Retires the generations before the published one, unless a local DH rekey runs.
  void deleteOldLocalKeys();
  /// The highest counter, 0 when there is no generation.
  uint64_t getNewestLocalRekeyCount() const;

  const KeyedCollection<uint64_t, Ptr<LocalKeyInfo>>& localKeyInfo() const { return localKeyInfo_; }
  /// The generation with this counter, or null.
  Ptr<LocalKeyInfo> localKeyInfo(uint64_t rekeyCount) const;
  /// Finds or makes.
  Ptr<LocalKeyInfo> localKeyInfoIs(uint64_t rekeyCount);
  void localKeyInfoDel(uint64_t rekeyCount) { localKeyInfo_.take(rekeyCount); }
  void localKeyInfoDelAll() { localKeyInfo_.clear(); }

 private:
  TesselV1Sm& sm_;
  KeyedCollection<uint64_t, Ptr<LocalKeyInfo>> localKeyInfo_;
};

}  // namespace tessel::Ipsec
