#include "KeyRecord.h"

namespace {

constexpr size_t kFixed = 20;

void put(tessel::Bytes& to, uint64_t number, size_t size) {
  while (size-- > 0) {
    to.push_back(static_cast<uint8_t>(number >> (8 * size)));
  }
}

uint64_t take(tessel::BytesView& from, size_t size) {
  uint64_t number = 0;
  for (const uint8_t byte : from.first(size)) {
    number = number << 8 | byte;
  }
  from = from.subspan(size);
  return number;
}

}  // namespace

tessel::Bytes encode(const tessel::Controller::PeerKeyInfo& record) {
  tessel::Bytes datagram;
  put(datagram, record.originatorId.v4Addr(), 4);
  put(datagram, record.rekeyCounter, 8);
  put(datagram, record.dhGroup, 4);
  put(datagram, record.encryptAlgo, 1);
  put(datagram, record.hashAlgo, 1);
  put(datagram, record.dhKey.size(), 2);
  datagram.insert(datagram.end(), record.dhKey.begin(), record.dhKey.end());
  datagram.insert(datagram.end(), record.nonce.begin(), record.nonce.end());
  return datagram;
}

std::optional<tessel::Controller::PeerKeyInfo> decode(tessel::BytesView datagram) {
  if (datagram.size() < kFixed) {
    return std::nullopt;
  }
  tessel::Controller::PeerKeyInfo record;
  record.originatorId = tessel::IpGenAddr::fromV4(static_cast<uint32_t>(take(datagram, 4)));
  record.rekeyCounter = take(datagram, 8);
  record.dhGroup = static_cast<uint32_t>(take(datagram, 4));
  record.encryptAlgo = static_cast<uint8_t>(take(datagram, 1));
  record.hashAlgo = static_cast<uint8_t>(take(datagram, 1));
  record.dhKeyLen = static_cast<uint32_t>(take(datagram, 2));
  if (datagram.size() < record.dhKeyLen) {
    return std::nullopt;
  }
  record.dhKey.assign(datagram.begin(), datagram.begin() + record.dhKeyLen);
  record.nonce.assign(datagram.begin() + record.dhKeyLen, datagram.end());
  record.nonceLen = static_cast<uint32_t>(record.nonce.size());
  record.valid = 1;
  record.received = 1;
  return record;
}
