// LabRandom: reproducible random numbers for all routers of a lab, and generators that fail.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "host/crypto/RandomSource.h"
#include "host/entity/KeyedCollection.h"
#include "host/model/Bytes.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// Gives every agent and every data path a stream of its own, so that what one of them draws leaves
/// the others alone. Who draws is told by the scheduler that runs.
class LabRandom final : public RandomSource {
 public:
  explicit LabRandom(uint64_t seed) : seed_(seed) {}

  [[nodiscard]] bool fill(std::span<uint8_t> out) override;

  /// The next `times` draws of an agent for that purpose fail. They are told apart by their length:
  /// nonces have 32 bytes, private keys of the agent's group `privateKeyLen`. Where both have 32,
  /// whichever comes first fails.
  void failNext(const std::string& router, FailGeneration::What what, uint32_t times,
                size_t privateKeyLen);

  /// Digest of the states of all streams.
  uint64_t stateHash() const;

  /// Is told who drew which bytes: an agent by its router's name, a data path as "<router>/data".
  using Drawn = std::function<void(std::string_view drawer, BytesView bytes)>;
  void drawnIs(Drawn drawn) { drawn_ = std::move(drawn); }

 private:
  struct Failures {
    size_t length = 0;  ///< Of the draws that fail.
    uint32_t times = 0;
  };

  bool fails(const std::string& drawer, size_t length);

  const uint64_t seed_;
  KeyedCollection<std::string, Ptr<SeededRandomSource>> streams_;
  KeyedCollection<std::string, Failures> failures_;
  Drawn drawn_;
};

}  // namespace tessel::lab
