// Expectations: what a scenario says must hold, checked against a lab.
#pragma once

#include <cstdint>
#include <string>

#include "lab/run/Verdict.h"
#include "lab/scenario/Scenario.h"
#include "sm/TesselV1Sm.h"

namespace tessel::lab {

class Lab;

/// Checks an expectation now, whatever its time. Throws std::invalid_argument when it names what
/// the lab does not have.
Verdict checkExpectation(const Lab& lab, const Expectation& expectation);

/// A counter of the machine by the name of its attribute, one of `machineCounters()`. Throws
/// std::invalid_argument for any other name.
uint64_t machineCounter(const Ipsec::TesselV1Sm& machine, const std::string& name);

}  // namespace tessel::lab
