// ManualClock: time for the real-time loop, moved by hand.
#pragma once

#include <stdexcept>
#include <vector>

#include "host/runtime/RealTime.h"

namespace tessel {

/// A clock that does not wait: it moves on to where it was to wait until.
class ManualClock final : public WaitingClock {
 public:
  Duration monotonicTime() const override { return now; }
  Duration utcTime() const override { return seconds(1e9) + now; }
  void waitUntil(Duration until) override {
    if (until.isNever()) {
      throw std::runtime_error("waits forever");
    }
    waits.push_back(until);
    now = until;
  }
  void wake() override { ++wakes; }

  Duration now = seconds(100);
  std::vector<Duration> waits;
  int wakes = 0;
};

}  // namespace tessel
