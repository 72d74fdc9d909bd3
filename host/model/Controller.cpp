#include "host/model/Controller.h"

#include <cstdint>
#include <stdexcept>
#include <string>

namespace tessel::Controller {
namespace {

uint8_t narrowCode(uint16_t code, const char* field) {
  if (code > UINT8_MAX) {
    throw std::range_error(std::string(field) + ": " + std::to_string(code) +
                           " does not fit a peer's record");
  }
  return static_cast<uint8_t>(code);
}

}  // namespace

std::optional<PeerKeyInfo> publishedRecord(const LocalKeyDir& dir) {
  if (!dir.valid()) {
    return std::nullopt;
  }
  return PeerKeyInfo{.originatorId = dir.originatorId(),
                     .dhKey = dir.dhKey(),
                     .dhKeyLen = dir.dhKeyLen(),
                     .dhGroup = dir.dhGroup(),
                     .nonce = dir.nonce(),
                     .nonceLen = dir.nonceLen(),
                     .encryptAlgo = narrowCode(dir.encryptAlgo(), "encryptAlgo"),
                     .hashAlgo = narrowCode(dir.hashAlgo(), "hashAlgo"),
                     .valid = 1,
                     .rekeyCounter = dir.rekeyCounter(),
                     .received = 1};
}

}  // namespace tessel::Controller
