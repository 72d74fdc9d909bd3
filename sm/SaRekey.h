// SaRekey: the soft limits of SAs, the sweeps that watch them, and the start of an SA rekey.
#pragma once

#include <cstdint>

#include "host/facility/Export.h"
#include "host/model/Counters.h"
#include "host/model/IkeSa.h"
#include "host/model/Keys.h"

namespace tessel::Ipsec {

class RekeySm;
class TesselV1Sm;

/// Soft packet or byte limit for a hard one: a quarter less, and up to 2.5 % of it less still, at
/// random (one draw of the C library's `random()`).
TESSEL_API uint64_t getSoftRekey(uint64_t hardLimit);

/// Soft lifetime in seconds for a hard one: between h - 2j and h - j with j a fifth of it, at most
/// 900 s, at random (one draw of the C library's `random()`).
TESSEL_API uint64_t getTimedSoftRekey(uint64_t hardSeconds);

class SaRekey {
 public:
  explicit SaRekey(TesselV1Sm& sm) : sm_(sm) {}

  /// Marks the steady out-SAs that have soft-expired.
  void handleSaRekeyTimer();
  /// Queues every live SA for a look.
  void handleUpdateRekeyTimer();
  /// Refreshes the path's view of an SA and starts an SA rekey on it if one is due.
  void saBacklogProcessElem(const SecurityAssociationKey& saKey);
  void maybeRekeySa(const SecurityAssociationKey& saKey);

 private:
  /// The rekey machine of an SA's path with its path state, and whether it watches the SA.
  struct LivePath {
    RekeySm* rekeySm = nullptr;
    Ike::PathConnState* path = nullptr;
    bool watches = false;
  };
  /// The checks that both sweeps share. There is neither when one of them fails;
  /// `connectionKeyText` is traced for a path without connection status.
  LivePath findLivePath(const SecurityAssociationKey& key, const Ike::SecurityAssociation& sa,
                        const IpsecCounters::IpsecSACounterEntry& counters,
                        const char* connectionKeyText) const;
  static bool isOfPath(const SecurityAssociationKey& key, const LivePath& live);
  void checkSoftExpiry(const SecurityAssociationKey& key, const Ptr<Ike::SecurityAssociation>& sa,
                       const Ike::VrfStatus& vrfStatus);
  bool hasSoftExpired(const Ike::LifetimeCfg& limits,
                      const IpsecCounters::IpsecSACounterEntry& counters) const;

  TesselV1Sm& sm_;
};

}  // namespace tessel::Ipsec
