#include "host/model/Bytes.h"

#include <openssl/crypto.h>

namespace tessel {

void wipeMemory(void* memory, size_t size) noexcept {
  OPENSSL_cleanse(memory, size);
}

}  // namespace tessel
