#include "lab/scenario/Quantities.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <numeric>
#include <ranges>
#include <span>
#include <stdexcept>

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

/// The shortest text that gives `number` back, its decimal point moved to the right.
std::string decimalText(double number, size_t moved = 0) {
  std::array<char, 400> buffer{};  // The smallest double has 324 digits behind the point.
  const auto end =
      std::to_chars(buffer.data(), buffer.data() + buffer.size(), number, std::chars_format::fixed);
  std::string text(buffer.data(), end.ptr);
  const size_t point = std::min(text.find('.'), text.size());
  std::string digits = text.substr(0, point);
  if (point < text.size()) {
    digits += text.substr(point + 1);
  }
  digits.resize(std::max(digits.size(), point + moved), '0');
  const std::string behind = digits.substr(point + moved);
  digits.resize(point + moved);
  digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - 1));
  if (!behind.empty()) {
    digits.append(1, '.').append(behind);
  }
  return digits;
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
  Parsed<double> percentage = parseOne(text, percentageUnits, "percentage");
  if (!percentage.value) {
    return percentage;
  }
  if (*percentage.value > 100) {
    return {.problem = "out of range: 0 % to 100 %"};
  }
  // The decimal point is moved in the text: 0.1 % is the 0.001 of a literal, which a division need
  // not give, and every share has a text.
  const std::string_view number = trimmed(text);
  const std::string moved =
      std::string(number.substr(0, number.find_first_not_of("0123456789."))) + "e-2";
  double share = 0;
  std::from_chars(moved.data(), moved.data() + moved.size(), share);
  return {.value = share};
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

std::string durationText(Duration duration) {
  const double time = duration.seconds();
  if (!(time >= 0) || duration.isNever()) {
    throw std::invalid_argument(stringValue(duration) + " is no time span of 0 s or more");
  }
  if (time < 1) {
    const std::string inMilliseconds = decimalText(time, 3) + " ms";
    // Not every part of a second is a number of milliseconds divided by 1000.
    return time > 0 && parseDuration(inMilliseconds).value == duration ? inMilliseconds
                                                                       : decimalText(time) + " s";
  }
  if (time != std::floor(time) || time >= 1e15) {
    return decimalText(time) + " s";
  }
  std::string text;
  auto rest = static_cast<uint64_t>(time);
  for (const Unit& unit : std::span(durationUnits).first(4)) {
    const auto scale = static_cast<uint64_t>(unit.scale);
    if (rest >= scale) {
      text += fmt::format("{}{} {}", text.empty() ? "" : " ", rest / scale, unit.name);
      rest %= scale;
    }
  }
  return text;
}

std::string sizeText(uint64_t bytes) {
  const std::string text = fmt::format("{} B", bytes);
  if (parseSize(text).value != bytes) {
    throw std::invalid_argument(text + " is no size up to 1000000 GB");
  }
  const auto largest =
      std::find_if(std::rbegin(sizeUnits), std::rend(sizeUnits), [&](const Unit& unit) {
        const auto scale = static_cast<uint64_t>(unit.scale);
        return bytes >= scale && bytes % scale == 0;
      });
  return largest == std::rend(sizeUnits)
             ? text
             : fmt::format("{} {}", bytes / static_cast<uint64_t>(largest->scale), largest->name);
}

std::string percentageText(double share) {
  if (!(share >= 0 && share <= 1)) {
    throw std::invalid_argument(fmt::format("{} is no share from 0 to 1", share));
  }
  return decimalText(share, 2) + " %";
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
