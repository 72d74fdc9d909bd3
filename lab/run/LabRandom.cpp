#include "lab/run/LabRandom.h"

#include "host/crypto/NonceGenerator.h"
#include "host/facility/Trace.h"
#include "lab/net/SmallRandom.h"

namespace tessel::lab {
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
  const bool filled = stream->fill(out);
  if (filled && drawn_) {
    drawn_(drawer, out);
  }
  return filled;
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
