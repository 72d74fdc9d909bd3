// Crossings: two procedures on one path that cross, in every order of their steps.
//
// A step is the start of a procedure, or what reaches a router next: a record, the first packet on
// an SA or with another nonce word, the installation of the SAs that were handed over together. The
// lab holds all of them and takes one at a time, and the router looks at its counters behind it. A
// run goes on with any step that is possible; the runs together are all orders that can happen.
//
// Steps at different routers commute: each touches the state of its own router, and what it sends
// waits as a step of the other. Orders that differ in that alone are one order, and it is run once:
// with a's steps as early as they can be. Acts through the controllers read what both have
// published, so they commute with nothing.
#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "lab/check/AtRest.h"
#include "lab/check/Invariants.h"
#include "lab/run/Lab.h"
#include "lab/run/Mesh.h"
#include "lab/run/Stepper.h"
#include "sm/DhRekey.h"
#include "tests/rekey/Runs.h"

namespace tessel::lab {
namespace {

const std::string kRouters[] = {"a", "b"};
const std::string kPath = "a-b-1";

constexpr Duration kPass = seconds(60);
constexpr Duration kExpiry = seconds(180);
/// Two rekeys, one after the other, each with three passes: the first packets of the new SAs,
/// complete, active. Or an expiry, that is found at a pass, and two passes. And one to begin with.
constexpr Duration kUntilRest = kPass * 7;
constexpr Duration kLook = seconds(10);

// What crosses.

enum class Kind { saRekey, dhRekey, clear, restart, pfLoss, removal };

struct Procedure {
  Kind kind;
  size_t at;  ///< Where it starts; of a removal: where the other's record goes and comes back.
  friend bool operator==(const Procedure&, const Procedure&) = default;
};

const Procedure kProcedures[] = {{Kind::saRekey, 0}, {Kind::saRekey, 1}, {Kind::dhRekey, 0},
                                 {Kind::dhRekey, 1}, {Kind::clear, 0},   {Kind::clear, 1},
                                 {Kind::restart, 1}, {Kind::pfLoss, 0},  {Kind::removal, 0}};

std::string name(const Procedure& procedure) {
  static const char* const names[] = {"SaRekey", "DhRekey", "Clear",
                                      "Restart", "PfLoss",  "Removal"};
  return names[static_cast<size_t>(procedure.kind)] + std::string(procedure.at == 0 ? "A" : "B");
}

struct Pair {
  Procedure first;
  Procedure second;

  bool has(Kind kind) const { return first.kind == kind || second.kind == kind; }
  bool have(Kind kind, Kind other) const {
    return (first.kind == kind && second.kind == other) ||
           (first.kind == other && second.kind == kind);
  }
  bool sameRouter() const { return first.at == second.at; }
};

/// Every procedure with itself and every other. What both routers can do is not done the other way
/// round as well: every pair is run with either router as the DH initiator.
std::vector<Pair> allPairs() {
  const auto isAtEither = [](const Procedure& each) { return each.kind <= Kind::clear; };
  std::vector<Pair> pairs;
  for (size_t i = 0; i < std::size(kProcedures); ++i) {
    for (size_t j = i; j < std::size(kProcedures); ++j) {
      const Pair pair{kProcedures[i], kProcedures[j]};
      if (pair.first.at == 0 || !isAtEither(pair.first) || !isAtEither(pair.second)) {
        pairs.push_back(pair);
      }
    }
  }
  return pairs;
}

/// When packets may be lost at the latest.
enum class Loss {
  never,
  steps,   ///< In the steps: a path or a router is gone, or its SAs are made again.
  expiry,  ///< Until one end expires, which has SAs of an SA rekey that the other one lost.
};

Loss allowedLoss(const Pair& pair) {
  const bool taken = pair.has(Kind::clear) || pair.has(Kind::removal);
  if (pair.has(Kind::saRekey) && taken) {
    return Loss::expiry;
  }
  // A DH rekey that starts over while it runs, or before the last one is pruned.
  const bool again = pair.first == pair.second && pair.has(Kind::dhRekey);
  return taken || again || pair.has(Kind::restart) ? Loss::steps : Loss::never;
}

/// Restarted, b decides the roles from a's new nonce, and a from its old one.
bool canSplitRoles(const Pair& pair) {
  return pair.have(Kind::restart, Kind::dhRekey) && !pair.sameRouter();
}

/// An initiator whose path is made again still hears the answer, and has an in-SA too many then.
bool canLeaveAnInSa(const Pair& pair) {
  return pair.sameRouter() &&
         (pair.have(Kind::saRekey, Kind::clear) || pair.have(Kind::saRekey, Kind::removal));
}

/// The ways through a tree of choices, one after the other, depth first.
class Choices {
 public:
  /// One of `options`, from 0; the same as last time until the point where this way branches off.
  size_t choose(size_t options) {
    if (depth_ == points_.size()) {
      points_.push_back({.options = options});
    }
    return points_[depth_++].chosen;
  }
  /// Goes on to the next way; false when there is none.
  bool next() {
    depth_ = 0;
    while (!points_.empty() && points_.back().chosen + 1 == points_.back().options) {
      points_.pop_back();
    }
    if (points_.empty()) {
      return false;
    }
    ++points_.back().chosen;
    return true;
  }

