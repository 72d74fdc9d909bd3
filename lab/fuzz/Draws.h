// Draws: how values of a drawn case are spread.
#pragma once

#include <cmath>
#include <cstddef>

#include "host/model/Duration.h"
#include "lab/net/SmallRandom.h"

namespace tessel::lab {

/// Spread evenly over the orders of magnitude from `low`, above 0, to `high`: small values are as
/// likely as large ones. Exact to three digits, so that it survives being written and read.
inline double drawBetween(SmallRandom& random, double low, double high) {
  const double value = low * std::pow(high / low, random.uniform());
  const double scale = std::pow(10, 2 - std::floor(std::log10(value)));
  return std::round(value * scale) / scale;
}

inline Duration drawSpan(SmallRandom& random, double low, double high) {
  return seconds(std::round(drawBetween(random, low, high) * 1000) / 1000);
}

template <class Members>
const auto& drawOne(SmallRandom& random, const Members& members) {
  return members[static_cast<size_t>(random.below(std::size(members)))];
}

}  // namespace tessel::lab
