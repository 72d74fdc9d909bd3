#include "lab/check/Invariants.h"

#include <algorithm>

#include "lab/run/Lab.h"

namespace tessel::lab {
namespace {

constexpr uint64_t kLooksPerLogs = 6;

}  // namespace

struct Invariants::Checks {
  Checks(Lab& lab, Findings& findings)
      : packets(lab, findings),
        paths(lab, packets.mesh(), packets.windows(), findings),
        accounting(packets.mesh(), lab.routers().size(), findings),
        tables(findings) {}

  PacketChecks packets;
  PathChecks paths;
  Accounting accounting;
  TableChecks tables;
  std::vector<std::unique_ptr<EntityChecks>> entities;  // Of the routers that are up.
};

Invariants::Invariants() = default;

Invariants::~Invariants() = default;

void Invariants::start(Lab& lab, Duration every) {
  lab_ = &lab;
  findings_.labIs(&lab);
  secrets_.follow(lab.random());
  checks_ = std::make_unique<Checks>(lab, findings_);
  schedule(every);
}

void Invariants::schedule(Duration every) {
  lab_->at(lab_->now() + every, [this, every] {
    if (lab_ != nullptr) {
      look();
      schedule(every);
    }
  });
}

void Invariants::look() {
  ++looks_;
  checks_->packets.windows().look();
  checks_->paths.look();
  checks_->accounting.look(lab_->routers());
  for (const auto& entities : checks_->entities) {
    const Router& router = entities->router();
    if (router.running().machine) {
      checks_->tables.look(router, lab_->now());
      entities->look();
      if (looks_ % kLooksPerLogs == 0) {
        checks_->tables.lookAtLogs(router);
        secrets_.collect(router);  // Keys of SAs are known from their events.
      }
    }
  }
}

std::vector<std::pair<std::string, uint64_t>> Invariants::evaluated() const {
  std::vector<std::pair<std::string, uint64_t>> counts;
  for (size_t i = 0; i < kInvariants; ++i) {
    const auto invariant = static_cast<Invariant>(i);
    counts.emplace_back(invariantName(invariant), evaluated(invariant));
  }
  return counts;
}

void Invariants::scan(std::string_view output) {
  const char* const found = secrets_.find(output);
  if (findings_.violated(Invariant::noSecretInOutput, found == nullptr)) {
    findings_.add(Invariant::noSecretInOutput, {.detail = "output"}, found);  // Not the line.
  }
}

void Invariants::handleRouterUp(Router& router) {
  checks_->packets.handleRouterUp(router);
  checks_->accounting.handleRouterUp(router);
  checks_->entities.push_back(
      std::make_unique<EntityChecks>(router, checks_->packets.windows(), findings_));
}

void Invariants::handleRouterDown(Router& router) {
  checks_->packets.handleRouterDown(router);
  std::erase_if(checks_->entities, [&](const auto& each) { return &each->router() == &router; });
}

void Invariants::handleInnerPacket(Router& router, const ConnectionKey&, BytesView) {
  checks_->accounting.handleInnerPacket(router);
}

void Invariants::handlePublished(const std::string& router, const Controller::PeerKeyInfo* record) {
  if (record == nullptr) {
    return;
  }
  secrets_.publish(record->nonce);
  for (const auto& entities : checks_->entities) {
    if (entities->router().name() == router) {
      entities->handlePublished(*record);
    }
  }
}

void Invariants::handleEvent(const Router& router, const LocalEvent& event) {
  const std::string_view name = event.eventName.text();
  if (name == "dhRekeyInitiated") {
    checks_->packets.windows().handleRekeyInitiated(router);
    checks_->tables.handleRekeyInitiated(router);
  } else if (name == "dhRekeyInSaInstalled") {
    checks_->packets.windows().handleRekeyInSaInstalled(router);
  }
}

void Invariants::handleEvent(const Router& router, const PathEvent& event) {
  if (router.path(event.connectionKey) != nullptr) {
    const EndId id = checks_->packets.mesh().find(router, event.connectionKey);
    const std::string_view name = event.eventName.text();
    if (event.pathState == DynamicPathState::rebuild && name.starts_with("markPathsAs")) {
      checks_->packets.windows().handleMarkedForRebuild(id);
    } else if (name == "markPathsAsDhRekeyInitiated") {
      checks_->packets.windows().handleDhRekeyMarked(id);
    }
    checks_->paths.handleEvent(id, event);
  }
}

void Invariants::handleEvent(const Router& router, const SecurityAssociationKey& key,
                             const ConnectionKey&, const SaEvent&) {
  // Some SAs do not live until the next look.
  if (const auto* const sa = router.entities().tesselV1->sa().find(key)) {
    secrets_.add((*sa)->cryptoKey().view(), "encryption key of an SA");
    secrets_.add((*sa)->authKey().view(), "integrity key of an SA");
  }
}

void Invariants::handleEnd() {
  checks_.reset();
  findings_.labIs(nullptr);
  lab_ = nullptr;
}

}  // namespace tessel::lab
