// Counts what the whole test program allocates, to show that something allocates or leaks nothing.
#pragma once

#include <cstdint>

namespace tessel::test {

/// Calls of operator new so far.
uint64_t allocations();

/// What is allocated now: calls of operator new less those of operator delete.
int64_t liveAllocations();

}  // namespace tessel::test
