// Clock: the only source of time.
#pragma once

#include "host/facility/Export.h"
#include "host/model/Duration.h"

namespace tessel {

/// The time as a scheduler sees it. Nothing else in the system may ask for the time.
class TESSEL_API Clock {
 public:
  Clock() = default;
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;
  virtual ~Clock() = default;

  /// Seconds since an origin of the clock's choice; never goes back and never jumps. Timers are
  /// armed and ages are measured in this time.
  virtual Duration monotonicTime() const = 0;

  /// Seconds since 1970-01-01T00:00:00Z. For dates that leave the router; may be set back.
  virtual Duration utcTime() const = 0;
};

}  // namespace tessel