 private:
  struct Point {
    size_t chosen = 0;
    size_t options = 0;
  };
  std::vector<Point> points_;
  size_t depth_ = 0;
};

Scenario twoRouters(uint64_t seed) {
  MeshSpec spec{.seed = seed, .routers = {"a", "b"}, .trafficInterval = seconds(2)};
  spec.settings.holdTime = 600;
  spec.settings.dhRekeyDelay = Duration();
  spec.link.latency = seconds(0.001);
  spec.controllerDelay = seconds(0.001);
  Scenario scenario = meshScenario(spec);
  scenario.traffic.push_back({.name = "dense",
                              .paths = {kPath},
                              .interval = seconds(0.004),
                              .size = 40,
                              .start = Duration::never()});
  return scenario;
}

/// One order of the steps of two procedures.
class Crossing {
 public:
  Crossing(const Pair& pair, uint64_t seed, size_t lateLooks)
      : pair_(pair), lateLooks_(lateLooks), lab_(twoRouters(seed), {&invariants_, &stepper_}) {
    invariants_.start(lab_, kLook);
  }

  /// Takes the steps. False when the order is another way to write one that is run as well.
  bool takeSteps(Choices& choices) {
    lab_.run(seconds(80.2));  // Between all looks and passes: none comes by itself until the end.
    EXPECT_EQ(whyNotAtRest(), "");
    lab_.apply(StartTraffic{.flow = "dense"});
    stepper_.hold(lab_);
    std::set<std::string> asleep;  // Steps at a that could have come before the last ones at b.
    for (std::vector<Option> all = options(); !all.empty(); all = options()) {
      std::vector<Option> awake = all;
      std::erase_if(awake, [&](const Option& each) { return asleep.contains(each.name); });
      if (awake.empty()) {
        return false;
      }
      const Option& option = awake[choices.choose(awake.size())];
      if (option.at == 0 || !option.commutes) {
        asleep.clear();
      } else {
        for (const Option& each : all) {
          if (each.at == 0 && each.commutes) {
            asleep.insert(each.name);
          }
        }
      }
      take(option);
    }
    stepper_.release();
    lab_.run(seconds(0.1));
    lab_.apply(StopTraffic{.flow = "dense"});
    return true;
  }

  /// Lets time run until everything is at rest. Returns what is wrong then.
  std::string comeToRest() {
    const Duration stepsEnd = lab_.now();
    uint64_t lostPackets = lost();
    Duration lastLoss = lostPackets > 0 ? Duration() : Duration::never();
    std::string why = whyNotAtRest();
    while (!why.empty() && !rolesAreSplit() && lab_.now() < stepsEnd + kUntilRest) {
      lab_.run(kLook);
      if (lost() != lostPackets) {
        lostPackets = lost();
        lastLoss = lab_.now() - stepsEnd;
      }
      why = whyNotAtRest();
    }
    if (rolesAreSplit()) {
      return whyViolated();
    }
    if (!why.empty()) {
      return why;
    }
    const Loss allowed = allowedLoss(pair_);
    const Duration until = allowed == Loss::expiry ? kExpiry + kPass + kLook : Duration();
    if (!lastLoss.isNever() && (allowed == Loss::never || lastLoss > until)) {
      return std::to_string(lostPackets) + " packets lost until " + stringValue(lastLoss);
    }
    // A rebuild at both ends at once loses no packet when none is on its way.
    if (allowed == Loss::never && rebuilds() > 0) {
      return "the path was rebuilt";
    }
    why = whyNoTraffic();
    return why.empty() ? whyViolated() : why;
  }

