// Runs: how many of a kind the suite does, few every day and many in scripts/soak; and how one has
// to end.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "lab/router/PathView.h"

namespace tessel::test {

/// `usual`, or the number in the environment's TESSEL_SEEDS.
inline uint64_t seedsToRun(uint64_t usual) {
  const char* text = std::getenv("TESSEL_SEEDS");
  return text == nullptr ? usual : std::strtoull(text, nullptr, 10);
}

/// What is wrong with a path at rest: not active, in a rekey, SAs other than one steady pair whose
/// SPIs and keys are those of the other end. `unused` in-SAs of an SA rekey may be left.
inline std::string whyNotSteady(const lab::PathView& end, const lab::PathView& other,
                                size_t unused = 0) {
  const auto in = end.sas(SaType::steadyIn);
  const auto out = other.sas(SaType::steadyOut);
  if (end.state() != DynamicPathState::active || end.saSmState() != SmState::idle) {
    return stringValue(end.state()) + " " + stringValue(end.saSmState());
  }
  const size_t left = std::min(unused, end.sas(SaType::saRekeyIn).size());
  if (end.sas().size() - left != 2 || in.size() != 1 || out.size() != 1) {
    return std::to_string(end.sas().size()) + " SAs";
  }
  return in[0]->sakey().spi == out[0]->sakey().spi && in[0]->cryptoKey() == out[0]->cryptoKey()
             ? ""
             : "the ends differ";
}

}  // namespace tessel::test
