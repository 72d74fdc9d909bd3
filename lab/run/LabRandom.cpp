#include "lab/run/LabRandom.h"

#include "host/crypto/NonceGenerator.h"
#include "host/facility/Trace.h"

namespace tessel::lab {
namespace {

/// FNV-1a, the same on every machine.
uint64_t streamSeed(uint64_t seed, std::string_view name) {
  uint64_t hash = 0xCBF29CE484222325U ^ seed;
  for (const char character : name) {
    hash = (hash ^ static_cast<uint8_t>(character)) * 0x100000001B3U;
  }
  return hash;
}

}  // namespace

bool LabRandom::fill(std::span<uint8_t> out) {
  const TraceContext* context = TraceContext::current();
  const std::string drawer(context == nullptr ? std::string_view() : context->name());
  if (fails(drawer, out.size())) {
    return false;
  }
  const auto [stream, made] = streams_.emplace(drawer);
  if (made) {
    stream = makePtr<SeededRandomSource>(streamSeed(seed_, drawer));
  }
  return stream->fill(out);
}

void LabRandom::failNext(const std::string& router, FailGeneration::What what, uint32_t times,
                         size_t privateKeyLen) {
  const bool nonce = what == FailGeneration::What::nonce;
  failures_.emplace(router).first = {.length = nonce ? NonceGenerator::nonceLen : privateKeyLen,
                                     .times = times};
}

uint64_t LabRandom::stateHash() const {
  uint64_t hash = seed_;
  for (const auto& [drawer, stream] : streams_) {
    hash = streamSeed(hash, drawer) + stream->stateHash();
  }
  return hash;
}

bool LabRandom::fails(const std::string& drawer, size_t length) {
  Failures* failures = failures_.find(drawer);
  if (failures == nullptr || failures->length != length || failures->times == 0) {
    return false;
  }
  --failures->times;
  return true;
}

}  // namespace tessel::lab
