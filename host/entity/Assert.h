// Assertions: what only an error in the program can make false, ours or the host's. They stay on in
// every build: a process that went on would do so with keys and SAs that nobody can vouch for. What
// input can cause is never asserted; it is refused, with a trace that says why.
#pragma once

#include "host/facility/Export.h"

namespace tessel {

/// Writes what was broken and where to the standard error output, and aborts.
[[noreturn, gnu::cold]] TESSEL_API void assertionFailed(const char* broken, const char* condition,
                                                        const char* file, int line) noexcept;

}  // namespace tessel

/// Ends the process unless `condition` holds; `broken` says in words whose promise was broken.
#define HOST_ASSERT(condition, broken) \
  ((condition) ? void() : ::tessel::assertionFailed(broken, #condition, __FILE__, __LINE__))
