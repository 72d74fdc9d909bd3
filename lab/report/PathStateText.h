// PathStateText: what each state of a path means to an operator.
#pragma once

#include "host/model/Enumerations.h"

namespace tessel::lab {

/// One sentence: where the path stands and what it waits for.
const char* meaningOf(DynamicPathState state);

/// Whether the path is on its way from one set of SAs to the next.
bool isIntermediate(DynamicPathState state);

}  // namespace tessel::lab