  bool rolesAreSplit() const { return lab::rolesAreSplit(lab_, *lab_.scenario().path(kPath)); }
  const std::string& order() const { return order_; }

 private:
  /// What can come next.
  struct Option {
    std::string name;
    size_t at;
    bool commutes;  ///< With the steps of the other router.
    bool seen;      ///< The router looks at once, not only behind its next step.
    std::function<void()> act;
  };

  std::vector<Option> options() {
    std::vector<Option> options;
    for (const size_t i : {0U, 1U}) {
      const Procedure& procedure = i == 0 ? pair_.first : pair_.second;
      const bool isSecondTwin = i == 1 && pair_.first == pair_.second;
      const bool two = procedure.kind == Kind::pfLoss || procedure.kind == Kind::removal;
      if (acts_[i] < (two ? 2 : 1) && (!isSecondTwin || acts_[0] > acts_[1])) {
        options.push_back({.name = name(procedure) + (acts_[i] > 0 ? " ends" : ""),
                           .at = procedure.at,
                           .commutes = !two && procedure.kind != Kind::restart,
                           .seen = true,
                           .act = [this, i, procedure] { act(procedure, acts_[i]++ > 0); }});
      }
    }
    static const char* const kinds[] = {"record at ", "installation at ", "packet at "};
    for (const Stepper::Step& step : stepper_.steps()) {
      Option option{.name = kinds[static_cast<size_t>(step.kind)] + step.router,
                    .at = step.router == kRouters[0] ? 0U : 1U,
                    .commutes = true,
                    .seen = true,
                    .act = [this, step] { stepper_.take(step); }};
      options.push_back(option);
      if (lateLooks_ > 0 && step.kind != Stepper::Step::Kind::record) {
        option.name += " unseen";
        option.seen = false;
        options.push_back(option);
      }
    }
    return options;
  }

  void take(const Option& option) {
    order_ += (order_.empty() ? "" : ", ") + option.name;
    option.act();
    lab_.run(seconds(0.002));
    if (option.seen) {
      look(lab_.router(kRouters[option.at]));
    } else {
      --lateLooks_;
    }
    lab_.run(seconds(0.006));
    stepper_.releaseOrdinaryPackets();
  }

  /// The first act of a procedure, or the one that ends it.
  void act(const Procedure& procedure, bool ends) {
    const std::string& at = kRouters[procedure.at];
    const std::string& other = kRouters[1 - procedure.at];
    switch (procedure.kind) {
      case Kind::saRekey:
        lab_.apply(ForceSaRekey{.router = at});
        return expire(lab_.router(at), &Ipsec::TesselV1Sm::saRekeyTimer);
      case Kind::dhRekey:
        lab_.apply(ForceDhRekey{.router = at});
        return expire(lab_.router(at), &Ipsec::TesselV1Sm::dhRekeyTimer);
      case Kind::clear:
        return lab_.apply(ClearPath{.router = at});
      case Kind::restart:
        return lab_.apply(RestartRouter{.router = at});
      case Kind::pfLoss:
        return ends ? lab_.apply(RestoreControllers{.router = at})
                    : lab_.apply(LoseControllers{.router = at});
      case Kind::removal:
        ends ? lab_.apply(RestoreRecord{.router = other, .at = at})
             : lab_.apply(WithdrawRecord{.router = other, .at = at});
        for (lab_.run(seconds(0.002)); lab_.controllers().waiting(at); lab_.run(Duration())) {
          lab_.controllers().deliverNext(at);
        }
    }
  }

