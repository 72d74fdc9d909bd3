#include "host/model/KeyGenerations.h"

#include "host/crypto/IpsecDHGeneral.h"

namespace tessel {

LocalKeyInfo::LocalKeyInfo(uint64_t counter) : rekeyCounter(counter) {}

LocalKeyInfo::~LocalKeyInfo() = default;

}  // namespace tessel
