// Small texts of the explanations.
#pragma once

#include <string>

#include <fmt/format.h>

#include "lab/report/LabEvent.h"

namespace tessel::lab {

/// "12.500 s", as on the terminal's timeline.
inline std::string timeText(Duration time) {
  return fmt::format("{:.3f} s", time.seconds());
}

/// Whether the event ends the state that a path's end was in.
inline bool isPathChange(const LabEvent& event) {
  return std::holds_alternative<event::PathState>(event.what) ||
         std::holds_alternative<event::PathGone>(event.what);
}

}  // namespace tessel::lab
