// EffectiveTimers: what a scenario's lifetimes and limits come to, with the spread that the machine
// adds to them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// A value that is drawn at random: both ends are possible.
struct Spread {
  uint64_t from = 0;
  uint64_t to = 0;
  friend bool operator==(const Spread&, const Spread&) = default;
};

/// When a key or an SA of `lifetime` seconds is rekeyed: a fifth of its lifetime early, at most 900
/// seconds, and up to as much again. The same rule holds for both.
Spread timedSpread(uint64_t lifetime);
/// When an SA with a hard limit of `limit` packets or bytes is rekeyed: 72.5 % to 75 % of it.
Spread limitSpread(uint64_t limit);

/// A hard limit and the soft limits that can be drawn for it.
struct EffectiveLimit {
  uint64_t hard = 0;
  Spread soft{};
};

struct ProfileTimers {
  std::string profile{};
  bool applied = false;  ///< At the start of the run.
  /// The suite that the machine takes; empty when the profile's own algorithms are used.
  std::string suite{};
  EncryptionAlgo encryption = EncryptionAlgo::none;
  IntegrityAlgo integrity = IntegrityAlgo::none;
  std::optional<EffectiveLimit> seconds{};  ///< Absent: no limit.
  std::optional<EffectiveLimit> packets{};
  std::optional<EffectiveLimit> bytes{};
};

struct RouterTimers {
  std::string router{};
  IpsecDhGroup group = IpsecDhGroup::none;
  EffectiveLimit dhKey{};  ///< Seconds since the key was generated.
  uint32_t holdTime = 0;   ///< Seconds; 0 = no hold timer.
  Duration sanityExpiry{};
  Duration dhRekeyDelay{};
  Duration installDelay{};
  std::vector<ProfileTimers> profiles{};
};

std::vector<RouterTimers> effectiveTimers(const Scenario& scenario);

/// For people: one block per router, a line per timer, each line ended.
std::string stringValue(const RouterTimers& timers);

}  // namespace tessel::lab
