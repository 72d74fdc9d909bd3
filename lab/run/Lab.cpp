#include "lab/run/Lab.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "host/facility/Toggles.h"
#include "lab/run/Actions.h"
#include "lab/run/Expectations.h"
#include "lab/run/Mutants.h"
#include "lab/toggles/LoadToggles.h"

namespace tessel::lab {
namespace {

// Of events that fall due together, those of the timeline come before everything else and checks
// come last.
constexpr int kActionPriority = -1;
constexpr int kCheckPriority = 1000;

bool labExists = false;

const IpGenAddr& addressSeenByPeer(const PathEndPlan& end) {
  return end.publicAddress.isUnspecified() ? end.address : end.publicAddress;
}

template <class Members>
size_t indexByName(const Members& members, const std::string& name, const char* what) {
  const auto found =
      std::ranges::find_if(members, [&](const auto& member) { return member.name == name; });
  if (found == members.end()) {
    throw std::invalid_argument(std::string("no ") + what + " \"" + name + "\"");
  }
  return static_cast<size_t>(found - members.begin());
}

}  // namespace

/// Where everything that can be watched comes together: the lab's own bookkeeping first, then the
/// observers.
class Lab::Hub final : public LabObserver, public AgentLogSink, public TraceSink {
 public:
  Hub(Lab& lab, std::vector<LabObserver*> observers)
      : lab_(lab), observers_(std::move(observers)) {}

  void handleRouterUp(Router& router) override {
    RouterHistory& history = lab_.history(router);
    history.handleStart();
    router.entities().recordEvents->observerIs(&history);
    router.dataPlane().observerAdd(history);
    lab_.traffic_->handleRouterUp(router);
    tell([&](LabObserver& each) { each.handleRouterUp(router); });
  }
  void handleRouterDown(Router& router) override {
    tell([&](LabObserver& each) { each.handleRouterDown(router); });
    if (router.up()) {
      router.entities().recordEvents->observerIs(nullptr);
    }
  }
  void handleInnerPacket(Router& router, const ConnectionKey& path, BytesView inner) override {
    lab_.traffic_->handleInnerPacket(router, path, inner);
    tell([&](LabObserver& each) { each.handleInnerPacket(router, path, inner); });
  }

  void handlePublished(const std::string& router, const Controller::PeerKeyInfo* record) override {
    tell([&](LabObserver& each) { each.handlePublished(router, record); });
  }
  void handleDelivered(const std::string& router, const IpGenAddr& originator,
                       const Controller::PeerKeyInfo* record) override {
    tell([&](LabObserver& each) { each.handleDelivered(router, originator, record); });
  }
  void handleConnected(const std::string& router, bool connected) override {
    tell([&](LabObserver& each) { each.handleConnected(router, connected); });
  }

  void handleAction(const TimelineEntry& entry) override {
    tell([&](LabObserver& each) { each.handleAction(entry); });
  }
  void handleVerdict(const Verdict& verdict) override {
    tell([&](LabObserver& each) { each.handleVerdict(verdict); });
  }

  void handleEvent(const Router& router, const LocalEvent& event) override {
    tell([&](LabObserver& each) { each.handleEvent(router, event); });
  }
  void handleEvent(const Router& router, const PeerEvent& event) override {
    tell([&](LabObserver& each) { each.handleEvent(router, event); });
  }
  void handleEvent(const Router& router, const PathEvent& event) override {
    tell([&](LabObserver& each) { each.handleEvent(router, event); });
  }
  void handleEvent(const Router& router, const SecurityAssociationKey& key,
                   const ConnectionKey& path, const SaEvent& event) override {
    tell([&](LabObserver& each) { each.handleEvent(router, key, path, event); });
  }

  void log(const AgentLogLine& line) override {
    lab_.log_.push_back({.time = line.time,
                         .router = std::string(line.context),
                         .identifier = std::string(line.identifier),
                         .severity = line.severity,
                         .text = std::string(line.text)});
    for (const std::unique_ptr<Router>& router : lab_.routers_) {
      if (router->name() == line.context) {
        lab_.history(*router).handleLog(line);
      }
    }
    if (lab_.scenario_.mutant == Mutant::printsKey) {
      lab_.log_.back().text += lab_.anyKey();
    }
    tell([&](LabObserver& each) { each.handleLog(line); });
  }
  void trace(const TraceLine& line) override {
    tell([&](LabObserver& each) { each.handleTrace(line); });
  }

