#include "host/agent/KeyRecord.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "host/model/ByteOrder.h"

namespace tessel {
namespace {

constexpr uint8_t kVersion = 1;
constexpr size_t kBeforeId = 2;  // Version and length of the router id.
constexpr size_t kAfterId = 18;  // From the rekey counter to the lengths.

/// Length of an address in bytes; 0 without a family.
size_t sizeOf(AddressFamily family) {
  switch (family) {
    case AddressFamily::none:
      return 0;
    case AddressFamily::ipv4:
      return 4;
    case AddressFamily::ipv6:
      return 16;
  }
  return 0;
}

IpGenAddr readAddress(BytesView bytes) {
  if (bytes.size() == sizeOf(AddressFamily::ipv4)) {
    return IpGenAddr::fromV4(get32(bytes.data()));
  }
  std::array<uint8_t, 16> all{};
  std::ranges::copy(bytes, all.begin());
  return IpGenAddr::fromV6(all);
}

uint16_t checkedSize(const Bytes& bytes, const char* field) {
  if (bytes.size() > UINT16_MAX) {
    throw std::invalid_argument(std::string(field) + ": " + std::to_string(bytes.size()) +
                                " bytes do not fit a key record");
  }
  return static_cast<uint16_t>(bytes.size());
}

}  // namespace

Bytes keyRecordBytes(const Controller::PeerKeyInfo& record) {
  const size_t idSize = sizeOf(record.originatorId.family());
  if (idSize == 0) {
    throw std::invalid_argument("originatorId: " + record.originatorId.stringValue());
  }
  const uint16_t dhKeySize = checkedSize(record.dhKey, "dhKey");
  const uint16_t nonceSize = checkedSize(record.nonce, "nonce");

  Bytes bytes(kBeforeId + idSize + kAfterId);
  bytes[0] = kVersion;
  bytes[1] = static_cast<uint8_t>(idSize);
  // Either family's bytes stand at the beginning of the address.
  std::copy_n(record.originatorId.v6Addr().begin(), idSize, bytes.begin() + kBeforeId);
  uint8_t* const at = bytes.data() + kBeforeId + idSize;
  put64(at, record.rekeyCounter);
  put32(at + 8, record.dhGroup);
  at[12] = record.encryptAlgo;
  at[13] = record.hashAlgo;
  put16(at + 14, dhKeySize);
  put16(at + 16, nonceSize);
  bytes.insert(bytes.end(), record.dhKey.begin(), record.dhKey.end());
  bytes.insert(bytes.end(), record.nonce.begin(), record.nonce.end());
  return bytes;
}

std::optional<Controller::PeerKeyInfo> readKeyRecord(BytesView bytes) {
  if (bytes.size() < kBeforeId || bytes[0] != kVersion) {
    return std::nullopt;
  }
  const size_t idSize = bytes[1];
  const size_t fixedSize = kBeforeId + idSize + kAfterId;
  if ((idSize != sizeOf(AddressFamily::ipv4) && idSize != sizeOf(AddressFamily::ipv6)) ||
      bytes.size() < fixedSize) {
    return std::nullopt;
  }
  const uint8_t* const at = bytes.data() + kBeforeId + idSize;
  const size_t dhKeySize = get16(at + 14);
  const size_t nonceSize = get16(at + 16);
  if (bytes.size() != fixedSize + dhKeySize + nonceSize) {
    return std::nullopt;
  }
  const BytesView dhKey = bytes.subspan(fixedSize, dhKeySize);
  const BytesView nonce = bytes.last(nonceSize);
  return Controller::PeerKeyInfo{.originatorId = readAddress(bytes.subspan(kBeforeId, idSize)),
                                 .dhKey = Bytes(dhKey.begin(), dhKey.end()),
                                 .dhKeyLen = static_cast<uint32_t>(dhKeySize),
                                 .dhGroup = get32(at + 8),
                                 .nonce = Bytes(nonce.begin(), nonce.end()),
                                 .nonceLen = static_cast<uint32_t>(nonceSize),
                                 .encryptAlgo = at[12],
                                 .hashAlgo = at[13],
                                 .valid = 1,
                                 .rekeyCounter = get64(at),
                                 .received = 1};
}

}  // namespace tessel
