#include "lab/run/Expectations.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <variant>
#include <vector>

#include <fmt/format.h>

#include "lab/run/Lab.h"
#include "lab/run/Selection.h"
#include "sm/DhRekey.h"
#include "sm/LocalKey.h"
#include "sm/PeerKeys.h"

namespace tessel::lab {
namespace {

std::string boundsText(const Bounds& bounds) {
  if (!bounds.atMost) {
    return fmt::format("at least {}", bounds.atLeast);
  }
  if (*bounds.atMost == bounds.atLeast) {
    return fmt::format("{}", bounds.atLeast);
  }
  if (bounds.atLeast == 0) {
    return fmt::format("at most {}", *bounds.atMost);
  }
  return fmt::format("{} to {}", bounds.atLeast, *bounds.atMost);
}

std::string orAll(const std::string& name) {
  return name.empty() ? "all" : name;
}

/// A table of the machine that an expectation counts, as a scenario names it.
const char* countName(ExpectCount::What what) {
  switch (what) {
    case ExpectCount::What::peers:
      return "peers";
    case ExpectCount::What::readyPeers:
      return "ready-peers";
    case ExpectCount::What::paths:
      return "paths";
    case ExpectCount::What::sas:
      return "sas";
    case ExpectCount::What::lifetimes:
      return "lifetimes";
    case ExpectCount::What::saCounters:
      return "sa-counters";
    case ExpectCount::What::localGenerations:
      return "local-generations";
    case ExpectCount::What::peerGenerations:
      return "peer-generations";
    case ExpectCount::What::cryptoInfos:
      return "crypto-infos";
  }
  return "";
}

/// Collects what contradicts an expectation. Every overload checks one kind of fact.
class Checker {
 public:
  explicit Checker(const Lab& lab) : lab_(lab) {}

  /// What was found instead, empty when the fact holds.
  const std::string& contradictions() const { return text_; }

  void operator()(const ExpectPathState& fact) {
    forEachEnd(fact.path, fact.router, [&](const Router& router, const RouterPath& path) {
      const bool exists = router.up() && router.pathView(path.end.name).exists();
      if (!exists) {
        require(fact.states.empty(), router, path, "absent");
        return;
      }
      const DynamicPathState state = router.pathView(path.end.name).state();
      require(std::ranges::find(fact.states, state) != fact.states.end(), router, path,
              stringValue(state));
    });
  }

  void operator()(const ExpectSaRekeyRole& fact) {
    forEachEnd(fact.path, fact.router, [&](const Router& router, const RouterPath& path) {
      if (!router.up() || !router.pathView(path.end.name).exists()) {
        require(false, router, path, "absent");
        return;
      }
      const SmState role = router.pathView(path.end.name).saSmState();
      require(role == fact.role, router, path, stringValue(role));
    });
  }

  void operator()(const ExpectPeer& fact) {
    forEachRouter(fact.router, [&](const Router& router) {
      if (!fact.peer.empty()) {
        const Router& peer = lab_.router(fact.peer);
        checkPeer(fact, router, peer.name(), router.up() ? router.peer(peer) : nullptr);
        return;
      }
      size_t listed = 0;
      if (router.up()) {
        for (const auto& [address, state] :
             router.entities().ipsecStatus->ipsecPeerConnectionState()) {
          checkPeer(fact, router, address.stringValue(), state);
          ++listed;
        }
      }
      // A router that lists nobody says nothing of its peers, which is not what was expected.
      if (listed == 0 && fact.status) {
        contradict(router.name() + " lists no peer");
      }
    });
  }

  void operator()(const ExpectCount& fact) {
    uint64_t sum = 0;
    forEachRouter(fact.router, [&](const Router& router) { sum += count(fact, router); });
    require(fact.bounds, sum);
  }

  void operator()(const ExpectLost& fact) {
    require(fact.bounds, lab_.traffic().counts(fact.flow, fact.path, fact.from).lost);
  }
  void operator()(const ExpectReceived& fact) {
    require(fact.bounds, lab_.traffic().counts(fact.flow, fact.path, fact.from).received);
  }

  void operator()(const ExpectDrops& fact) {
    DropCounts drops;
    forEachRouter(fact.router,
                  [&](const Router& router) { drops += lab_.history(router).drops(); });
    uint64_t sum = 0;
    std::string reasons;
    for (size_t i = 0; i < kDropReasons; ++i) {
      const auto reason = static_cast<DropReason>(i);
      if ((!fact.reason || fact.reason == reason) && drops[reason] > 0) {
        sum += drops[reason];
        reasons += fmt::format(" {} {}", drops[reason], dropReasonName(reason));
      }
    }
    require(fact.bounds.contains(sum),
            fmt::format("{}{}", sum, reasons.empty() ? "" : ":" + reasons));
  }

