#include "lab/fuzz/FuzzRun.h"

#include <algorithm>
#include <set>
#include <utility>

#include <fmt/format.h>

#include "lab/check/AtRest.h"
#include "lab/fuzz/RunDigest.h"
#include "lab/run/Lab.h"
#include "lab/scenario/WriteScenario.h"
#include "sm/LocalKey.h"

namespace tessel::lab {
namespace {

constexpr Duration kSanityPass = seconds(60);
constexpr Duration kLook = seconds(10);
/// More than the latency and the jitter of any link that is drawn.
constexpr Duration kLongestTransit = seconds(10);

/// Installations that go on when the last fault ends are over by then.
constexpr Duration kRefusalSeen = kSanityPass + kLook;

class FuzzRun {
 public:
  explicit FuzzRun(const FuzzCase& drawn)
      : drawn_(drawn), lab_(drawn.scenario(), {&invariants_, &digest_}) {}

  FuzzOutcome play() {
    outcome_.seed = drawn_.mesh.seed;
    outcome_.restBound = restBound(drawn_.mesh);
    invariants_.start(lab_);
    lab_.runUntil(drawn_.faultsEnd);
    if (drawn_.mesh.duration <= drawn_.faultsEnd) {
      finish();  // A case cut short, to see how it fails before that.
      return std::move(outcome_);
    }
    if (!comesToRest(drawn_.faultsEnd)) {
      cureSplitRoles();
      cureRefusedSas();
      cureLeftoverSas();
      cureRoutersWithoutKey();
      const uint32_t cured = outcome_.splitRoles + outcome_.refusedPaths + outcome_.leftoverPaths +
                             outcome_.routersNoKey;
      if (cured == 0 || !comesToRest(lab_.now())) {
        add("comes-to-rest", disturbed_, unrest_);
      }
    }
    if (outcome_.held()) {
      losesNothing();
    }
    finish();
    return std::move(outcome_);
  }

 private:
  /// Lets time run until every path and every router has been at rest since `begin`, though not all
  /// at once: rekeys go on. False when that takes too long.
  bool comesToRest(Duration begin) {
    std::vector<const PathPlan*> paths;
    for (const PathPlan& path : lab_.scenario().paths) {
      paths.push_back(&path);
    }
    std::vector<const Router*> routers;
    for (const std::unique_ptr<Router>& router : lab_.routers()) {
      routers.push_back(router.get());
    }
    for (;;) {
      if (lab_.now() - begin == kRefusalSeen) {
        noteRefusedSas();  // A rebuild may end the wait, but late.
      }
      std::erase_if(paths, [&](const PathPlan* path) { return isAtRest(*path); });
      for (const PathPlan* path : paths) {
        noteLeftoverSa(*path);
      }
      std::erase_if(routers, [&](const Router* router) {
        std::string why = whyNotAtRest(*router);
        return why.empty() || (unrest_ = why, disturbed_ = {.routers = {router->name()}}, false);
      });
      if (paths.empty() && routers.empty()) {
        outcome_.restAfter = lab_.now() - begin;
        return true;
      }
      if (lab_.now() - begin >= outcome_.restBound) {
        return false;
      }
      lab_.run(kLook);
    }
  }

  bool isAtRest(const PathPlan& path) {
    std::string why = whyNotAtRest(lab_, path);
    if (why.empty()) {
      return true;
    }
    unrest_ = std::move(why);
    disturbed_ = placeOf(path);
    return false;
  }

  // What docs/limits.md tells an operator to do.

  void cureRefusedSas() {
    for (const PathPlan& path : lab_.scenario().paths) {
      if (whyNotAtRest(lab_, path).empty()) {
        continue;
      }
      const bool waits = waitsForSa(path);
      if (waits) {
        lab_.apply(ClearPath{.path = path.name});
      }
      // A DH rekey may have ended the wait, but late.
      outcome_.refusedPaths += waits || refused_.contains(path.name) ? 1 : 0;
    }
  }

  void noteRefusedSas() {
    for (const PathPlan& path : lab_.scenario().paths) {
      if (waitsForSa(path)) {
        refused_.insert(path.name);
      }
    }
  }

  bool waitsForSa(const PathPlan& path) const { return waitsForSa(path, 0) || waitsForSa(path, 1); }
  /// Whether an SA of the path was never reported as installed, and for longer than that can take.
  bool waitsForSa(const PathPlan& path, int end) const {
    const Router& router = lab_.router(path.ends[end].router);
    const auto& entities = router.entities();
    const std::vector<SaReport> sas = router.dataPlane().sas(router.path(path.name)->end.key);
    return std::ranges::any_of(sas, [&](const SaReport& sa) {
      return lab_.now() - sa.handedOverAt > kSanityPass &&
             entities.ipsecCounterTable->saCounterEntry(sa.key).addTime == 0;
    });
  }

  void cureLeftoverSas() {
    for (const PathPlan& path : lab_.scenario().paths) {
      if (leftover_.contains(path.name) && !whyNotAtRest(lab_, path).empty()) {
        ++outcome_.leftoverPaths;
        lab_.apply(ClearPath{.path = path.name});
      }
    }
  }

