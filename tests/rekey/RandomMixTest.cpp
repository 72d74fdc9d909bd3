// A mesh in which everything happens to everyone, and which has to come to rest all the same.
#include <random>

#include <gtest/gtest.h>

#include "lab/check/Invariants.h"
#include "lab/run/Lab.h"
#include "lab/run/Mesh.h"
#include "sm/DhRekey.h"
#include "tests/rekey/Runs.h"

namespace tessel::lab {
namespace {

/// An event every 40 s for an hour, then 40 minutes of quiet.
class RandomMix {
 public:
  /// The key's lifetime outlasts the run: what rekeys, rekeys because it is told to.
  explicit RandomMix(uint64_t seed)
      : random_(seed),
        lab_(meshScenario({.seed = seed,
                           .routers = {"a", "b", "c"},
                           .pathsPerPair = 2,
                           .settings = {.dhKeyLifetime = 7 * 86400},
                           .trafficInterval = seconds(1)}),
             {&invariants_}) {
    invariants_.start(lab_);
  }

  void run() {
    lab_.run(seconds(240));
    for (int i = 0; i < 90; ++i) {
      lab_.run(seconds(40));
      disturb();
    }
    lab_.apply(RestoreLink{});
    lab_.apply(RestoreRecord{});
    lab_.run(seconds(40 * 60));
  }

  std::string verdict() {
    if (!invariants_.violations().empty()) {
      return stringValue(invariants_.violations().front());
    }
    for (const auto& router : lab_.routers()) {
      const DhRekeyState state = router->machine().dhRekey().dhRekeyState();
      if (state != DhRekeyState::notRekeying) {
        return router->name() + ": local " + stringValue(state);
      }
    }
    for (const PathPlan& path : lab_.scenario().paths) {
      for (const int end : {0, 1}) {
        const std::string& router = path.ends[end].router;
        const std::string why =
            test::whyNotSteady(lab_.router(router).pathView(path.name),
                               lab_.router(path.ends[1 - end].router).pathView(path.name));
        if (!why.empty()) {
          return path.name + " at " + router + ": " + why;
        }
        const FlowCounts before = lab_.traffic().counts({}, path.name, router);
        lab_.run(seconds(3));
        if (lab_.traffic().counts({}, path.name, router).received == before.received) {
          return path.name + ": no traffic from " + router;
        }
      }
    }
    return {};
  }

 private:
  uint64_t draw(uint64_t n) { return random_() % n; }

  void disturb() {
    const PathPlan& path = lab_.scenario().paths[draw(lab_.scenario().paths.size())];
    const uint64_t end = draw(2);
    const std::string& router = path.ends[end].router;
    const std::string& other = path.ends[1 - end].router;
    const Action actions[] = {CutLink{.path = path.name},
                              RestoreLink{.path = path.name},
                              ForceSaRekey{.path = path.name, .router = router},
                              ForceDhRekey{.router = router},
                              ClearPath{.path = path.name, .router = router},
                              ChangeMergeData{.path = path.name, .router = router},
                              WithdrawRecord{.router = other, .at = router},
                              RestoreRecord{.router = other, .at = router}};
    lab_.apply(actions[draw(std::size(actions))]);
  }

  std::mt19937_64 random_;
  Invariants invariants_;
  Lab lab_;
};

TEST(RandomMix, ComesToRest) {
  for (uint64_t seed = 1; seed <= test::seedsToRun(8); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomMix mix(seed);
    mix.run();
    EXPECT_EQ(mix.verdict(), "");
  }
}

}  // namespace
}  // namespace tessel::lab