  void operator()(const ExpectLog& fact) {
    sumOver(fact, [&](const Router& router) { return lab_.history(router).logged(fact.message); });
  }
  void operator()(const ExpectCounter& fact) {
    sumOver(fact, [&](const Router& router) {
      return router.up() ? machineCounter(router.machine(), fact.counter) : 0;
    });
  }
  void operator()(const ExpectEvents& fact) {
    sumOver(fact, [&](const Router& router) -> uint64_t {
      const RouterHistory& history = lab_.history(router);
      if (fact.path.empty()) {
        return history.events(fact.event);
      }
      const RouterPath* path = router.path(fact.path);
      return path == nullptr ? 0 : history.events(fact.event, path->end.key);
    });
  }
  void operator()(const ExpectHardLimits& fact) {
    sumOver(fact, [&](const Router& router) { return lab_.history(router).sasPastHardLimit(); });
  }

  void operator()(const ExpectGeneration& fact) {
    forEachRouter(fact.router, [&](const Router& router) {
      std::optional<uint64_t> counter;
      if (router.up() && fact.peer.empty()) {
        const Controller::LocalKeyDir& dir = *router.entities().ipsecLocalKeyDir;
        counter = dir.valid() ? std::optional(dir.rekeyCounter()) : std::nullopt;
      } else if (router.up()) {
        const Controller::PeerKeyDir& dir = *router.entities().ipsecPeerKeyDir;
        const IpGenAddr& peer = lab_.router(fact.peer).routerId();
        counter = dir.ipsecPeerKeyInfoHas(peer)
                      ? std::optional(dir.ipsecPeerKeyInfo(peer).rekeyCounter)
                      : std::nullopt;
      }
      if (!counter || !fact.bounds.contains(*counter)) {
        contradict(router.name() + ": " + (counter ? std::to_string(*counter) : "none"));
      }
    });
  }

  void operator()(const ExpectRekeys& fact) {
    if (fact.kind == ExpectRekeys::Kind::dh) {
      forEachRouter(fact.router, [&](const Router& router) {
        const uint64_t rekeys = lab_.history(router).dhRekeys();
        if (!fact.bounds.contains(rekeys)) {
          contradict(fmt::format("{}: {}", router.name(), rekeys));
        }
      });
      return;
    }
    forEachEnd(fact.path, fact.router, [&](const Router& router, const RouterPath& path) {
      const uint64_t rekeys = lab_.history(router).saRekeys(path.end.key);
      require(fact.bounds.contains(rekeys), router, path, std::to_string(rekeys));
    });
  }

  void operator()(const ExpectDhState& fact) {
    forEachRouter(fact.router, [&](const Router& router) {
      if (!router.up()) {
        contradict(router.name() + ": down");
      } else if (const DhRekeyState state = router.machine().dhRekey().dhRekeyState();
                 state != fact.state) {
        contradict(router.name() + ": " + stringValue(state));
      }
    });
  }

  void operator()(const ExpectHoldTimer& fact) {
    forEachRouter(fact.router, [&](const Router& router) {
      if (!router.up()) {
        contradict(router.name() + ": down");
      } else if (const bool running = router.machine().dhRekey().isHoldTimerRunning();
                 running != fact.running) {
        contradict(router.name() + (running ? ": running" : ": stopped"));
      }
    });
  }

 private:
  /// The router of that name, or all that are present.
  std::vector<Router*> routersOf(const std::string& name) const {
    std::vector<Router*> routers = selectRouters(lab_, name);
    std::erase_if(routers,
                  [&](const Router* router) { return name.empty() && !router->present(); });
    return routers;
  }

  template <class Body>
  void forEachRouter(const std::string& name, Body body) {
    for (const Router* const router : routersOf(name)) {
      body(*router);
    }
  }

  template <class Body>
  void forEachEnd(const std::string& pathName, const std::string& routerName, Body body) {
    const auto ends = selectEnds(routersOf(routerName), pathName);
    if (ends.empty()) {
      contradict("no such path");
    }
    for (const SelectedEnd& end : ends) {
      body(end.router, end.path);
    }
  }

  template <class Fact, class CountAt>
  void sumOver(const Fact& fact, CountAt countAt) {
    uint64_t sum = 0;
    forEachRouter(fact.router, [&](const Router& router) { sum += countAt(router); });
    require(fact.bounds, sum);
  }

