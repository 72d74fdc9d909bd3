#include "lab/report/History.h"

#include <algorithm>

namespace tessel::lab {

void History::handle(const LabEvent& event) {
  if (std::holds_alternative<event::TraceText>(event.what)) {
    return;
  }
  if (const auto* drop = std::get_if<event::Drop>(&event.what);
      drop != nullptr && !handleDrop(event, *drop)) {
    return;
  }
  if (const auto* step = std::get_if<event::SaStep>(&event.what)) {
    handleSa(event, *step);
  } else if (std::holds_alternative<event::RouterDown>(event.what)) {
    handleRouterDown(event);
  }
  byEnd_[{event.router, event.path}].push_back(events_.size());
  events_.push_back(event);
}

/// Whether it begins a burst.
bool History::handleDrop(const LabEvent& event, const event::Drop& drop) {
  const DropKind kind(event.router, event.path, drop.reason, drop.sending, drop.spi);
  const auto [known, isNew] = lastBurst_.emplace(kind, drops_.size());
  if (!isNew) {
    DropBurst& burst = drops_[known->second];
    if (event.at - burst.last <= gap_) {
      burst.last = event.at;
      ++burst.count;
      return false;
    }
    known->second = drops_.size();
  }
  drops_.push_back({.router = event.router,
                    .path = event.path,
                    .peer = event.peer,
                    .drop = drop,
                    .first = event.at,
                    .last = event.at,
                    .count = 1});
  return true;
}

void History::handleSa(const LabEvent& event, const event::SaStep& step) {
  std::vector<SaLife>& lives = sas_[{event.router, event.path}];
  if (step.step == event::SaStep::Step::handedOver) {
    lives.push_back({.sa = step.sa, .handedOver = event.at});
    return;
  }
  // Hand-overs are counted anew when a router starts again: the last one is meant.
  const auto found = std::find_if(lives.rbegin(), lives.rend(), [&](const SaLife& life) {
    return life.sa.handOver == step.sa.handOver;
  });
  if (found == lives.rend()) {
    return;
  }
  SaLife& life = *found;
  life.sa.packets = step.sa.packets;
  life.sa.bytes = step.sa.bytes;
  life.sa.state = step.sa.state;
  switch (step.step) {
    case event::SaStep::Step::handedOver:
    case event::SaStep::Step::retyped:
      break;
    case event::SaStep::Step::installed:
      life.installed = event.at;
      life.sa.keyTag = step.sa.keyTag;
      break;
    case event::SaStep::Step::notInstalled:
      life.notInstalled = event.at;
      life.why = step.why;
      break;
    case event::SaStep::Step::removed:
      life.removed = event.at;
      break;
  }
}

/// The SAs of a router go with it.
void History::handleRouterDown(const LabEvent& event) {
  for (auto& [end, lives] : sas_) {
    if (end.first == event.router) {
      for (SaLife& life : lives) {
        life.removed = std::min(life.removed, event.at);
      }
    }
  }
}

const std::vector<size_t>& History::ofEnd(const std::string& router,
                                          const std::string& path) const {
  static const std::vector<size_t> none;
  const auto found = byEnd_.find({router, path});
  return found == byEnd_.end() ? none : found->second;
}

const std::vector<SaLife>& History::sas(const std::string& router, const std::string& path) const {
  static const std::vector<SaLife> none;
  const auto found = sas_.find({router, path});
  return found == sas_.end() ? none : found->second;
}

}  // namespace tessel::lab
