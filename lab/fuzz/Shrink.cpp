#include "lab/fuzz/Shrink.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace tessel::lab {
namespace {

/// With fewer faults a case may fail that much later.
constexpr Duration kLater = seconds(600);

/// `whole` without its faults from `first` to before `last`.
FuzzCase without(const FuzzCase& whole, size_t first, size_t last) {
  FuzzCase smaller = whole;
  smaller.faults.erase(smaller.faults.begin() + static_cast<std::ptrdiff_t>(first),
                       smaller.faults.begin() + static_cast<std::ptrdiff_t>(last));
  return smaller;
}

}  // namespace

bool cutShort(FuzzCase& drawn, Duration failed) {
  const Duration end = failed + kLater;
  if (end >= drawn.faultsEnd) {
    return false;
  }
  std::erase_if(drawn.faults, [&](const Fault& fault) { return fault.begin.at > failed; });
  for (Fault& fault : drawn.faults) {
    if (fault.end && fault.end->at >= end) {
      fault.end.reset();
    }
  }
  drawn.mesh.duration = end;
  drawn.faultsEnd = end;
  return true;
}

FuzzCase shrink(FuzzCase failing, const std::function<bool(const FuzzCase&)>& stillFails) {
  const auto keepIfItFails = [&](FuzzCase smaller) {
    if (!stillFails(smaller)) {
      return false;
    }
    failing = std::move(smaller);
    return true;
  };

  for (size_t kind = 0; kind < kFaultKinds; ++kind) {
    FuzzCase smaller = failing;
    if (std::erase_if(smaller.faults, [&](const Fault& fault) {
          return fault.kind == static_cast<FaultKind>(kind);
        }) > 0) {
      keepIfItFails(std::move(smaller));
    }
  }
  // Halves of the time, quarters, and so on; in the end single faults, until none can go.
  size_t length = failing.faults.size();
  bool smaller = true;
  while (length > 1 || smaller) {
    length = std::max<size_t>(1, length / 2);
    smaller = false;
    for (size_t first = 0; first < failing.faults.size();) {
      const size_t last = std::min(first + length, failing.faults.size());
      if (keepIfItFails(without(failing, first, last))) {
        smaller = true;
      } else {
        first = last;
      }
    }
  }
  return failing;
}

}  // namespace tessel::lab