  void checkPeer(const ExpectPeer& fact, const Router& router, const std::string& peerName,
                 const Ptr<Ike::PeerConnectionState>& peer) {
    std::string found = "absent";
    bool holds = !fact.status;
    if (peer) {
      found = stringValue(peer->peerConnStatus()) + ", " + stringValue(peer->peerDownReason());
      holds = fact.status == peer->peerConnStatus() &&
              (!fact.reason || fact.reason == peer->peerDownReason());
    }
    if (!holds) {
      contradict(fmt::format("{} at {}: {}", peerName, router.name(), found));
    }
  }

  uint64_t count(const ExpectCount& fact, const Router& router) {
    if (!router.up()) {
      return 0;
    }
    const RouterEntities& entities = router.entities();
    const Ptr<Ike::VrfStatus> vrf = entities.ipsecStatus->vrfStatus("default");
    switch (fact.what) {
      case ExpectCount::What::peers:
        return entities.ipsecStatus->ipsecPeerConnectionState().size();
      case ExpectCount::What::readyPeers:
        return sumOverPeers(fact, router, [](const Ike::PeerConnectionState& peer) {
          return peer.peerConnStatus() == PeerConnStatus::ready ? 1U : 0U;
        });
      case ExpectCount::What::paths:
        return sumOverPeers(fact, router, [](const Ike::PeerConnectionState& peer) {
          return peer.pathConnState().size();
        });
      case ExpectCount::What::sas:
        return countSas(fact, router, *vrf);
      case ExpectCount::What::lifetimes:
        return vrf->lifetimeCfg().size();
      case ExpectCount::What::saCounters:
        return entities.ipsecCounterTable->saCounterEntries();
      case ExpectCount::What::localGenerations:
        return router.machine().localKey().localKeyInfo().size();
      case ExpectCount::What::peerGenerations:
        return countPeerGenerations(fact, router);
      case ExpectCount::What::cryptoInfos:
        return sumOverPeers(fact, router, [](const Ike::PeerConnectionState& peer) {
          return peer.dhCryptoInfo().size();
        });
    }
    return 0;
  }

  template <class CountOf>
  uint64_t sumOverPeers(const ExpectCount& fact, const Router& router, CountOf countOf) {
    uint64_t sum = 0;
    for (const auto& [address, peer] : router.entities().ipsecStatus->ipsecPeerConnectionState()) {
      if (fact.peer.empty() || address == lab_.router(fact.peer).routerId()) {
        sum += countOf(*peer);
      }
    }
    return sum;
  }

  uint64_t countSas(const ExpectCount& fact, const Router& router, const Ike::VrfStatus& vrf) {
    const RouterPath* path = fact.path.empty() ? nullptr : router.path(fact.path);
    if (path == nullptr && !fact.path.empty()) {
      return 0;
    }
    uint64_t sum = 0;
    for (const auto& [key, sa] : vrf.tesselSa()) {
      const bool onPath = path == nullptr || router.entities().tesselV1->cpSa(key) == path->end.key;
      sum += onPath && (!fact.saType || sa->saType() == *fact.saType) ? 1 : 0;
    }
    return sum;
  }

  uint64_t countPeerGenerations(const ExpectCount& fact, const Router& router) {
    uint64_t sum = 0;
    for (const auto& [address, list] : router.machine().peerKeys().localPeerKeyInfoList()) {
      if (fact.peer.empty() || address == lab_.router(fact.peer).routerId()) {
        sum += list->peerKeyInfo().size();
      }
    }
    return sum;
  }

  void contradict(const std::string& found) { text_ += (text_.empty() ? "" : ", ") + found; }
  void require(bool holds, const std::string& found) {
    if (!holds) {
      contradict(found);
    }
  }
  void require(const Bounds& bounds, uint64_t found) {
    require(bounds.contains(found), std::to_string(found));
  }
  void require(bool holds, const Router& router, const RouterPath& path, const std::string& found) {
    if (!holds) {
      contradict(fmt::format("{} at {}: {}", path.end.name, router.name(), found));
    }
  }

