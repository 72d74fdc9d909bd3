#include "lab/fuzz/FaultKind.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <utility>

#include "lab/fuzz/Draws.h"
#include "lab/fuzz/FuzzCase.h"

namespace tessel::lab {
namespace {

/// What begins a fault and what ends it.
struct Actions {
  Action begin;
  std::optional<Action> end{};
};

/// Draws what is hit, and how hard.
class Target {
 public:
  Target(const Scenario& mesh, SmallRandom& random) : mesh_(mesh), random_(random) {}

  SmallRandom& random() { return random_; }
  double between(double low, double high) { return drawBetween(random_, low, high); }
  Duration span(double low, double high) { return drawSpan(random_, low, high); }

  const RouterPlan& router() { return drawOne(random_, mesh_.routers); }
  const PathPlan& path() { return drawOne(random_, mesh_.paths); }
  /// One of the two routers of a path, or with a chance of `both` neither: both are meant.
  std::string end(const PathPlan& path, double both = 0) {
    const std::string& router = path.ends[random_.below(2)].router;
    return random_.chance(both) ? std::string() : router;
  }
  const ControllerPlan& controller() { return drawOne(random_, mesh_.controllers); }
  const Scenario& mesh() const { return mesh_; }

 private:
  const Scenario& mesh_;
  SmallRandom& random_;
};

/// A change of a link that is taken back by the same change to `usual`.
template <class T>
Actions linkFault(Target& target, std::optional<T> ChangeLink::*member, T value, T usual) {
  const PathPlan& path = target.path();
  ChangeLink begin{.path = path.name, .from = target.end(path, 0.5)};
  ChangeLink end = begin;
  begin.*member = value;
  end.*member = usual;
  return {.begin = begin, .end = end};
}

Actions rateFault(Target& target, std::optional<double> ChangeLink::*member, double low,
                  double high) {
  return linkFault(target, member, target.between(low, high), 0.0);
}

Actions cut(Target& target, bool oneWay) {
  const PathPlan& path = target.path();
  const std::string from = oneWay ? target.end(path) : std::string();
  return {.begin = CutLink{.path = path.name, .from = from},
          .end = RestoreLink{.path = path.name, .from = from}};
}

Actions burstLoss(Target& target) {
  const PathPlan& path = target.path();
  ChangeLink begin{.path = path.name, .from = target.end(path, 0.5)};
  ChangeLink end = begin;
  begin.burstStart = target.between(0.001, 0.1);
  begin.burstEnd = target.between(0.02, 0.5);
  end.burstStart = 0;
  return {.begin = begin, .end = end};
}

/// Half of the faults up to so late that the receiver's window of 64 packets has moved on.
Actions reorder(Target& target) {
  const PathPlan& path = target.path();
  ChangeLink begin{.path = path.name, .from = target.end(path, 0.5)};
  ChangeLink end = begin;
  begin.reordering = target.between(0.01, 0.5);
  begin.reorderDelay = target.span(0.05, 60);
  if (target.random().chance(0.5)) {
    const Scenario& mesh = target.mesh();
    const Duration interval =
        mesh.traffic.empty() ? mesh.probes.interval : mesh.traffic.front().interval;
    begin.reorderDelay = std::min(interval * static_cast<double>(1 + target.random().below(200)),
                                  kLongestReordering);
  }
  end.reordering = 0;
  return {.begin = begin, .end = end};
}

Actions disturbDelivery(Target& target) {
  const std::string& router = target.router().name;
  DisturbDelivery begin{.router = router};
  const auto share = [&] {
    return target.random().chance(0.5) ? std::optional(target.between(0.01, 1)) : std::nullopt;
  };
  begin.repeat = share();
  begin.reorder = share();
  begin.stale = share();
  begin.late = target.span(0.1, 60);
  if (target.random().chance(0.5)) {
    begin.coalesce = target.span(1, 300);
  } else if (!begin.repeat && !begin.reorder) {
    begin.stale = target.between(0.01, 1);
  }
  return {.begin = begin, .end = SettleDelivery{.router = router}};
}

Actions disturbInstallation(Target& target) {
  const std::string& router = target.router().name;
  DisturbInstallation begin{.router = router, .delay = target.span(0.05, 10)};
  if (target.random().chance(0.2)) {
    begin.fail = target.between(0.01, 0.1);
  }
  return {.begin = begin, .end = SettleInstallation{.router = router}};
}

Actions loseController(Target& target) {
  const std::string& router = target.router().name;
  const std::string controller =
      target.random().chance(0.5) ? target.controller().name : std::string();
  return {.begin = LoseControllers{.router = router, .controller = controller},
          .end = RestoreControllers{.router = router, .controller = controller}};
}

Actions slowController(Target& target) {
  const RouterPlan& router = target.router();
  return {.begin = ChangeControllerDelay{.router = router.name, .delay = target.span(1, 60)},
          .end = ChangeControllerDelay{.router = router.name,
                                       .delay = router.settings.controllerDelay}};
}

Actions withdrawRecord(Target& target) {
  const PathPlan& path = target.path();
  const std::string at = target.end(path);
  const std::string& router = path.ends[path.ends[0].router == at ? 1 : 0].router;
  return {.begin = WithdrawRecord{.router = router, .at = at},
          .end = RestoreRecord{.router = router, .at = at}};
}

Actions slowInstallation(Target& target) {
  const RouterPlan& router = target.router();
  return {.begin = ChangeInstallDelay{.router = router.name, .delay = target.span(0.1, 5)},
          .end = ChangeInstallDelay{.router = router.name, .delay = router.settings.installDelay}};
}

Actions failInstallation(Target& target) {
  using enum FailInstallation::Which;
  const PathPlan& path = target.path();
  const std::string router = target.end(path, 0.2);
  return {.begin = FailInstallation{.path = path.name,
                                    .router = router,
                                    .how = target.random().chance(0.5)
                                               ? FailInstallation::How::refused
                                               : FailInstallation::How::unreported,
                                    .which = drawOne(target.random(), std::array{both, in, out}),
                                    .times = static_cast<uint32_t>(1 + target.random().below(3))},
          .end = RestoreInstallation{.path = path.name, .router = router}};
}

Actions failGeneration(Target& target) {
  FailGeneration begin{.router = target.router().name,
                       .what = target.random().chance(0.5) ? FailGeneration::What::nonce
                                                           : FailGeneration::What::dhKey,
                       .times = static_cast<uint32_t>(1 + target.random().below(3))};
  FailGeneration end = begin;
  end.times = 0;
  return {.begin = begin, .end = end};
}

Actions changeProfile(Target& target) {
  const RouterPlan& router = target.router();
  if (target.random().chance(0.5)) {
    return {.begin = RemoveProfile{.router = router.name},
            .end = RestoreProfile{.router = router.name}};
  }
  return {.begin = ChangeProfile{.router = router.name},
          .end = ChangeProfile{.router = router.name, .profile = router.settings.profile.name}};
}

Actions changeRouterId(Target& target) {
  const RouterPlan& router = target.router();
  // Outside of what the mesh uses: 203.0.113.0/24, RFC 5737.
  const IpGenAddr other =
      target.random().chance(0.25)
          ? IpGenAddr()
          : IpGenAddr::fromV4(0xCB007100 + 1 + static_cast<uint32_t>(target.random().below(250)));
  return {.begin = ChangeRouterId{.router = router.name, .routerId = other},
          .end = ChangeRouterId{.router = router.name, .routerId = router.routerId}};
}

Actions removePath(Target& target) {
  const PathPlan& path = target.path();
  const std::string router = target.end(path, 0.5);
  return {.begin = RemovePath{.path = path.name, .router = router},
          .end = AddPath{.path = path.name, .router = router}};
}

Actions changePathStatus(Target& target) {
  const PathPlan& path = target.path();
  const std::string router = target.end(path, 0.5);
  if (target.random().chance(0.3)) {
    return {.begin = SetConnectionStatus{.path = path.name, .router = router},
            .end = SetConnectionStatus{
                .path = path.name, .router = router, .state = path.condition.connection}};
  }
  SetPath begin{.path = path.name, .router = router};
  SetPath end = begin;
  const auto member =
      drawOne(target.random(), std::array{&SetPath::up, &SetPath::allowed, &SetPath::enabled});
  begin.*member = false;
  end.*member = true;
  return {.begin = begin, .end = end};
}

Actions changeLifetimes(Target& target) {
  const std::string& router = target.router().name;
  const auto lifetime = static_cast<uint32_t>(900 + target.random().below(2700));
  if (target.random().chance(0.5)) {
    return {.begin = ChangeSa{.router = router, .lifetime = lifetime}};
  }
  return {.begin = ChangeKeyController{
              .router = router, .dhKeyLifetime = lifetime, .holdTime = lifetime}};
}

/// Something that the peers have to refuse.
Actions mismatch(Target& target) {
  const RouterPlan& router = target.router();
  if (target.random().chance(0.5)) {
    const IpsecDhGroup usual = router.settings.group;
    return {
        .begin = ChangeKeyController{.router = router.name,
                                     .group = usual == IpsecDhGroup::ecp256 ? IpsecDhGroup::ecp384
                                                                            : IpsecDhGroup::ecp256},
        .end = ChangeKeyController{.router = router.name, .group = usual}};
  }
  const EncryptionAlgo usual = router.settings.profile.sa.encryption;
  return {.begin = ChangeSa{.router = router.name,
                            .encryption = usual == EncryptionAlgo::aes128Gcm128
                                              ? EncryptionAlgo::aes256Gcm128
                                              : EncryptionAlgo::aes128Gcm128},
          .end = ChangeSa{.router = router.name, .encryption = usual}};
}

Actions turnKnob(Target& target) {
  const std::string& router = target.router().name;
  if (target.random().chance(0.5)) {
    return {.begin = ForcePathActive{.router = router, .on = true},
            .end = ForcePathActive{.router = router, .on = false}};
  }
  return {.begin = SetDhExpiry{.router = router, .time = target.span(300, 900)},
          .end = SetDhExpiry{.router = router}};
}

Actions quietTraffic(Target& target) {
  if (target.random().chance(0.5)) {
    const std::string& router = target.router().name;
    return {.begin = StopTraffic{.from = router}, .end = StartTraffic{.from = router}};
  }
  const PathPlan& path = target.path();
  const std::string router = target.end(path, 0.5);
  return {.begin = SetProbes{.path = path.name, .router = router, .on = false},
          .end = SetProbes{.path = path.name, .router = router, .on = true}};
}

Actions onPath(Target& target, auto make) {
  const PathPlan& path = target.path();
  const std::string end = target.end(path, 0.2);
  return {.begin = make(path.name, end)};
}

struct KindRow {
  FaultKind kind;
  const char* name;
  /// How long a fault lasts that does not pass by itself, in seconds.
  double shortest;
  double longest;
  /// How many of them come in a row, a second or so apart.
  uint32_t burst;
  Actions (*draw)(Target&);
};

Actions drawRestart(Target& target) {
  return {.begin = RestartRouter{.router = target.router().name, .downFor = target.span(0.1, 300)}};
}
Actions drawPause(Target& target) {
  const std::string& router = target.router().name;
  return {.begin = PauseRouter{router}, .end = ResumeRouter{router}};
}
Actions drawPeerRemoved(Target& target) {
  const std::string& router = target.router().name;
  return {.begin = RemoveRouter{router}, .end = AddRouter{router}};
}

constexpr double kLong = 900;
const KindRow kKinds[] = {
    {FaultKind::loss, "loss", 5, kLong, 1,
     [](Target& t) { return rateFault(t, &ChangeLink::loss, 0.005, 0.5); }},
    {FaultKind::burstLoss, "burst-loss", 5, kLong, 1, burstLoss},
    {FaultKind::delay, "delay", 5, kLong, 1,
     [](Target& t) {
       const PathPlan& path = t.path();
       ChangeLink begin{.path = path.name, .from = t.end(path, 0.5)};
       ChangeLink end = begin;
       begin.latency = t.span(0.05, 2);
       end.latency = path.link.latency;
       return Actions{.begin = begin, .end = end};
     }},
    {FaultKind::jitter, "jitter", 5, kLong, 1,
     [](Target& t) { return linkFault(t, &ChangeLink::jitter, t.span(0.01, 1), Duration()); }},
    {FaultKind::reordering, "reordering", 5, kLong, 1, reorder},
    {FaultKind::duplication, "duplication", 5, kLong, 1,
     [](Target& t) { return rateFault(t, &ChangeLink::duplication, 0.01, 1); }},
    {FaultKind::replay, "replay", 5, kLong, 1,
     [](Target& t) { return rateFault(t, &ChangeLink::replay, 0.01, 0.5); }},
    {FaultKind::bitFlips, "bit-flips", 5, kLong, 1,
     [](Target& t) { return rateFault(t, &ChangeLink::corruption, 0.01, 0.5); }},
    {FaultKind::oneWayCut, "one-way-cut", 1, kLong, 1, [](Target& t) { return cut(t, true); }},
    {FaultKind::twoWayCut, "two-way-cut", 1, kLong, 1, [](Target& t) { return cut(t, false); }},
    {FaultKind::flap, "flap", 0.1, 10, 8, [](Target& t) { return cut(t, false); }},
    {FaultKind::controllerLost, "controller-lost", 1, 2 * kLong, 1, loseController},
    {FaultKind::allControllersLost, "all-controllers-lost", 1, 2 * kLong, 1,
     [](Target&) { return Actions{.begin = LoseControllers{}, .end = RestoreControllers{}}; }},
    {FaultKind::controllersFlap, "controllers-flap", 0.1, 10, 8, loseController},
    {FaultKind::slowController, "slow-controller", 10, kLong, 1, slowController},
    {FaultKind::disturbedDelivery, "disturbed-delivery", 10, kLong, 1, disturbDelivery},
    {FaultKind::recordWithdrawn, "record-withdrawn", 0.1, kLong, 1, withdrawRecord},
    {FaultKind::restart, "restart", 0, 0, 1, drawRestart},
    {FaultKind::pause, "pause", 1, 600, 1, drawPause},
    {FaultKind::slowInstallation, "slow-installation", 10, kLong, 1, slowInstallation},
    {FaultKind::disturbedInstallation, "disturbed-installation", 10, kLong, 1, disturbInstallation},
    {FaultKind::failingInstallation, "failing-installation", 10, kLong, 1, failInstallation},
    {FaultKind::failingGeneration, "failing-generation", 10, kLong, 1, failGeneration},
    {FaultKind::restartedCounters, "restarted-counters", 0, 0, 1,
     [](Target& t) {
       return onPath(t, [](const std::string& path, const std::string& router) {
         return RestartCounters{.path = path, .router = router};
       });
     }},
    {FaultKind::peerRemoved, "peer-removed", 0.1, kLong, 1, drawPeerRemoved},
    {FaultKind::profile, "profile", 0.1, 300, 1, changeProfile},
    {FaultKind::routerId, "router-id", 1, 300, 1, changeRouterId},
    {FaultKind::pathRemoved, "path-removed", 0.1, kLong, 1, removePath},
    {FaultKind::pathStatus, "path-status", 0.1, kLong, 1, changePathStatus},
    {FaultKind::mergeData, "merge-data", 0, 0, 1,
     [](Target& t) {
       return onPath(t, [](const std::string& path, const std::string& router) {
         return ChangeMergeData{.path = path, .router = router};
       });
     }},
    {FaultKind::lifetimes, "lifetimes", 0, 0, 1, changeLifetimes},
    {FaultKind::mismatch, "mismatch", 1, kLong, 1, mismatch},
    {FaultKind::clear, "clear", 0, 0, 1,
     [](Target& t) {
       return onPath(t, [](const std::string& path, const std::string& router) {
         return ClearPath{.path = path, .router = router};
       });
     }},
    {FaultKind::forcedSaRekey, "forced-sa-rekey", 0, 0, 3,
     [](Target& t) {
       return onPath(t, [](const std::string& path, const std::string& router) {
         return ForceSaRekey{.path = path, .router = router};
       });
     }},
    {FaultKind::forcedDhRekey, "forced-dh-rekey", 0, 0, 2,
     [](Target& t) { return Actions{.begin = ForceDhRekey{t.router().name}}; }},
    {FaultKind::knobs, "knobs", 10, kLong, 1, turnKnob},
    {FaultKind::quietTraffic, "quiet-traffic", 10, kLong, 1, quietTraffic},
};
static_assert(std::size(kKinds) == kFaultKinds);

const KindRow& rowOf(FaultKind kind) {
  return kKinds[static_cast<size_t>(kind)];
}

/// To the millisecond, so that a time survives being written and read.
Duration rounded(double value) {
  return seconds(std::round(value * 1000) / 1000);
}

}  // namespace

const char* faultKindName(FaultKind kind) {
  return rowOf(kind).name;
}

std::vector<Fault> drawFaults(FaultKind kind, const Scenario& mesh, SmallRandom& random,
                              Duration from, Duration to) {
  const KindRow& row = rowOf(kind);
  const double span = (to - from).seconds();
  // A large mesh has more that can break.
  // Long runs have as many faults in an hour as short ones.
  const double part = std::min(span, 2 * 3600.0);
  const double gap = drawSpan(random, part / 30, part / 2).seconds() /
                     (1 + static_cast<double>(mesh.paths.size()) / 20);
  std::vector<Fault> faults;
  Target target(mesh, random);
  double at = from.seconds() + gap * random.uniform();
  while (at < to.seconds()) {
    double each = at;
    for (uint64_t left = 1 + random.below(row.burst); left > 0 && each < to.seconds(); --left) {
      Actions actions = row.draw(target);
      Fault fault{.kind = kind, .begin = {.at = rounded(each), .action = actions.begin}};
      if (actions.end) {
        const double length = drawSpan(random, row.shortest, row.longest).seconds();
        fault.end = TimelineEntry{.at = rounded(std::min(each + length, to.seconds())),
                                  .action = *actions.end};
      }
      if (auto* restart = std::get_if<RestartRouter>(&fault.begin.action)) {
        restart->downFor = std::min(restart->downFor, to - fault.begin.at);
      }
      faults.push_back(std::move(fault));
      each += random.uniform() * 2;
    }
    at += gap * (0.5 + random.uniform());
  }
  return faults;
}

}  // namespace tessel::lab