  /// Whether an end that is in no rekey keeps an in-SA of one: only the next takes it away.
  void noteLeftoverSa(const PathPlan& path) {
    for (const PathEndPlan& end : path.ends) {
      const Router& router = lab_.router(end.router);
      if (!router.up()) {
        continue;
      }
      const PathView here = router.pathView(path.name);
      if (here.state() == DynamicPathState::active && here.saSmState() == SmState::idle &&
          !here.sas(SaType::saRekeyIn).empty()) {
        leftover_.insert(path.name);
      }
    }
  }

  void cureSplitRoles() {
    std::set<std::pair<std::string, std::string>> pairs;
    for (const PathPlan& path : lab_.scenario().paths) {
      const std::pair pair(path.ends[0].router, path.ends[1].router);
      if (!whyNotAtRest(lab_, path).empty() && rolesAreSplit(lab_, path) &&
          pairs.insert(pair).second) {
        ++outcome_.splitRoles;
        lab_.apply(RestartRouter{.router = pair.first});
      }
    }
  }

  void cureRoutersWithoutKey() {
    if (std::ranges::none_of(drawn_.faults, [](const Fault& fault) {
          return fault.kind == FaultKind::failingGeneration;
        })) {
      return;
    }
    for (const std::unique_ptr<Router>& router : lab_.routers()) {
      if (router->up() && router->machine().localKey().localKeyInfo().empty()) {
        ++outcome_.routersNoKey;
        lab_.apply(RestartRouter{.router = router->name()});
      }
    }
  }

  void losesNothing() {
    // What was under way when the last fault ended must not count.
    lab_.runUntil(std::max(lab_.now(), drawn_.faultsEnd + kLongestReordering) + kLongestTransit);
    const std::vector<StreamCounts> before = lab_.traffic().streams();
    lab_.runUntil(std::max(lab_.now(), drawn_.mesh.duration));
    const std::vector<StreamCounts> after = lab_.traffic().streams();
    for (size_t i = 0; i < after.size(); ++i) {
      const uint64_t lost = after[i].packets.lost - before[i].packets.lost;
      if (lost > 0) {
        add("rest-loses-nothing", placeOf(*lab_.scenario().path(after[i].path)),
            fmt::format("{} packets from {}", lost, after[i].from));
      }
    }
  }

  void finish() {
    outcome_.routers = static_cast<uint32_t>(lab_.routers().size());
    outcome_.paths = static_cast<uint32_t>(lab_.scenario().paths.size());
    outcome_.played = lab_.now();
    for (const Fault& fault : drawn_.faults) {
      ++outcome_.faults[static_cast<size_t>(fault.kind)];
    }
    for (const PathPlan& path : lab_.scenario().paths) {
      for (const LinkEnd end : {LinkEnd::a, LinkEnd::b}) {
        outcome_.packets += lab_.link(path.name).counts(end).sent;
      }
    }
    for (const std::unique_ptr<Router>& router : lab_.routers()) {
      const RouterHistory& history = lab_.history(*router);
      outcome_.dhRekeys += history.dhRekeys();
      for (const std::unique_ptr<RouterPath>& path : router->paths()) {
        outcome_.saRekeys += history.saRekeys(path->end.key);
      }
    }
    outcome_.digest = digest_.finish(lab_);
    const std::vector<Violation>& seen = invariants_.violations();
    for (const LoggedLine& line : lab_.log()) {
      invariants_.scan(line.text);
    }
    for (const Violation& violation : outcome_.violations) {
      invariants_.scan(stringValue(violation));
    }
    for (const Violation& violation : std::vector(seen)) {
      invariants_.scan(stringValue(violation));
    }
    invariants_.scan(scenarioText(drawn_.scenario()));
    outcome_.violations.insert(outcome_.violations.begin(), seen.begin(), seen.end());
    for (size_t i = 0; i < kInvariants; ++i) {
      outcome_.evaluated[i] = invariants_.evaluated(static_cast<Invariant>(i));
    }
  }

  void add(const char* invariant, const Place& place, std::string what) {
    outcome_.violations.push_back(violationAt(&lab_, invariant, place, std::move(what)));
  }

  const FuzzCase& drawn_;
  Invariants invariants_;
  RunDigest digest_;
  Lab lab_;
  FuzzOutcome outcome_;
  std::string unrest_;
  Place disturbed_;
  std::set<std::string> refused_;   // Paths.
  std::set<std::string> leftover_;  // Paths.
};

}  // namespace

Duration restBound(const Scenario& scenario) {
  Duration delays;
  for (const ControllerPlan& controller : scenario.controllers) {
    delays = std::max(delays, controller.delay);
  }
  Duration slowest;
  for (const RouterPlan& router : scenario.routers) {
    const RouterSettings& settings = router.settings;
    slowest =
        std::max(slowest, settings.sanityExpiry + kSanityPass * 3 + settings.dhRekeyDelay +
                              kSanityPass + settings.controllerDelay + settings.installDelay * 2);
  }
  // Twice: what ends one end's wait can begin the other's.
  return (delays + slowest) * 2;
}

FuzzOutcome playCase(const FuzzCase& drawn) {
  return FuzzRun(drawn).play();
}

}  // namespace tessel::lab
