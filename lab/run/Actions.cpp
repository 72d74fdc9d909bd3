#include "lab/run/Actions.h"

#include <algorithm>
#include <stdexcept>
#include <variant>

#include "host/crypto/DhGroup.h"
#include "lab/run/Lab.h"
#include "lab/run/Selection.h"

namespace tessel::lab {
namespace {

/// A profile of a router, or an error that names both.
ProfileSettings& profileOf(Router& router, const std::string& name) {
  ProfileSettings* const found = router.profile(name);
  if (found == nullptr) {
    throw std::invalid_argument("router " + router.name() + " has no profile \"" + name + "\"");
  }
  return *found;
}

template <class T>
void assignIf(T& target, const std::optional<T>& value) {
  if (value) {
    target = *value;
  }
}

class Actor {
 public:
  explicit Actor(Lab& lab) : lab_(lab) {}

  // Rekeys, traffic and links.

  void operator()(const ForceSaRekey& action) {
    forEachEnd(action, [](Router& router, RouterPath& path) {
      router.post([key = path.end.key](RunningRouter& agent) {
        if (const auto& knob = agent.entities.ipsecStatus->testKnob()->pathTestKnob(key)) {
          knob->saRekeyTriggerIs(true);
        }
      });
    });
  }

  void operator()(const StartTraffic& action) {
    lab_.traffic().runningIs(action.flow, action.from, true);
  }
  void operator()(const StopTraffic& action) {
    lab_.traffic().runningIs(action.flow, action.from, false);
  }

  void operator()(const SetProbes& action) {
    forEachEnd(action, [on = action.on](Router& router, RouterPath& path) {
      path.probes = on;
      if (router.up()) {
        router.dataPlane().probesIs(path.end.key, on);
      }
    });
  }

  void operator()(const CutLink& action) { cut(action.path, action.from, true); }
  void operator()(const RestoreLink& action) { cut(action.path, action.from, false); }

  void operator()(const ChangeLink& action) {
    forEachEnd(action.path, action.from, [&](Router&, RouterPath& path) {
      path.link->settingsIs(path.linkEnd, changedLink(path.link->settings(path.linkEnd), action));
    });
  }

  void operator()(const ClearPath& action) {
    forEachEnd(action, [](Router& router, RouterPath& path) {
      router.post([key = path.end.key](RunningRouter& agent) {
        // A new counter is a first request already.
        if (const Ptr<Ike::ClearPathCounter> counter = agent.entities.ipsecStatus->clearKey(key)) {
          counter->clearCntInc(1);
        } else {
          agent.entities.ipsecStatus->clearKeyIs(key);
        }
      });
    });
  }

  void operator()(const ChangeInstallDelay& action) {
    forEachRouter(action.router, [delay = action.delay](Router& router) {
      router.settings().installDelay = delay;
    });
  }

  void operator()(const ForcePathActive& action) {
    forEachRouter(action.router, [on = action.on](Router& router) {
      router.post([on](RunningRouter& agent) {
        agent.entities.ipsecStatus->testKnob()->forcePathActiveIs(on);
      });
    });
  }

  // Paths.

  void operator()(const SetPath& action) {
    forEachEnd(action, [&](Router& router, RouterPath& path) {
      assignIf(path.end.condition.up, action.up);
      assignIf(path.end.condition.allowed, action.allowed);
      assignIf(path.end.condition.enabled, action.enabled);
      update(router, path);
    });
  }

  void operator()(const SetConnectionStatus& action) {
    forEachEnd(action, [&](Router& router, RouterPath& path) {
      path.end.condition.connection = action.state;
      update(router, path);
    });
  }

  void operator()(const ChangeMergeData& action) {
    forEachEnd(action, [](Router& router, RouterPath& path) {
      router.post([key = path.end.key](RunningRouter& agent) { agent.pathLayer.announce(key); });
    });
  }

  void operator()(const RemovePath& action) { configuredIs(action, false); }
  void operator()(const AddPath& action) { configuredIs(action, true); }

  // Controllers and records.

  void operator()(const LoseControllers& action) {
    lab_.controllers().connectedIs(action.router, action.controller, false);
  }
  void operator()(const RestoreControllers& action) {
    lab_.controllers().connectedIs(action.router, action.controller, true);
  }
  void operator()(const ChangeControllerDelay& action) {
    if (action.router.empty()) {
      lab_.controllers().controllerDelayIs(action.controller, action.delay);
    } else {
      lab_.controllers().routerDelayIs(action.router, action.delay);
    }
  }
  void operator()(const CorruptRecord& action) {
    forEachRouter(action.router, [&](Router& router) {
      lab_.controllers().corrupt(router.name(), action.at, action.fault, action.nextPublication);
    });
  }
  void operator()(const WithdrawRecord& action) {
    forEachRouter(action.router, [&](Router& router) {
      lab_.controllers().withdrawRecord(router.name(), action.at);
    });
  }
  void operator()(const RestoreRecord& action) {
    forEachRouter(action.router, [&](Router& router) {
      lab_.controllers().restoreRecord(router.name(), action.at);
    });
  }

