// The checks' check: a lab that misbehaves in one way violates the invariant made for it, and one
// that does not violates none.
#include <utility>

#include <gtest/gtest.h>

#include "lab/check/Invariants.h"
#include "lab/run/Lab.h"
#include "lab/run/Mesh.h"

namespace tessel::lab {
namespace {

Scenario scenarioWith(Mutant mutant) {
  Scenario scenario = meshScenario({.seed = 3,
                                    .routers = {"east", "west", "north"},
                                    .pathsPerPair = 2,
                                    .settings = {.holdTime = 3600},
                                    .trafficInterval = seconds(1)});
  const auto at = [&](double time, Action action) {
    scenario.timeline.push_back({.at = seconds(time), .action = std::move(action)});
  };
  at(200, ForceSaRekey{.path = "east-west-1", .router = "east"});
  at(500, ForceDhRekey{.router = "east"});
  at(900, LoseControllers{.router = "east"});
  at(905, RestoreControllers{.router = "east"});
  at(1000, RemovePath{.path = "east-west-1"});
  at(1050, AddPath{.path = "east-west-1"});
  at(1200, FailInstallation{.path = "east-west-2",
                            .router = "west",
                            .how = FailInstallation::How::refused,
                            .which = FailInstallation::Which::in,
                            .times = 1});
  at(1201, ForceSaRekey{.path = "east-west-2", .router = "east"});  // West cannot answer.
  scenario.mutant = mutant;
  scenario.duration = seconds(1700);
  return scenario;
}

/// The violation that came first, which begins with its invariant; empty when there is none.
std::string firstViolation(Mutant mutant,
                           IpsecEspAlgorithm encryption = IpsecEspAlgorithm::aes256Gcm128) {
  Invariants invariants;
  Scenario scenario = scenarioWith(mutant);
  for (RouterPlan& router : scenario.routers) {
    router.settings.profile.sa.encryption = encryption;
  }
  Lab lab(std::move(scenario), {&invariants});
  invariants.start(lab);
  lab.finish();
  for (const LoggedLine& line : lab.log()) {
    invariants.scan(line.text);
  }
  if (mutant == Mutant::none) {
    for (size_t i = 0; i < kInvariants; ++i) {
      const auto invariant = static_cast<Invariant>(i);
      EXPECT_GT(invariants.evaluated(invariant), 0U) << invariantName(invariant);
    }
  }
  if (invariants.violations().empty()) {
    return {};
  }
  const Violation& first = invariants.violations().front();
  EXPECT_EQ(first.events.empty(), first.routers.empty()) << stringValue(first);
  return stringValue(first);
}

void expectFirst(const std::string& violation, const std::string& invariant) {
  EXPECT_EQ(violation.substr(0, violation.find(' ')), invariant) << violation;
}

TEST(Mutants, EachViolatesItsInvariantFirst) {
  struct Case {
    Mutant mutant;
    const char* violated;
  };
  const Case cases[] = {
      {Mutant::none, ""},
      {Mutant::reportsEarly, "receiver-holds-sa"},
      {Mutant::dropsOldInSa, "receiver-holds-sa"},
      {Mutant::swapsNonce, "nonces-arrive"},
      {Mutant::restartsIv, "iv-never-twice"},
      {Mutant::wrongKey, "equal-spi-equal-key"},
      {Mutant::losesPacket, "packets-accounted"},
      {Mutant::readsHalves, "records-whole"},
      {Mutant::takesNeighbour, "removal-takes-its-own"},
      {Mutant::keepsGeneration, "generations-retired"},
      {Mutant::losesEvent, "logs-contiguous"},
      {Mutant::losesLimits, "tables-agree"},
      {Mutant::keepsLogs, "tables-bounded"},
      {Mutant::putsOffExpiry, "states-bounded"},
      {Mutant::changesKey, "ends-cross"},
      {Mutant::printsKey, "no-secret-in-output"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE("mutant " + std::to_string(static_cast<int>(each.mutant)));
    expectFirst(firstViolation(each.mutant), each.violated);
  }
  expectFirst(firstViolation(Mutant::none, IpsecEspAlgorithm::aes128Cbc), "");
  expectFirst(firstViolation(Mutant::restartsIv, IpsecEspAlgorithm::aes128Cbc), "iv-never-twice");
}

}  // namespace
}  // namespace tessel::lab
