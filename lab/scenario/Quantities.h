// Quantities: numbers with their units, as people write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/model/Duration.h"

namespace tessel::lab {

/// A value, or what is wrong with the text that should give one.
template <class Value>
struct Parsed {
  std::optional<Value> value{};
  std::string problem{};
};

/// "20 ms", "1.5 s", "2 h 30 min", "1 d": a number and a unit each, from the largest unit down. The
/// unit is never optional.
Parsed<Duration> parseDuration(std::string_view text);
/// "1200 B", "64 kB", "1.5 MB", "2 GB": powers of 1,000. Whole bytes only.
Parsed<uint64_t> parseSize(std::string_view text);
/// "50 /s": events per second, above 0.
Parsed<double> parseRate(std::string_view text);
/// "2.5 %", as a share between 0 and 1.
Parsed<double> parsePercentage(std::string_view text);
/// "1000", "1_000_000": a whole number without unit.
Parsed<uint64_t> parseCount(std::string_view text);

/// The texts that give exactly these values back. Each throws std::invalid_argument for a value
/// that has none: a time below 0 or never, a size above 10^15 bytes, a share outside of 0 to 1.
std::string durationText(Duration duration);
std::string sizeText(uint64_t bytes);
std::string percentageText(double share);

/// The one of `candidates` that `text` was probably meant to be; empty when none is near.
std::string nearestName(std::string_view text, const std::vector<std::string>& candidates);

}  // namespace tessel::lab
