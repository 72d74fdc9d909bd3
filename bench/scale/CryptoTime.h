// CryptoTime: how long the program has been inside libcrypto.
//
// The linker puts the wrappers of CryptoTime.cpp in place of the functions of libcrypto that do
// work (--wrap); the engine and the host are the ones that ship. What the wrappers themselves take
// is a few nanoseconds per call, most of them outside of what they count.
#pragma once

#include <cstdint>

namespace tessel::bench {

/// Ticks of a counter that runs at one speed.
uint64_t ticks();
/// Ticks spent in libcrypto since the program started.
uint64_t cryptoTicks();

}  // namespace tessel::bench
