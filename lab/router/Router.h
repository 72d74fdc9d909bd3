// Router: one router of the lab, from the settings that outlive it to the agent that runs on it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/runtime/VirtualTime.h"
#include "lab/controller/Controllers.h"
#include "lab/dataplane/DataPlane.h"
#include "lab/net/Link.h"
#include "lab/net/SmallRandom.h"
#include "lab/router/PathLayer.h"
#include "lab/router/PathView.h"
#include "lab/router/RouterEntities.h"
#include "lab/scenario/Scenario.h"
#include "sm/TesselV1Sm.h"

namespace tessel::lab {

class Router;

/// Is told of the life of routers.
class RouterObserver {
 public:
  virtual ~RouterObserver() = default;
  /// The agent's entities and its data plane are there; the machine is made next.
  virtual void handleRouterUp(Router&) {}
  /// Everything of the agent is about to go.
  virtual void handleRouterDown(Router&) {}
  /// An inner packet came out of a path.
  virtual void handleInnerPacket(Router&, const ConnectionKey& /*path*/, BytesView /*inner*/) {}
};

/// A path at one of its routers: what is configured, where it is connected, what is wrong with it.
struct RouterPath {
  PathEnd end;
  Link* link = nullptr;
  LinkEnd linkEnd = LinkEnd::a;
  bool configured = true;   ///< At this router.
  bool peerPresent = true;  ///< The other router is part of the mesh, though it may be down.
  bool probes = true;

  /// SAs that are handed over from now on do not come into use.
  struct InstallFault {
    FailInstallation::How how = FailInstallation::How::refused;
    FailInstallation::Which which = FailInstallation::Which::both;
    std::optional<uint32_t> times{};  ///< Absent: for all of them.
  };
  std::optional<InstallFault> installFault{};

  bool wanted() const { return configured && peerPresent; }
};

/// What runs on a router from one start to the next stop. The agent and the data path have
/// schedulers of their own: an agent that stalls does not stop the packets.
struct RunningRouter {
  RunningRouter(const Ptr<VirtualTime>& time, const std::string& name,
                const RouterSettings& settings);
  RunningRouter(const RunningRouter&) = delete;
  RunningRouter& operator=(const RunningRouter&) = delete;
  ~RunningRouter();

  const Ptr<VirtualTimeScheduler> scheduler;
  const Ptr<VirtualTimeScheduler> dataScheduler;
  RouterEntities entities;
  PathLayer pathLayer;
  std::unique_ptr<DataPlane> dataPlane;
  Ptr<Ipsec::TesselV1Sm> machine;
};

/// A router. Everything that is done to its agent is done in jobs of the agent's scheduler.
class Router {
 public:
  /// `seed` is the scenario's.
  Router(const RouterPlan& plan, uint32_t index, uint64_t seed, Ptr<VirtualTime> time,
         Controllers& controllers, RouterObserver& observer);
  Router(const Router&) = delete;
  Router& operator=(const Router&) = delete;
  ~Router();

  const std::string& name() const { return name_; }
  /// Position among the routers of the scenario, from 0.
  uint32_t index() const { return index_; }

  // What outlives a restart. Changing it alone does not reach a running agent.

  RouterSettings& settings() { return settings_; }
  const RouterSettings& settings() const { return settings_; }
  const IpGenAddr& routerId() const { return routerId_; }
  /// The VTEP interface keeps its address when the configuration names none.
  void routerIdIs(const IpGenAddr& routerId) {
    routerId_ = routerId;
    if (!routerId.isUnspecified()) {
      vtepAddress_ = routerId;
    }
  }
  /// The profile that the key-controller settings name; empty: none.
  const std::string& appliedProfile() const { return appliedProfile_; }
  void appliedProfileIs(const std::string& profile) { appliedProfile_ = profile; }
  /// A profile of the settings by name, the first one for the empty name; null when there is none.
  ProfileSettings* profile(const std::string& profileName);
  /// Whether a profile's configuration has been taken away.
  bool profileRemoved(const std::string& profileName) const;
  void profileRemovedIs(const std::string& profileName, bool removed);

  /// How installations go wrong from now on; nothing: as the settings say.
  void installDisturbanceIs(std::optional<DisturbInstallation> disturbance) {
    installDisturbance_ = std::move(disturbance);
  }

  /// Part of the mesh; one that is not is neither started nor known to others.
  bool present() const { return present_; }
  void presentIs(bool present) { present_ = present; }

  RouterPath& pathAdd(const PathEnd& end, Link& link, LinkEnd linkEnd);
  const std::vector<std::unique_ptr<RouterPath>>& paths() const { return paths_; }
  /// Null when the router has no end of that path.
  RouterPath* path(const std::string& pathName) const;
  RouterPath* path(const ConnectionKey& key) const;

  // The agent.

  /// Brings the agent up in a job at the present time. Nothing happens when it is up.
  void start();
  /// Stops the agent with everything it knew. Not to be called from one of its jobs.
  void stop();
  /// Whether the agent is there: its entities and its data plane, and but for the moment in which
  /// it is made its machine.
  bool up() const { return running_ != nullptr && running_->dataPlane != nullptr; }

  /// Runs `job` in the agent at the present time, behind what waits already; not at all when the
  /// agent is down or goes down before. A paused agent runs it when it is resumed.
  void post(std::function<void(RunningRouter&)> job);
  /// The agent stalls; its data path goes on.
  void pausedIs(bool paused);

  /// The parts of an agent that is up; throws std::logic_error when it is down.
  RunningRouter& running() const;
  RouterEntities& entities() const { return running().entities; }
  Ipsec::TesselV1Sm& machine() const { return *running().machine; }
  DataPlane& dataPlane() const { return *running().dataPlane; }

  /// A path by its name, or the `nth` one towards another router: what the agent says about it.
  /// Throws std::invalid_argument when the router has no such path.
  PathView pathView(const std::string& pathName) const;
  PathView pathTo(const Router& peer, size_t nth = 0) const;
  /// What the agent says about a peer; null when it does not list it.
  Ptr<Ike::PeerConnectionState> peer(const Router& peer) const;

  /// Settings of the agent's key controller, as they are now.
  Ike::KeyControllerConfig keyController() const;

  /// How often idle paths are probed, from the next start on.
  void probeIntervalIs(Duration interval) { probeInterval_ = interval; }
  /// Misbehaves from the next start on.
  void mutantIs(Mutant mutant) { mutant_ = mutant; }

 private:
  void bringUp();
  void connectPaths();
  InstallPlan planInstall(const SaReport& sa);

  const std::string name_;
  const uint32_t index_;
  const Ptr<VirtualTime> time_;
  Controllers& controllers_;
  RouterObserver& observer_;

  RouterSettings settings_;
  IpGenAddr routerId_;
  IpGenAddr vtepAddress_;
  std::string appliedProfile_;
  std::vector<std::string> removedProfiles_;
  std::optional<DisturbInstallation> installDisturbance_;
  SmallRandom installRandom_;
  bool present_ = true;
  Duration probeInterval_ = Duration::never();
  Mutant mutant_ = Mutant::none;
  std::vector<std::unique_ptr<RouterPath>> paths_;
  KeyedCollection<ConnectionKey, RouterPath*> pathsByKey_;

  uint64_t starts_ = 0;
  std::unique_ptr<RunningRouter> running_;
};

}  // namespace tessel::lab
