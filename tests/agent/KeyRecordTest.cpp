// Key records as bytes: there and back, the layout, and what is no record.
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/agent/KeyRecord.h"
#include "tests/crypto/Vectors.h"

namespace tessel {
namespace {

Controller::PeerKeyInfo sampleRecord(const std::string& routerId) {
  return {.originatorId = IpGenAddr::parse(routerId).value(),
          .dhKey = {0xD1, 0xD2, 0xD3},
          .dhKeyLen = 3,
          .dhGroup = 0x01020313,
          .nonce = {0xA1, 0xA2},
          .nonceLen = 2,
          .encryptAlgo = 0xEA,
          .hashAlgo = 0x4A,
          .valid = 1,
          .rekeyCounter = 0x1122334455667788,
          .received = 1};
}

/// The sample records by router id, as far as the bytes of both are not the same.
const std::pair<const char*, const char*> kSamples[] = {
    {"192.0.2.1", "0104c0000201"},
    {"2001:db8::1", "011020010db8000000000000000000000001"},
};

Bytes sampleBytes(const std::string& upToId) {
  return test::fromHex(upToId +
                       "1122334455667788"
                       "01020313"
                       "ea4a"
                       "00030002"
                       "d1d2d3"
                       "a1a2");
}

TEST(KeyRecord, ThereAndBack) {
  for (const auto& [routerId, upToId] : kSamples) {
    SCOPED_TRACE(routerId);
    Controller::PeerKeyInfo record = sampleRecord(routerId);
    EXPECT_EQ(keyRecordBytes(record), sampleBytes(upToId));
    EXPECT_EQ(readKeyRecord(sampleBytes(upToId)), record);
    record.dhKey.assign(65535, 0x5A);
    record.dhKeyLen = 65535;
    record.nonce.clear();
    record.nonceLen = 0;
    EXPECT_EQ(readKeyRecord(keyRecordBytes(record)), record);
  }
}

TEST(KeyRecord, NoRecordIsReadFromAnythingElse) {
  for (const auto& [routerId, upToId] : kSamples) {
    const Bytes good = sampleBytes(upToId);
    const size_t lengths = 2 + good[1] + 14U;
    for (size_t size = 0; size < good.size(); ++size) {
      // A copy of its own size, so that reading beyond it shows under the sanitizers.
      const Bytes shorter(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
      EXPECT_EQ(readKeyRecord(shorter), std::nullopt) << routerId << ", " << size << " bytes";
    }
    Bytes longer = good;
    longer.push_back(0);
    EXPECT_EQ(readKeyRecord(longer), std::nullopt) << routerId;
    const std::pair<size_t, uint8_t> changes[] = {
        {0, 0},       {0, 2},                      // Version.
        {1, 0},       {1, 5},           {1, 255},  // Length of the router id.
        {lengths, 1}, {lengths + 1, 2}, {lengths + 1, 4}, {lengths + 2, 255}, {lengths + 3, 3}};
    for (const auto& [at, value] : changes) {
      Bytes changed = good;
      changed[at] = value;
      EXPECT_EQ(readKeyRecord(changed), std::nullopt) << routerId << ", byte " << at;
    }
  }
  // An IPv4 record that calls its router id one of IPv6, and has the bytes for it.
  Bytes mislabelled = keyRecordBytes(sampleRecord("192.0.2.1"));
  mislabelled[1] = 16;
  mislabelled.resize(mislabelled.size() + 12);
  EXPECT_EQ(readKeyRecord(mislabelled), std::nullopt);
}

TEST(KeyRecord, WhatDoesNotFitIsRefusedByName) {
  const auto expectRefused = [](const Controller::PeerKeyInfo& record, const std::string& why) {
    EXPECT_THAT([&] { keyRecordBytes(record); },
                ::testing::ThrowsMessage<std::invalid_argument>(why));
  };
  Controller::PeerKeyInfo record = sampleRecord("192.0.2.1");
  record.originatorId = {};
  expectRefused(record, "originatorId: unspecified");
  record = sampleRecord("192.0.2.1");
  record.dhKey.resize(65536);
  expectRefused(record, "dhKey: 65536 bytes do not fit a key record");
  record = sampleRecord("192.0.2.1");
  record.nonce.resize(65536);
  expectRefused(record, "nonce: 65536 bytes do not fit a key record");
}

}  // namespace
}  // namespace tessel
