// The machine's feature toggles, both of the file "Ipsec.json" and on by default.
#pragma once

#include "host/facility/Toggles.h"

namespace tessel::Ipsec {

/// Event logs and the periodic log.
inline const CachedToggle trellisSnapshotToggle("TrellisSnapshot", "Ipsec.json", true);

/// Log messages and counters of lost and restored connections to the PF controllers.
inline const CachedToggle pfConnectionLossToggle("PfConnectionLoss", "Ipsec.json", true);

}  // namespace tessel::Ipsec