  const Lab& lab_;
  std::string text_;
};

/// An expectation in words, for those that were not read from a file.
class Describer {
 public:
  std::string operator()(const ExpectPathState& fact) const {
    std::string states = fact.states.empty() ? "absent" : "";
    for (const DynamicPathState state : fact.states) {
      states += (states.empty() ? "" : " or ") + stringValue(state);
    }
    return fmt::format("path {} at {}: {}", orAll(fact.path), orAll(fact.router), states);
  }
  std::string operator()(const ExpectSaRekeyRole& fact) const {
    return fmt::format("SA rekey role of path {} at {}: {}", orAll(fact.path), orAll(fact.router),
                       stringValue(fact.role));
  }
  std::string operator()(const ExpectPeer& fact) const {
    return fmt::format("peer {} at {}: {}{}", orAll(fact.peer), orAll(fact.router),
                       fact.status ? stringValue(*fact.status) : "absent",
                       fact.reason ? ", " + stringValue(*fact.reason) : "");
  }
  std::string operator()(const ExpectCount& fact) const {
    return at(countName(fact.what), fact.router, fact.bounds);
  }
  std::string operator()(const ExpectLost& fact) const { return flow("lost", fact); }
  std::string operator()(const ExpectReceived& fact) const { return flow("received", fact); }
  std::string operator()(const ExpectDrops& fact) const {
    return at(
        std::string("drops ") + (fact.reason ? dropReasonName(*fact.reason) : "for any reason"),
        fact.router, fact.bounds);
  }
  std::string operator()(const ExpectLog& fact) const {
    return at("log messages " + fact.message, fact.router, fact.bounds);
  }
  std::string operator()(const ExpectCounter& fact) const {
    return at("counter " + fact.counter, fact.router, fact.bounds);
  }
  std::string operator()(const ExpectEvents& fact) const {
    return at("events " + fact.event + (fact.path.empty() ? "" : " of path " + fact.path),
              fact.router, fact.bounds);
  }
  std::string operator()(const ExpectHardLimits& fact) const {
    return at("SAs past a hard limit", fact.router, fact.bounds);
  }
  std::string operator()(const ExpectGeneration& fact) const {
    return at(fact.peer.empty() ? "published generation" : "generation of " + fact.peer,
              fact.router, fact.bounds);
  }
  std::string operator()(const ExpectRekeys& fact) const {
    return at(fact.kind == ExpectRekeys::Kind::dh
                  ? "completed DH rekeys"
                  : "completed SA rekeys of path " + orAll(fact.path),
              fact.router, fact.bounds);
  }
  std::string operator()(const ExpectDhState& fact) const {
    return fmt::format("DH rekey at {}: {}", orAll(fact.router), stringValue(fact.state));
  }
  std::string operator()(const ExpectHoldTimer& fact) const {
    return fmt::format("hold timer at {}: {}", orAll(fact.router),
                       fact.running ? "running" : "stopped");
  }

 private:
  static std::string at(const std::string& what, const std::string& router, const Bounds& bounds) {
    return fmt::format("{} at {}: {}", what, orAll(router), boundsText(bounds));
  }
  template <class Fact>
  static std::string flow(const char* what, const Fact& fact) {
    return fmt::format("packets {} of flow {} on path {} from {}: {}", what, orAll(fact.flow),
                       orAll(fact.path), orAll(fact.from), boundsText(fact.bounds));
  }
};

}  // namespace

Verdict checkExpectation(const Lab& lab, const Expectation& expectation) {
  Checker checker(lab);
  std::visit(checker, expectation.fact);
  return {.at = lab.now(),
          .line = expectation.line,
          .expected = expectation.text.empty() ? std::visit(Describer(), expectation.fact)
                                               : expectation.text,
          .held = checker.contradictions().empty(),
          .found = checker.contradictions()};
}

uint64_t machineCounter(const Ipsec::TesselV1Sm& machine, const std::string& name) {
  using Sm = Ipsec::TesselV1Sm;
  static const std::vector<std::pair<std::string, uint32_t (Sm::*)() const>> counters = {
      {"peerKeyTaskNewKey", &Sm::peerKeyTaskNewKey},
      {"peerKeyTaskDelKey", &Sm::peerKeyTaskDelKey},
      {"peerKeyTaskRekey", &Sm::peerKeyTaskRekey},
      {"peerKeyTaskNewKeyWithDel", &Sm::peerKeyTaskNewKeyWithDel},
      {"peerKeyTaskNoOp", &Sm::peerKeyTaskNoOp},
      {"pathAddCnt", &Sm::pathAddCnt},
      {"pathDelCnt", &Sm::pathDelCnt},
      {"connChangeCnt", &Sm::connChangeCnt},
      {"lostConnectionToPfs", &Sm::lostConnectionToPfs},
      {"restoredConnectionToPfs", &Sm::restoredConnectionToPfs}};
  const auto found = std::ranges::find(counters, name, [](const auto& each) { return each.first; });
  if (found == counters.end()) {
    throw std::invalid_argument("no counter \"" + name + "\"");
  }
  return (machine.*found->second)();
}

}  // namespace tessel::lab
