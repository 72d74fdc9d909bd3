// SecretScan: finds the secrets of a run in what it puts out.
#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

#include "host/model/Bytes.h"
#include "lab/router/Router.h"

namespace tessel::lab {

class LabRandom;

/// Knows the secrets of a run, and looks for them in text: as they are, and in hexadecimal, with or
/// without colons or blanks between the digits. A secret is found by its first eight bytes.
class SecretScan {
 public:
  static constexpr size_t kPrefix = 8;

  /// What agents draw from now on is secret: private keys, and nonces until they are published.
  void follow(LabRandom& random);
  /// A secret; what has less than 16 bytes is left out.
  void add(BytesView secret, const char* what);
  /// Everybody may know it: no secret any more.
  void publish(BytesView nonce);
  /// Takes the private keys and what is shared with peers, and the keys of the SAs.
  void collect(const Router& router);

  /// What stands in `output`: the kind of the first secret found; null when there is none.
  const char* find(std::string_view output) const;
  size_t secrets() const { return byPrefix_.size(); }

 private:
  static constexpr size_t kFilterBits = 1U << 16U;

  const char* lookUp(uint64_t prefix) const;

  std::unordered_map<uint64_t, const char*> byPrefix_;  // Looked up, never walked.
  std::set<uint64_t> published_;
  std::bitset<kFilterBits> filter_;  // By the first two bytes: most text ends here.
};

}  // namespace tessel::lab
