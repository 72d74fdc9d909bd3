#include "lab/run/Verdict.h"

namespace tessel::lab {

std::string stringValue(const Verdict& verdict) {
  std::string text = verdict.line == 0 ? "" : "line " + std::to_string(verdict.line) + ", ";
  text += "at " + stringValue(verdict.at) + ": " + verdict.expected;
  return verdict.held ? text : text + "; found: " + verdict.found;
}

}  // namespace tessel::lab
