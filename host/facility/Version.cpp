#include "host/facility/Version.h"

namespace tessel {

const char* version() {
  return TESSEL_VERSION;
}

}  // namespace tessel
