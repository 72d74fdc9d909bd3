#include "host/facility/Allocation.h"

#include <cstdlib>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace tessel {

void mergeFreedMemoryAtOnce() {
#ifdef __GLIBC__
  mallopt(M_MXFAST, 0);
#endif
}

}  // namespace tessel
