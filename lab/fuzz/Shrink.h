// Shrink: a failing case made as small as it gets.
#pragma once

#include <functional>

#include "lab/fuzz/FuzzCase.h"

namespace tessel::lab {

/// Leaves out fault kinds, then stretches of time, then single faults, as long as `stillFails`
/// holds for what is left. What comes back failed, and does not without any one of its faults. With
/// n faults left, of which k are needed, it asks about k * log(n) times.
FuzzCase shrink(FuzzCase failing, const std::function<bool(const FuzzCase&)>& stillFails);

}  // namespace tessel::lab
