// Toggles: features that are switched on and off by name, in files of toggles.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "host/facility/Export.h"

namespace tessel {

/// The state of toggle `name` of `file`, or `defaultState` when the table does not have it.
TESSEL_API bool getToggleState(std::string_view name, std::string_view file, bool defaultState);

/// The process's table of toggles. Whoever embeds the agent fills it before the agent starts.
class TESSEL_API Toggles {
 public:
  static void toggleIs(std::string_view file, std::string_view name, bool state);
  /// Empties the table and makes every `CachedToggle` read it again.
  static void reset();
};

/// A toggle that is read once, at first use, and then keeps its state until the table is reset.
class TESSEL_API CachedToggle {
 public:
  /// The texts outlive the toggle.
  constexpr CachedToggle(std::string_view name, std::string_view file, bool defaultState)
      : name_(name), file_(file), defaultState_(defaultState) {}

  bool isOn() const;

 private:
  std::string_view name_;
  std::string_view file_;
  bool defaultState_;
  /// Generation of the table at the time of reading, times two, plus the state; 0: not yet read.
  mutable std::atomic<uint64_t> cached_{0};
};

}  // namespace tessel
