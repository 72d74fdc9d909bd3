// Actions: what a scenario's timeline can do to a lab.
#pragma once

#include "lab/scenario/Scenario.h"

namespace tessel::lab {

class Lab;

/// Does something to the lab now. What concerns an agent happens in its jobs, so at the present
/// time but after this call.
/// Throws std::invalid_argument when the action names what the lab does not have.
void applyAction(Lab& lab, const Action& action);

}  // namespace tessel::lab
