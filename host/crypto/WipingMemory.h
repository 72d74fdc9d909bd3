// WipingMemory: has libcrypto leave no secret in memory that it gives back.
#pragma once

#include "host/facility/Export.h"

namespace tessel {

/// libcrypto wipes most of what it knows to be secret, but not all: its multiplications for the
/// curves of ecp-256 and ecp-521 work on a copy of the private key and give that memory back as it
/// is. After this call all memory of libcrypto is wiped when it is given back, for the whole
/// process. To be called before anything uses libcrypto, at best first in `main`: false when that
/// is too late, and nothing changes.
[[nodiscard]] TESSEL_API bool wipeLibcryptoMemory();

}  // namespace tessel
