#include "lab/router/Router.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace tessel::lab {

RunningRouter::RunningRouter(const Ptr<VirtualTime>& time, const std::string& name,
                             const RouterSettings& settings)
    : scheduler(makePtr<VirtualTimeScheduler>(time, name)),
      dataScheduler(makePtr<VirtualTimeScheduler>(time, name + "/data")),
      entities(*time, settings),
      pathLayer(entities) {
  if (settings.yieldAfter) {
    scheduler->yieldAfterIs(*settings.yieldAfter);
  }
}

RunningRouter::~RunningRouter() {
  // The machine goes first, while what it watches is still there.
  machine = nullptr;
  dataPlane.reset();
}

Router::Router(const RouterPlan& plan, uint32_t index, uint64_t seed, Ptr<VirtualTime> time,
               Controllers& controllers, RouterObserver& observer)
    : name_(plan.name),
      index_(index),
      time_(std::move(time)),
      controllers_(controllers),
      observer_(observer),
      settings_(plan.settings),
      routerId_(plan.routerId),
      vtepAddress_(plan.routerId),
      appliedProfile_(plan.settings.profile.name),
      installRandom_(streamSeed(seed, name_ + "/installation")) {
  controllers_.routerIs(name_, settings_.controllerDelay);
}

Router::~Router() = default;

ProfileSettings* Router::profile(const std::string& profileName) {
  if (profileName.empty() || profileName == settings_.profile.name) {
    return &settings_.profile;
  }
  const auto found =
      std::ranges::find(settings_.otherProfiles, profileName, &ProfileSettings::name);
  return found == settings_.otherProfiles.end() ? nullptr : &*found;
}

bool Router::profileRemoved(const std::string& profileName) const {
  return std::ranges::find(removedProfiles_, profileName) != removedProfiles_.end();
}

void Router::profileRemovedIs(const std::string& profileName, bool removed) {
  std::erase(removedProfiles_, profileName);
  if (removed) {
    removedProfiles_.push_back(profileName);
  }
}

RouterPath& Router::pathAdd(const PathEnd& end, Link& link, LinkEnd linkEnd) {
  if (pathsByKey_.has(end.key)) {
    throw std::invalid_argument("router " + name_ + ": two paths with the key " +
                                stringValue(end.key));
  }
  paths_.push_back(
      std::make_unique<RouterPath>(RouterPath{.end = end, .link = &link, .linkEnd = linkEnd}));
  pathsByKey_.emplace(end.key, paths_.back().get());
  return *paths_.back();
}

RouterPath* Router::path(const std::string& pathName) const {
  const auto found =
      std::ranges::find_if(paths_, [&](const auto& path) { return path->end.name == pathName; });
  return found == paths_.end() ? nullptr : found->get();
}

RouterPath* Router::path(const ConnectionKey& key) const {
  RouterPath* const* found = pathsByKey_.find(key);
  return found == nullptr ? nullptr : *found;
}

void Router::start() {
  if (running_) {
    return;
  }
  ++starts_;
  running_ = std::make_unique<RunningRouter>(time_, name_, settings_);
  post([this](RunningRouter&) { bringUp(); });
}

void Router::stop() {
  if (!running_) {
    return;
  }
  observer_.handleRouterDown(*this);
  controllers_.detach(name_);
  for (const std::unique_ptr<RouterPath>& path : paths_) {
    path->link->detach(path->linkEnd);
  }
  running_.reset();
}

void Router::post(std::function<void(RunningRouter&)> job) {
  if (running_) {
    running_->scheduler->at(time_->monotonicTime(), [this, start = starts_, job = std::move(job)] {
      if (running_ && start == starts_) {
        job(*running_);
      }
    });
  }
}

void Router::pausedIs(bool paused) {
  if (running_) {
    running_->scheduler->pausedIs(paused);
  }
}

RunningRouter& Router::running() const {
  if (!up()) {
    throw std::logic_error("router " + name_ + " is down");
  }
  return *running_;
}

PathView Router::pathView(const std::string& pathName) const {
  const RouterPath* found = path(pathName);
  if (found == nullptr) {
    throw std::invalid_argument("router " + name_ + " has no path \"" + pathName + "\"");
  }
  return {found->end.key, entities().ipsecStatus, dataPlane()};
}

