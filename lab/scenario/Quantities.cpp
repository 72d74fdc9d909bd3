#include "lab/scenario/Quantities.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <numeric>
#include <span>

#include <fmt/format.h>

namespace tessel::lab {
namespace {

struct Unit {
  std::string_view name;
  double scale;
};

constexpr Unit durationUnits[] = {{"d", 86400}, {"h", 3600}, {"min", 60}, {"s", 1}, {"ms", 0.001}};
constexpr Unit sizeUnits[] = {{"B", 1}, {"kB", 1e3}, {"MB", 1e6}, {"GB", 1e9}};
constexpr Unit rateUnits[] = {{"/s", 1}};
constexpr Unit percentageUnits[] = {{"%", 1}};

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string unitList(std::span<const Unit> units) {
  std::string list;
  for (const Unit& unit : units) {
    list += (list.empty() ? "" : ", ") + std::string(unit.name);
  }
  return list;
}

struct Term {
  double number;
  const Unit* unit;
};

/// Takes one number and its unit off the head of `text`.
Parsed<Term> takeTerm(std::string_view& text, std::span<const Unit> units, std::string_view what) {
  const size_t digits = std::min(text.find_first_not_of("0123456789."), text.size());
  double number = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + digits, number, std::chars_format::fixed);
  if (digits == 0 || error != std::errc() || end != text.data() + digits) {
    return {.problem = "not a " + std::string(what) + ": a number and a unit (" + unitList(units) +
                       ") are expected"};
  }
  text = trimmed(text.substr(digits));
  const std::string_view name = text.substr(0, text.find_first_of(" 0123456789"));
  if (name.empty()) {
    return {.problem = "the unit is missing: " + unitList(units)};
  }
  const auto unit = std::ranges::find(units, name, &Unit::name);
  if (unit == units.end()) {
    return {.problem =
                fmt::format("\"{}\" is not a unit of a {}: {}", name, what, unitList(units))};
  }
  text = trimmed(text.substr(name.size()));
  return {.value = Term{number, &*unit}};
}

/// The whole text as one number in the first unit's scale.
Parsed<double> parseOne(std::string_view text, std::span<const Unit> units, std::string_view what) {
  std::string_view rest = trimmed(text);
  const Parsed<Term> term = takeTerm(rest, units, what);
  if (!term.value) {
    return {.problem = term.problem};
  }
  if (!rest.empty()) {
    return {.problem = fmt::format("\"{}\" is left over after the unit", rest)};
  }
  return {.value = term.value->number * term.value->unit->scale};
}

/// Number of insertions, deletions and replacements that turn one text into the other.
size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < a.size(); ++i) {
    size_t diagonal = row[0]++;
    for (size_t j = 0; j < b.size(); ++j) {
      const size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

}  // namespace

Parsed<Duration> parseDuration(std::string_view text) {
  std::string_view rest = trimmed(text);
  double total = 0;
  double lastScale = std::numeric_limits<double>::infinity();
  do {
    const Parsed<Term> term = takeTerm(rest, durationUnits, "duration");
    if (!term.value) {
      return {.problem = term.problem};
    }
    if (term.value->unit->scale >= lastScale) {
      return {.problem = "units go from the largest down, each once"};
    }
    lastScale = term.value->unit->scale;
    // A division is exact where a multiplication by 0.001 is not: 20 ms is the 0.02 of a literal.
    total += lastScale < 1 ? term.value->number / 1000 : term.value->number * lastScale;
  } while (!rest.empty());
  return {.value = Duration(total)};
}

Parsed<uint64_t> parseSize(std::string_view text) {
  const Parsed<double> bytes = parseOne(text, sizeUnits, "size");
  if (!bytes.value) {
    return {.problem = bytes.problem};
  }
  if (*bytes.value != std::floor(*bytes.value) || *bytes.value > 1e15) {
    return {.problem = "not a whole number of bytes up to 1000000 GB"};
  }
  return {.value = static_cast<uint64_t>(*bytes.value)};
}

Parsed<double> parseRate(std::string_view text) {
  Parsed<double> rate = parseOne(text, rateUnits, "rate");
  if (rate.value && (*rate.value <= 0 || *rate.value > 1e6)) {
    return {.problem = "out of range: above 0 /s, at most 1000000 /s"};
  }
  return rate;
}

Parsed<double> parsePercentage(std::string_view text) {
  const Parsed<double> percentage = parseOne(text, percentageUnits, "percentage");
  if (!percentage.value) {
    return percentage;
  }
  if (*percentage.value > 100) {
    return {.problem = "out of range: 0 % to 100 %"};
  }
  return {.value = *percentage.value / 100};
}

Parsed<uint64_t> parseCount(std::string_view text) {
  std::string digits(trimmed(text));
  std::erase(digits, '_');
  uint64_t count = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), count);
  if (error == std::errc::result_out_of_range) {
    return {.problem = "out of range: at most 18446744073709551615"};
  }
  if (digits.empty() || error != std::errc() || end != digits.data() + digits.size()) {
    return {.problem = "not a whole number"};
  }
  return {.value = count};
}

std::string nearestName(std::string_view text, const std::vector<std::string>& candidates) {
  std::string nearest;
  size_t best = std::max<size_t>(2, text.size() / 3) + 1;
  for (const std::string& candidate : candidates) {
    const size_t distance = editDistance(text, candidate);
    if (distance < best && distance < candidate.size()) {
      best = distance;
      nearest = candidate;
    }
  }
  return nearest;
}

}  // namespace tessel::lab
