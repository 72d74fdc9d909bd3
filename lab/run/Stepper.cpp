#include "lab/run/Stepper.h"

#include <algorithm>
#include <utility>

#include "lab/run/DataPlaneWatch.h"
#include "lab/run/Lab.h"

namespace tessel::lab {

/// Sees which packets are steps, from one start of a router to the next stop.
class Stepper::Packets final : public DataPlaneWatch {
 public:
  Packets(Stepper& owner, Router& router) : DataPlaneWatch(router), owner_(owner) {}

 private:
  bool wantsPackets() const override { return owner_.lab_ != nullptr; }
  // Told just before the packet itself is.
  void handleNonceSent(const SaReport&, uint32_t /*nonceWord*/) override {
    nonceChanged_ = wantsPackets();
  }
  void handlePacketSent(const PacketSent& packet) override {
    const RouterPath& path = *router().path(packet.sa->path);
    if (std::exchange(nonceChanged_, false) || packet.sa->pkts == 1) {
      owner_.direction(path.link, path.linkEnd)
          .news.push_back(path.link->counts(path.linkEnd).sent);
    }
  }

  Stepper& owner_;
  bool nonceChanged_ = false;
};

size_t Stepper::Direction::ordinary() const {
  const size_t waiting = link->waiting(from);
  return news.empty() ? waiting : news.front() - (link->counts(from).sent - waiting);
}

bool Stepper::Direction::stepWaits() const {
  return !news.empty() && ordinary() == 0;
}

Stepper::Stepper() = default;

Stepper::~Stepper() = default;

void Stepper::hold(Lab& lab) {
  lab_ = &lab;
  for (const std::unique_ptr<Router>& router : lab.routers()) {
    installDelays_.push_back(std::exchange(router->settings().installDelay, Duration::never()));
  }
  for (const PathPlan& path : lab.scenario().paths) {
    for (const LinkEnd from : {LinkEnd::a, LinkEnd::b}) {
      Link& link = lab.link(path.name);
      link.heldIs(from, true);
      directions_.push_back({.link = &link,
                             .from = from,
                             .receiver = path.ends[static_cast<size_t>(otherEnd(from))].router,
                             .path = path.name});
    }
  }
  lab.controllers().heldIs(true);
}

void Stepper::release() {
  for (const std::unique_ptr<Router>& router : lab_->routers()) {
    router->settings().installDelay = installDelays_[router->index()];
    while (router->up() && router->dataPlane().installationsWait()) {
      router->dataPlane().installNext();
      lab_->run(Duration());
    }
  }
  for (const Direction& direction : directions_) {
    direction.link->heldIs(direction.from, false);
  }
  lab_->controllers().heldIs(false);
  installDelays_.clear();
  directions_.clear();
  lab_ = nullptr;
}

std::vector<Stepper::Step> Stepper::steps() const {
  using Kind = Step::Kind;
  std::vector<Step> steps;
  for (const std::unique_ptr<Router>& router : lab_->routers()) {
    if (!router->up()) {
      continue;
    }
    if (lab_->controllers().waiting(router->name())) {
      steps.push_back({Kind::record, router->name()});
    }
    if (router->dataPlane().installationsWait()) {
      steps.push_back({Kind::installation, router->name()});
    }
    for (const Direction& direction : directions_) {
      if (direction.receiver == router->name() && direction.stepWaits()) {
        steps.push_back({Kind::packet, router->name(), direction.path});
      }
    }
  }
  return steps;
}

void Stepper::take(const Step& step) {
  switch (step.kind) {
    case Step::Kind::record:
      lab_->controllers().deliverNext(step.router);
      break;
    case Step::Kind::installation:
      lab_->router(step.router).dataPlane().installNext();
      break;
    case Step::Kind::packet:
      for (Direction& direction : directions_) {
        if (direction.receiver == step.router && direction.path == step.path) {
          direction.news.pop_front();
          direction.link->release(direction.from, 1);
        }
      }
      break;
  }
}

void Stepper::releaseOrdinaryPackets() {
  for (const Direction& direction : directions_) {
    direction.link->release(direction.from, direction.ordinary());
  }
}

void Stepper::handleRouterUp(Router& router) {
  packets_.push_back(std::make_unique<Packets>(*this, router));
}

void Stepper::handleRouterDown(Router& router) {
  std::erase_if(packets_, [&](const auto& each) { return &each->router() == &router; });
}

void Stepper::handleEnd() {
  packets_.clear();
  lab_ = nullptr;
}

Stepper::Direction& Stepper::direction(const Link* link, LinkEnd from) {
  return *std::ranges::find_if(
      directions_, [&](const Direction& each) { return each.link == link && each.from == from; });
}

}  // namespace tessel::lab