PathView Router::pathTo(const Router& peer, size_t nth) const {
  for (const std::unique_ptr<RouterPath>& path : paths_) {
    if (path->end.peer == peer.name() && nth-- == 0) {
      return {path->end.key, entities().ipsecStatus, dataPlane()};
    }
  }
  throw std::invalid_argument("router " + name_ + " has not so many paths to " + peer.name());
}

Ptr<Ike::PeerConnectionState> Router::peer(const Router& peer) const {
  return entities().ipsecStatus->ipsecPeerConnectionState(peer.routerId());
}

Ike::KeyControllerConfig Router::keyController() const {
  return {.enabled = 1,
          .profileName = appliedProfile_,
          .dhKeyLifetime = settings_.dhKeyLifetime,
          .holdTime = settings_.holdTime,
          .dhGroup = settings_.group};
}

void Router::bringUp() {
  RunningRouter& agent = *running_;
  RouterEntities& entities = agent.entities;
  const auto configure = [&](const ProfileSettings& profile) {
    writeProfile(*entities.ipsecConfig, profile);
    if (profileRemoved(profile.name)) {
      entities.ipsecConfig->ipsecProfileDel(profile.name);
    }
  };
  configure(settings_.profile);
  std::ranges::for_each(settings_.otherProfiles, configure);
  entities.ipsecConfig->keyControllerIs(keyController());
  entities.ipsecDpsPathConfig->routerIdIs(routerId_);

  agent.dataPlane = std::make_unique<DataPlane>(
      DataPlane::Host{.scheduler = agent.dataScheduler,
                      .table = entities.tesselV1,
                      .ipsecStatus = entities.ipsecStatus,
                      .counterTable = entities.ipsecCounterTable,
                      .localAddress = vtepAddress_},
      [this](const ConnectionKey& key, Bytes outer) {
        const RouterPath& path = *this->path(key);
        path.link->send(path.linkEnd, std::move(outer));
      },
      [this](const ConnectionKey& key, BytesView inner) {
        observer_.handleInnerPacket(*this, key, inner);
      });
  agent.dataPlane->probeIntervalIs(probeInterval_);
  agent.dataPlane->mutantIs(mutant_);
  agent.pathLayer.mutantIs(mutant_);
  agent.dataPlane->installPlanIs([this](const SaReport& sa) { return planInstall(sa); });
  connectPaths();

  controllers_.attach(name_, {.scheduler = agent.scheduler,
                              .localKeyDir = entities.ipsecLocalKeyDir,
                              .peerKeyDir = entities.ipsecPeerKeyDir,
                              .status = entities.controllerStatus});
  observer_.handleRouterUp(*this);
  agent.machine = Ipsec::tesselV1SmFactory(agent.scheduler, entities);

  for (const std::unique_ptr<RouterPath>& path : paths_) {
    if (path->wanted()) {
      agent.pathLayer.add(path->end);
    }
  }
}

void Router::connectPaths() {
  for (const std::unique_ptr<RouterPath>& path : paths_) {
    running_->dataPlane->probesIs(path->end.key, path->probes);
    path->link->attach(path->linkEnd, running_->dataScheduler, [this](Bytes outer) {
      running_->dataPlane->receivePacket(std::move(outer));
    });
  }
}

InstallPlan Router::planInstall(const SaReport& sa) {
  using Fault = FailInstallation;
  InstallPlan plan{.delay = settings_.installDelay};
  if (installDisturbance_) {
    // Both numbers, whatever they are for: one fault leaves the other as it is.
    const double share = installRandom_.uniform();
    plan.fails = installRandom_.uniform() < installDisturbance_->fail.value_or(0);
    if (installDisturbance_->delay) {
      plan.delay = *installDisturbance_->delay * share;
    }
  }
  RouterPath* const at = path(sa.path);
  if (at == nullptr || !at->installFault) {
    return plan;
  }
  RouterPath::InstallFault& fault = *at->installFault;
  if (fault.which != Fault::Which::both && (fault.which == Fault::Which::in) != sa.inbound) {
    return plan;
  }
  switch (fault.how) {
    case Fault::How::refused:
      plan.fails = true;
      break;
    case Fault::How::unreported:
      plan.reported = false;
      break;
  }
  if (fault.times && --*fault.times == 0) {
    at->installFault.reset();
  }
  return plan;
}

}  // namespace tessel::lab
