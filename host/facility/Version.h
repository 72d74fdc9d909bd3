// Version: which Tessel this is.
#pragma once

#include "host/facility/Export.h"

namespace tessel {

/// The version of the library that runs, "0.1.0". Versions with the same first two numbers can be
/// exchanged without compiling anew.
TESSEL_API const char* version();

}  // namespace tessel
