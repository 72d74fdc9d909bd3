// Scenario: what a run of the lab is made of, as plain data: routers, paths, controllers, traffic,
// what happens when, and what must hold. docs/lab.md describes the same in the words of its file
// form, which LoadScenario.h reads and WriteScenario.h writes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/model/Duration.h"
#include "lab/scenario/Mutant.h"
#include "lab/scenario/ScenarioActions.h"
#include "lab/scenario/ScenarioFacts.h"
#include "lab/scenario/ScenarioPlans.h"

namespace tessel::lab {

struct TimelineEntry {
  Duration at{};
  Action action{};
  std::string text{};  ///< As the file has it, on one line; empty when not from a file.
  int line = 0;        ///< In the file; 0 when not from a file.
  /// Text and line are not compared: they belong to the file.
  friend bool operator==(const TimelineEntry& a, const TimelineEntry& b) {
    return a.at == b.at && a.action == b.action;
  }
};

struct Expectation {
  /// Checked after everything that happens at that time; never(): at the end of the run.
  Duration at = Duration::never();
  ExpectedFact fact{};
  std::string text{};  ///< As in `TimelineEntry`.
  int line = 0;
  /// Text and line are not compared: they belong to the file.
  friend bool operator==(const Expectation& a, const Expectation& b) {
    return a.at == b.at && a.fact == b.fact;
  }
};

struct Scenario {
  std::string name{};
  std::string description{};
  uint64_t seed = 1;
  Duration duration = seconds(180);

  std::vector<RouterPlan> routers{};
  std::vector<PathPlan> paths{};
  std::vector<ControllerPlan> controllers{ControllerPlan{}};
  Distribution distribution = Distribution::everyone;
  std::vector<FlowPlan> traffic{};
  ProbePlan probes{};
  std::vector<TimelineEntry> timeline{};  ///< By time; those of one time in the file's order.
  std::vector<Expectation> expectations{};
  /// Toggles by name, over what the toggle file says.
  std::map<std::string, bool> toggles{};
  /// What the lab does wrong. Files cannot say it.
  Mutant mutant = Mutant::none;

  friend bool operator==(const Scenario&, const Scenario&) = default;

  /// Null when there is none of that name.
  const RouterPlan* router(const std::string& routerName) const;
  const PathPlan* path(const std::string& pathName) const;
  const FlowPlan* flow(const std::string& flowName) const;
};

}  // namespace tessel::lab
