// Allocation: what a process may ask of the allocator of its C library.
#pragma once

#include "host/facility/Export.h"

namespace tessel {

/// Has the allocator merge small blocks with their neighbours as each is given back. glibc's puts
/// that off, and makes up for all of them at once inside of some later call: when 100,000 paths
/// have gone, whoever makes it is held up for 40 ms. For the whole process, best called first in
/// `main`; without effect on other C libraries.
TESSEL_API void mergeFreedMemoryAtOnce();

}  // namespace tessel
