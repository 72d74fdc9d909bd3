// Shrink: a failing case made as small as it gets.
#pragma once

#include <functional>

#include "lab/fuzz/FuzzCase.h"

namespace tessel::lab {

/// Ends a case ten minutes after the time at which it failed, unless its faults end before that:
/// leaves out what begins later, and the time to rest. Whether it did.
bool cutShort(FuzzCase& drawn, Duration failed);

/// Leaves out fault kinds, then stretches of time, then single faults, as long as `stillFails`
/// holds for what is left. What comes back failed, and does not without any one of its faults. With
/// n faults left, of which k are needed, it asks about k * log(n) times.
FuzzCase shrink(FuzzCase failing, const std::function<bool(const FuzzCase&)>& stillFails);

}  // namespace tessel::lab
