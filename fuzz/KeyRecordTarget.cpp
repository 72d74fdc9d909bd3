// Bytes that claim to be a key record: what is read is written again as the same bytes, and its
// lengths are those of its key and its nonce.
#include <algorithm>
#include <optional>

#include "fuzz/FuzzInput.h"
#include "host/agent/KeyRecord.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const tessel::BytesView bytes(data, size);
  const std::optional<tessel::Controller::PeerKeyInfo> record = tessel::readKeyRecord(bytes);
  if (record) {
    FUZZ_CHECK(std::ranges::equal(tessel::keyRecordBytes(*record), bytes), "it is written as read");
    FUZZ_CHECK(record->dhKeyLen == record->dhKey.size() && record->nonceLen == record->nonce.size(),
               "its lengths are right");
  }
  return 0;
}
