// Duration: seconds as a double-precision number.
#pragma once

#include <compare>
#include <limits>
#include <string>

#include "host/facility/Export.h"

namespace tessel {

/// A time span, or a point in time since a clock's origin, in seconds. Positive infinity stands
/// for never: a timer that is not armed, an expiry that does not apply.
class TESSEL_API Duration {
 public:
  constexpr Duration() = default;
  constexpr explicit Duration(double seconds) : seconds_(seconds) {}

  static constexpr Duration never() { return Duration(std::numeric_limits<double>::infinity()); }

  constexpr double seconds() const { return seconds_; }
  constexpr bool isNever() const { return seconds_ == std::numeric_limits<double>::infinity(); }

  friend constexpr auto operator<=>(Duration, Duration) = default;
  friend constexpr Duration operator+(Duration a, Duration b) {
    return Duration(a.seconds_ + b.seconds_);
  }
  friend constexpr Duration operator-(Duration a, Duration b) {
    return Duration(a.seconds_ - b.seconds_);
  }
  friend constexpr Duration operator*(Duration a, double factor) {
    return Duration(a.seconds_ * factor);
  }
  Duration& operator+=(Duration other) {
    seconds_ += other.seconds_;
    return *this;
  }

 private:
  double seconds_ = 0.0;
};

constexpr Duration seconds(double value) {
  return Duration(value);
}

/// Seconds with up to six decimals, trailing zeros cut ("12.5 s"), or "never".
TESSEL_API std::string stringValue(Duration duration);

}  // namespace tessel
