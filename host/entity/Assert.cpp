#include "host/entity/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace tessel {

void assertionFailed(const char* broken, const char* condition, const char* file,
                     int line) noexcept {
  std::fprintf(stderr, "%s:%d: broken: %s (%s)\n", file, line, broken, condition);
  std::abort();
}

}  // namespace tessel
