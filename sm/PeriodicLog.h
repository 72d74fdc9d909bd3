// PeriodicLog: once a minute, whether paths that carried traffic both ways still do.
#pragma once

#include <cstdint>
#include <optional>

#include "host/model/Counters.h"
#include "host/model/Path.h"

namespace tessel::Ipsec {

class TesselV1Sm;

class PeriodicLog {
 public:
  explicit PeriodicLog(TesselV1Sm& sm) : sm_(sm) {}

  /// Reports, once, each path that stopped carrying traffic in both directions.
  void handleLogTimer();

 private:
  void checkPath(const Path::PathStatus& pathStatus);
  /// The counters of a request id; nothing when there are none or they are corrupt.
  std::optional<IpsecCounters::IpsecSessionCounterEntry> sessionCounters(uint32_t reqid) const;

  TesselV1Sm& sm_;
};

}  // namespace tessel::Ipsec