  using Timer = const Ptr<TimerTask>& (Ipsec::TesselV1Sm::*)() const;
  /// A timer's tick comes now.
  void expire(Router& router, Timer timer) {
    router.post([timer](RunningRouter& agent) {
      if (const Ptr<TimerTask>& found = ((*agent.machine).*timer)()) {
        found->scheduleTaskDelay(Duration());
      }
    });
    lab_.run(Duration());
  }
  void look(Router& router) {
    expire(router, &Ipsec::TesselV1Sm::updateRekeyTimer);
    const DhRekeyState state = router.machine().dhRekey().dhRekeyState();
    if (state == DhRekeyState::initiated || state == DhRekeyState::inSaInstalled) {
      expire(router, &Ipsec::TesselV1Sm::dhRekeyTimer);
    }
  }

  std::string whyViolated() const {
    const auto& violations = invariants_.violations();
    return violations.empty() ? "" : stringValue(violations.front());
  }

  std::string whyNotAtRest() const {
    for (const auto& [end, other] : {std::tie(a_, b_), std::tie(b_, a_)}) {
      const PathView path = end.pathView(kPath);
      const DhRekeyState local = end.machine().dhRekey().dhRekeyState();
      std::string why = test::whyNotSteady(path, other.pathView(kPath), canLeaveAnInSa(pair_));
      if (why.empty() && local != DhRekeyState::notRekeying) {
        why = "local " + stringValue(local);
      }
      const auto& knob = end.entities().ipsecStatus->testKnob()->pathTestKnob(path.key());
      if (why.empty() && knob && knob->saRekeyTrigger()) {
        why = "the SA rekey is still to come";
      }
      if (!why.empty()) {
        return end.name() + ": " + why;
      }
    }
    return {};
  }

  std::string whyNoTraffic() {
    const PathStatistics before[] = {a_.pathView(kPath).statistics(),
                                     b_.pathView(kPath).statistics()};
    const uint64_t lostBefore = lost();
    lab_.run(kLook);
    const bool flows = a_.pathView(kPath).statistics().received > before[0].received &&
                       b_.pathView(kPath).statistics().received > before[1].received;
    return flows && lost() == lostBefore ? "" : "at rest, and packets are lost";
  }

  uint64_t rebuilds() const {
    return lab_.history(a_).events("clearPath") + lab_.history(b_).events("clearPath");
  }
  uint64_t lost() const {
    const Link& link = lab_.link(kPath);
    return lab_.history(a_).drops().total() + lab_.history(b_).drops().total() +
           link.counts(LinkEnd::a).lost() + link.counts(LinkEnd::b).lost();
  }

  const Pair pair_;
  size_t lateLooks_;
  size_t acts_[2] = {0, 0};
  std::string order_;
  Invariants invariants_;
  Stepper stepper_;
  Lab lab_;
  Router& a_ = lab_.router("a");
  Router& b_ = lab_.router("b");
};

class Crossings : public testing::TestWithParam<Pair> {};

TEST_P(Crossings, ComeToRestInEveryOrder) {
  const Pair& pair = GetParam();
  // Where nothing may be lost, one look may also be late: the router sees two steps at once.
  const size_t lateLooks = allowedLoss(pair) == Loss::never ? 1 : 0;
  int orders = 0;
  int splits = 0;
  for (const uint64_t seed : {2U, 1U}) {  // a, then b is the DH initiator.
    Choices choices;
    do {
      Crossing crossing(pair, seed, lateLooks);
      if (!crossing.takeSteps(choices)) {
        continue;
      }
      ++orders;
      ASSERT_EQ(crossing.comeToRest(), "") << "seed " << seed << ": " << crossing.order();
      if (crossing.rolesAreSplit()) {
        ++splits;
        ASSERT_TRUE(canSplitRoles(pair)) << "seed " << seed << ": " << crossing.order();
      }
    } while (choices.next());
  }
  EXPECT_GT(orders, 2);
  RecordProperty("orders", orders);
  RecordProperty("role-splits", splits);
}

INSTANTIATE_TEST_SUITE_P(Pairs, Crossings, testing::ValuesIn(allPairs()), [](const auto& pair) {
  return name(pair.param.first) + name(pair.param.second);
});

}  // namespace
}  // namespace tessel::lab
