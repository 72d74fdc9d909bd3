#include "lab/dataplane/DataPlaneSa.h"

#include <algorithm>

namespace tessel::lab {
namespace {

constexpr size_t kRememberedSas = 16;

bool isCipherAttribute(const Change& change) {
  using Sa = Ike::SecurityAssociation;
  return change.is(Sa::cryptoAlgoName) || change.is(Sa::cryptoKeyName) ||
         change.is(Sa::cryptoKeyLenName) || change.is(Sa::authAlgoName) ||
         change.is(Sa::authKeyName) || change.is(Sa::authKeyLenName) ||
         change.is(Sa::authTruncLenName) || change.is(Sa::icvLenName);
}

}  // namespace

DataPlane::Sa* DataPlane::PathRecord::sendingSa() const {
  const auto found =
      std::find_if(outSas.rbegin(), outSas.rend(), [](const Sa* sa) { return sa->installed(); });
  return found == outSas.rend() ? nullptr : *found;
}

void DataPlane::Sa::handleEntity(const Change& change) {
  if (change.is(Ike::SecurityAssociation::rekeyName)) {
    takeNonce();
  } else if (isCipherAttribute(change)) {
    cipherChanged = true;
  }
}

void DataPlane::Sa::takeNonce() {
  if (!inbound) {
    nonceWord = espNonceOf(*entity);
    nonceTold = false;
  }
}

void DataPlane::Sa::resumeSequence() {
  const auto found = std::ranges::find_if(path->remembered, [this](const auto& each) {
    return each.inbound == inbound && each.spi == key.spi && each.keyTag == transform->keyTag();
  });
  window = ReplayWindow();
  if (found == path->remembered.end()) {
    return;
  }
  sequence = std::max(sequence, found->sequence);
  window = found->window;
  path->remembered.erase(found);
}

void DataPlane::Sa::rememberSequence() const {
  std::vector<PathRecord::RememberedSequence>& all = path->remembered;
  const auto sameKind = [this](const PathRecord::RememberedSequence& each) {
    return each.inbound == inbound && each.fromSaRekey == fromSaRekey;
  };
  if (static_cast<size_t>(std::ranges::count_if(all, sameKind)) >= kRememberedSas) {
    all.erase(std::ranges::find_if(all, sameKind));
  }
  all.push_back({.inbound = inbound,
                 .fromSaRekey = fromSaRekey,
                 .spi = key.spi,
                 .keyTag = transform->keyTag(),
                 .sequence = sequence,
                 .window = window});
}

SaReport DataPlane::Sa::report() const {
  return {.key = key,
          .path = path != nullptr ? path->key : ConnectionKey(),
          .saType = entity->saType(),
          .inbound = inbound,
          .state = state,
          .handOver = handOver,
          .handedOverAt = handedOverAt,
          .installedAt = installedAt,
          .addTime = addTime,
          .sequence = inbound ? window.highest() : sequence,
          .pkts = pkts,
          .bytes = bytes,
          .nonceWord = nonceWord,
          .keyTag = transform ? transform->keyTag() : 0,
          .refusal = refusal};
}

}  // namespace tessel::lab
