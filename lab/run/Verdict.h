// Verdict: an expectation of the scenario, checked.
#pragma once

#include <string>

#include "host/model/Duration.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

struct Verdict {
  Duration at;
  int line = 0;          ///< In the scenario file; 0 when not from a file.
  std::string expected;  ///< The expectation in words.
  bool held = false;
  std::string found;  ///< What was the case instead; empty when it held.
};

/// "line 12, at 120 s: <expected>; found: <found>".
std::string stringValue(const Verdict& verdict);

}  // namespace tessel::lab