  void operator()(const DisturbDelivery& action) {
    forEachRouter(action.router,
                  [&](Router& router) { lab_.controllers().disturb(router.name(), action); });
  }
  void operator()(const SettleDelivery& action) {
    forEachRouter(action.router, [&](Router& router) { lab_.controllers().settle(router.name()); });
  }

  // Keys and configuration.

  void operator()(const ForceDhRekey& action) {
    forEachRouter(action.router, [](Router& router) {
      router.post([](RunningRouter& agent) {
        agent.entities.ipsecStatus->testKnob()->dhRekeyTriggerIs(true);
      });
    });
  }

  void operator()(const SetDhExpiry& action) {
    forEachRouter(action.router, [time = action.time](Router& router) {
      router.post([time](RunningRouter& agent) {
        agent.entities.ipsecStatus->testKnob()->dhExpiryTimeIs(time);
      });
    });
  }

  void operator()(const ChangeKeyController& action) {
    forEachRouter(action.router, [&](Router& router) {
      assignIf(router.settings().dhKeyLifetime, action.dhKeyLifetime);
      assignIf(router.settings().holdTime, action.holdTime);
      assignIf(router.settings().group, action.group);
      writeKeyController(router);
    });
  }

  void operator()(const ChangeProfile& action) {
    forEachRouter(action.router, [&](Router& router) {
      router.appliedProfileIs(action.profile);
      writeKeyController(router);
    });
  }

  void operator()(const RemoveProfile& action) {
    forEachRouter(action.router, [&](Router& router) {
      const std::string name = profileOf(router, action.profile).name;
      router.profileRemovedIs(name, true);
      router.post([name](RunningRouter& agent) {
        agent.entities.ipsecConfig->ipsecProfileDel(name);
        notifyProfile(agent.entities, name);
      });
    });
  }

  void operator()(const RestoreProfile& action) {
    forEachRouter(action.router, [&](Router& router) {
      const ProfileSettings& profile = profileOf(router, action.profile);
      router.profileRemovedIs(profile.name, false);
      rewriteProfile(router, profile);
    });
  }

  void operator()(const ChangeSa& action) {
    forEachRouter(action.router, [&](Router& router) {
      ProfileSettings& profile = profileOf(router, action.profile);
      SaSettings& sa = profile.sa;
      const auto preferred = std::ranges::min_element(sa.suites, {}, &CryptoSuitePlan::preference);
      const bool hasSuite = preferred != sa.suites.end();
      assignIf(hasSuite ? preferred->encryption : sa.encryption, action.encryption);
      assignIf(hasSuite ? preferred->integrity : sa.integrity, action.integrity);
      assignIf(sa.lifetime, action.lifetime);
      assignIf(sa.packetLimit, action.packetLimit);
      assignIf(sa.byteLimit, action.byteLimit);
      if (!router.profileRemoved(profile.name)) {
        rewriteProfile(router, profile);
      }
    });
  }

  void operator()(const ChangeRouterId& action) {
    forEachRouter(action.router, [&](Router& router) {
      router.routerIdIs(action.routerId);
      router.post([id = action.routerId](RunningRouter& agent) {
        agent.entities.ipsecDpsPathConfig->routerIdIs(id);
      });
      if (action.routerId.isUnspecified()) {
        return;  // The path layers of the others still know it by its old address.
      }
      forEachOtherEnd(router, [&](Router& peer, RouterPath& path) {
        path.end.peerAddr = action.routerId;
        update(peer, path);
        peer.post([key = path.end.key](RunningRouter& agent) { agent.pathLayer.announce(key); });
      });
    });
  }

  // Routers and faults.

  void operator()(const RestartRouter& action) {
    forEachRouter(action.router, [&](Router& router) {
      router.stop();
      if (action.downFor > Duration()) {
        lab_.at(lab_.now() + action.downFor, [&router] { startIfPresent(router); });
      } else {
        startIfPresent(router);
      }
    });
  }

  void operator()(const RemoveRouter& action) {
    forEachRouter(action.router, [&](Router& router) {
      router.presentIs(false);
      router.stop();
      lab_.controllers().withdraw(router.name());
      forEachOtherEnd(router, [](Router& peer, RouterPath& path) {
        path.peerPresent = false;
        configure(peer, path);
      });
    });
  }