  /// The routers that the lab stops now do not go down in its story.
  void handleEnd() override {
    tell([](LabObserver& each) { each.handleEnd(); });
    observers_.clear();
  }

 private:
  template <class Call>
  void tell(Call call) {
    for (LabObserver* observer : observers_) {
      call(*observer);
    }
  }

  Lab& lab_;
  std::vector<LabObserver*> observers_;
};

Lab::Lab(Scenario scenario, std::vector<LabObserver*> observers)
    : scenario_(std::move(scenario)),
      time_(makePtr<VirtualTime>()),
      scheduler_(makePtr<VirtualTimeScheduler>(time_, "lab")) {
  if (std::exchange(labExists, true)) {
    throw std::logic_error("there is another lab in this process");
  }
  try {
    hub_ = std::make_unique<Hub>(*this, std::move(observers));
    build();
  } catch (...) {
    labExists = false;
    throw;
  }
  // The generators of the C library and of keys, both from the one seed.
  srandom(static_cast<unsigned>(scenario_.seed));
  random_ = makePtr<LabRandom>(scenario_.seed);
  RandomSource::currentIs(random_);
  AgentLog::sinkIs(hub_.get());
  for (const auto& [name, state] : scenario_.toggles) {
    Toggles::toggleIs(toggleFileName, name, state);
  }
}

Lab::~Lab() {
  hub_->handleEnd();
  for (const std::unique_ptr<Router>& router : routers_) {
    router->stop();
  }
  tracingIs(false);
  AgentLog::sinkIs(nullptr);
  RandomSource::currentIs(nullptr);
  Toggles::reset();
  labExists = false;
}

Router& Lab::router(const std::string& name) const {
  return *routers_[indexByName(scenario_.routers, name, "router")];
}

Link& Lab::link(const std::string& path) const {
  return *links_[indexByName(scenario_.paths, path, "path")];
}

RouterHistory& Lab::history(const std::string& router) const {
  return history(this->router(router));
}

void Lab::runUntil(Duration end) {
  time_->runUntil(end);
}

void Lab::finish() {
  if (std::exchange(finished_, true)) {
    throw std::logic_error("the lab has finished already");
  }
  runUntil(scenario_.duration);
  for (const Expectation& expectation : scenario_.expectations) {
    if (expectation.at.isNever()) {
      check(expectation);
    }
  }
}

void Lab::establishPaths(Duration within) {
  const Duration end = now() + within;
  while (!pathsUp()) {
    if (!time_->runNext(end)) {
      throw std::runtime_error(firstPathDown() + " is not up at " + stringValue(end));
    }
  }
}

std::string Lab::firstPathDown() const {
  for (const std::unique_ptr<Router>& router : routers_) {
    for (const std::unique_ptr<RouterPath>& path : router->paths()) {
      if (!router->present() || !path->wanted()) {
        continue;
      }
      const ConnectionKey& key = path->end.key;
      const auto isInstalledIn = [](const SaReport& sa) {
        return sa.inbound && sa.state == SaInstallState::installed;
      };
      if (!router->up() || !router->dataPlane().sendingSa(key) ||
          std::ranges::none_of(router->dataPlane().sas(key), isInstalledIn)) {
        return "path " + path->end.name + " at " + router->name();
      }
    }
  }
  return {};
}

void Lab::apply(const Action& action) {
  applyAction(*this, action);
  runUntil(now());
}

std::string Lab::anyKey() const {
  std::string digits;
  for (const std::unique_ptr<Router>& router : routers_) {
    if (router->up() && digits.empty() && !router->entities().tesselV1->sa().keys().empty()) {
      const auto key = router->entities().tesselV1->sa().keys().front();
      for (const uint8_t byte :
           (*router->entities().tesselV1->sa().find(key))->cryptoKey().view()) {
        digits += fmt::format("{:02x}", byte);
      }
    }
  }
  return digits;
}

bool Lab::held() const {
  return std::ranges::all_of(verdicts_, &Verdict::held);
}

void Lab::tracingIs(bool tracing) {
  Trace::sinkIs(tracing ? hub_.get() : nullptr);
}

void Lab::at(Duration when, std::function<void()> job) {
  scheduler_->at(when, std::move(job), kActionPriority);
}

void Lab::build() {
  buildRouters();
  buildPaths();
  buildTraffic();
  for (const std::unique_ptr<Router>& router : routers_) {
    if (router->present()) {
      router->start();
    }
  }
  scheduleTimeline();
  scheduleChecks();
  startMutant(*this);
}

void Lab::buildRouters() {
  Controllers::Audience audience = [this](const std::string& originator,
                                          const std::string& receiver) {
    if (scenario_.distribution == Distribution::everyone) {
      return true;
    }
    const auto& paths = router(originator).paths();
    return std::ranges::any_of(paths, [&](const auto& path) { return path->end.peer == receiver; });
  };
  controllers_ = std::make_unique<Controllers>(scenario_.controllers, std::move(audience),
                                               hub_.get(), scenario_.seed);
  controllers_->mutantIs(scenario_.mutant);
  for (const RouterPlan& plan : scenario_.routers) {
    const auto index = static_cast<uint32_t>(routers_.size());
    routers_.push_back(
        std::make_unique<Router>(plan, index, scenario_.seed, time_, *controllers_, *hub_));
    routers_.back()->presentIs(plan.present);
    routers_.back()->mutantIs(scenario_.mutant);
    routers_.back()->probeIntervalIs(scenario_.probes.on ? scenario_.probes.interval
                                                         : Duration::never());
    histories_.push_back(std::make_unique<RouterHistory>(*routers_.back(), *hub_));
  }
}

void Lab::buildPaths() {
  for (const PathPlan& plan : scenario_.paths) {
    const auto number = static_cast<uint32_t>(links_.size() + 1);
    links_.push_back(std::make_unique<Link>(plan.link, scenario_.seed * 1'000'003 + number));
    for (const LinkEnd linkEnd : {LinkEnd::a, LinkEnd::b}) {
      const PathEndPlan& own = plan.ends[static_cast<size_t>(linkEnd)];
      const PathEndPlan& other = plan.ends[static_cast<size_t>(otherEnd(linkEnd))];
      Router& router = this->router(own.router);
      const Router& peer = this->router(other.router);
      RouterPath& path = router.pathAdd({.name = plan.name,
                                         .key = {.vrfId = 0,
                                                 .srcAddr = own.address,
                                                 .dstAddr = addressSeenByPeer(other),
                                                 .connId = number},
                                         .peer = peer.name(),
                                         .peerAddr = peer.routerId(),
                                         .publicAddr = own.publicAddress,
                                         .localPort = own.port,
                                         .remotePort = other.port,
                                         .index = number,
                                         .reqid = number,
                                         .condition = plan.condition},
                                        *links_.back(), linkEnd);
      path.configured = plan.present;
      path.peerPresent = peer.present();
      if (!own.publicAddress.isUnspecified()) {
        links_.back()->translationIs(linkEnd, Link::Translation{.privateAddr = own.address,
                                                                .publicAddr = own.publicAddress});
      }
    }
  }
}

void Lab::buildTraffic() {
  traffic_ = std::make_unique<Traffic>(time_);
  for (const FlowPlan& flow : scenario_.traffic) {
    for (const std::string& pathName : flow.paths) {
      const PathPlan& plan = scenario_.paths[indexByName(scenario_.paths, pathName, "path")];
      for (const size_t end : {0U, 1U}) {
        const std::string& from = plan.ends[end].router;
        if (flow.from.empty() || flow.from == from) {
          Router& sender = router(from);
          traffic_->streamAdd(flow, sender, *sender.path(pathName),
                              router(plan.ends[1 - end].router));
        }
      }
    }
  }
}

void Lab::scheduleTimeline() {
  for (const FlowPlan& flow : scenario_.traffic) {
    for (const auto& [when, running] : {std::pair(flow.start, true), std::pair(flow.stop, false)}) {
      if (!when.isNever()) {
        at(when, [this, &flow, on = running] { traffic_->runningIs(flow.name, {}, on); });
      }
    }
  }
  for (const TimelineEntry& entry : scenario_.timeline) {
    at(entry.at, [this, &entry] {
      hub_->handleAction(entry);
      applyAction(*this, entry.action);
    });
  }
}

void Lab::scheduleChecks() {
  for (const Expectation& expectation : scenario_.expectations) {
    if (!expectation.at.isNever()) {
      scheduler_->at(
          expectation.at, [this, &expectation] { check(expectation); }, kCheckPriority);
    }
  }
}

void Lab::check(const Expectation& expectation) {
  verdicts_.push_back(checkExpectation(*this, expectation));
  hub_->handleVerdict(verdicts_.back());
}

}  // namespace tessel::lab