  void operator()(const AddRouter& action) {
    forEachRouter(action.router, [&](Router& router) {
      router.presentIs(true);
      router.start();
      forEachOtherEnd(router, [](Router& peer, RouterPath& path) {
        path.peerPresent = true;
        configure(peer, path);
      });
    });
  }

  void operator()(const PauseRouter& action) {
    forEachRouter(action.router, [](Router& router) { router.pausedIs(true); });
  }
  void operator()(const ResumeRouter& action) {
    forEachRouter(action.router, [](Router& router) { router.pausedIs(false); });
  }

  void operator()(const FailGeneration& action) {
    forEachRouter(action.router, [&](Router& router) {
      const DhGroup* group = DhGroup::find(getDhGroupNum(router.settings().group));
      lab_.random().failNext(router.name(), action.what, action.times,
                             group == nullptr ? 0 : group->privateKeyLen());
    });
  }

  void operator()(const FailInstallation& action) {
    forEachEnd(action, [&](Router&, RouterPath& path) {
      path.installFault = {.how = action.how, .which = action.which, .times = action.times};
    });
  }
  void operator()(const RestoreInstallation& action) {
    forEachEnd(action, [](Router&, RouterPath& path) { path.installFault.reset(); });
  }
  void operator()(const DisturbInstallation& action) {
    forEachRouter(action.router, [&](Router& router) { router.installDisturbanceIs(action); });
  }
  void operator()(const SettleInstallation& action) {
    forEachRouter(action.router, [](Router& router) { router.installDisturbanceIs(std::nullopt); });
  }
  void operator()(const RestartCounters& action) {
    forEachEnd(action, [](Router& router, RouterPath& path) {
      if (router.up()) {
        router.dataPlane().restartCounters(path.end.key);
      }
    });
  }

 private:
  /// Every router, or the one of that name.
  template <class Body>
  void forEachRouter(const std::string& name, Body body) {
    for (Router* const router : selectRouters(lab_, name)) {
      body(*router);
    }
  }

  /// Every end of every path, where either can be narrowed down by a name.
  template <class Body>
  void forEachEnd(const std::string& pathName, const std::string& routerName, Body body) {
    const auto ends = selectEnds(selectRouters(lab_, routerName), pathName);
    if (ends.empty() && !pathName.empty()) {
      throw std::invalid_argument("no path \"" + pathName + "\" at " +
                                  (routerName.empty() ? "any router" : routerName));
    }
    for (const SelectedEnd& end : ends) {
      body(end.router, end.path);
    }
  }
  template <class ActionOnPath, class Body>
  void forEachEnd(const ActionOnPath& action, Body body) {
    forEachEnd(action.path, action.router, body);
  }

  /// The far end of every path of a router.
  template <class Body>
  void forEachOtherEnd(Router& router, Body body) {
    for (const std::unique_ptr<RouterPath>& path : router.paths()) {
      Router& peer = lab_.router(path->end.peer);
      body(peer, *peer.path(path->end.name));
    }
  }

  void cut(const std::string& path, const std::string& from, bool cut) {
    forEachEnd(path, from, [cut](Router&, RouterPath& end) { end.link->cutIs(end.linkEnd, cut); });
  }

  template <class ActionOnPath>
  void configuredIs(const ActionOnPath& action, bool configured) {
    forEachEnd(action, [configured](Router& router, RouterPath& path) {
      path.configured = configured;
      configure(router, path);
    });
  }

  /// Brings the path layer in line with whether a path is wanted.
  static void configure(Router& router, const RouterPath& path) {
    router.post([&path](RunningRouter& agent) {
      if (!path.wanted()) {
        agent.pathLayer.remove(path.end.key);
      } else if (!agent.pathLayer.has(path.end.key)) {
        agent.pathLayer.add(path.end);
      }
    });
  }

  static void update(Router& router, const RouterPath& path) {
    router.post([end = path.end](RunningRouter& agent) { agent.pathLayer.update(end); });
  }

  static void writeKeyController(Router& router) {
    router.post([settings = router.keyController()](RunningRouter& agent) {
      agent.entities.ipsecConfig->keyControllerIs(settings);
    });
  }

  static void rewriteProfile(Router& router, const ProfileSettings& profile) {
    router.post([profile](RunningRouter& agent) {
      writeProfile(*agent.entities.ipsecConfig, profile);
      notifyProfile(agent.entities, profile.name);
    });
  }

  static void startIfPresent(Router& router) {
    if (router.present()) {
      router.start();
    }
  }

  Lab& lab_;
};

}  // namespace

void applyAction(Lab& lab, const Action& action) {
  std::visit(Actor(lab), action);
}

}  // namespace tessel::lab
