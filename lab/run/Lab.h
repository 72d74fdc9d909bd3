// Lab: a mesh of routers in one process and in virtual time.
//
//   Lab lab(meshScenario({.seed = 7, .routers = {"east", "west"}}));
//   lab.establishPaths();
//   lab.apply(ForceDhRekey{.router = "east"});
//   lab.run(seconds(90));
//   EXPECT_EQ(lab.router("west").pathTo(lab.router("east")).dhKeyPair(), ...);
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/runtime/VirtualTime.h"
#include "lab/controller/Controllers.h"
#include "lab/net/Link.h"
#include "lab/router/Router.h"
#include "lab/run/LabObserver.h"
#include "lab/run/LabRandom.h"
#include "lab/run/RouterHistory.h"
#include "lab/run/Traffic.h"
#include "lab/run/Verdict.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// A line of an agent's log.
struct LoggedLine {
  Duration time;  ///< Virtual.
  std::string router;
  std::string identifier;
  int severity = 0;
  std::string text;
};

/// Plays a scenario: builds its mesh, runs its timeline, checks its expectations. The scenario's
/// seed decides every random draw: equal scenarios give equal runs, to the byte.
///
/// A lab uses what the process has only one of: random source, log, trace and toggles. There can be
/// one at a time; a second one throws std::logic_error.
class Lab {
 public:
  /// Time stands at 0 and nothing has run yet. Observers are told in their order and outlive the
  /// lab. Throws std::invalid_argument for a scenario that names what it does not have.
  explicit Lab(Scenario scenario, std::vector<LabObserver*> observers = {});
  Lab(const Lab&) = delete;
  Lab& operator=(const Lab&) = delete;
  ~Lab();

  const Scenario& scenario() const { return scenario_; }
  Duration now() const { return time_->monotonicTime(); }
  const Ptr<VirtualTime>& time() const { return time_; }

  /// Lookups by name throw std::invalid_argument for a name that the scenario does not have.
  Router& router(const std::string& name) const;
  const std::vector<std::unique_ptr<Router>>& routers() const { return routers_; }
  /// Between the two ends of a path.
  Link& link(const std::string& path) const;
  RouterHistory& history(const std::string& router) const;
  RouterHistory& history(const Router& router) const { return *histories_[router.index()]; }
  Controllers& controllers() { return *controllers_; }
  Traffic& traffic() { return *traffic_; }
  const Traffic& traffic() const { return *traffic_; }
  LabRandom& random() { return *random_; }
  const LabRandom& random() const { return *random_; }

  /// Lets time run, with everything that falls due up to and at its end, timeline and expectations
  /// included.
  void run(Duration span) { runUntil(now() + span); }
  void runUntil(Duration end);
  /// Runs to the end of the scenario and checks what must hold then. Once.
  void finish();
  /// Runs until every path is up: at both ends an SA is installed for each direction. Throws
  /// std::runtime_error, which names a path that is not, when that takes longer than `within`.
  void establishPaths(Duration within = seconds(10));
  /// Whether every path is up in that sense, of the routers and paths that are present.
  bool pathsUp() const { return firstPathDown().empty(); }

  /// Does something now, and lets happen what follows from it without time going on.
  void apply(const Action& action);

  /// What has been checked so far.
  const std::vector<Verdict>& verdicts() const { return verdicts_; }
  bool held() const;

  /// The agents' log since the beginning.
  const std::vector<LoggedLine>& log() const { return log_; }
  /// Hands the agents' traces to the observers from now on, or not.
  void tracingIs(bool tracing);

  /// For actions: runs `job` once at a time of its own, outside of every router.
  void at(Duration when, std::function<void()> job);

 private:
  class Hub;

  void build();
  void buildRouters();
  void buildPaths();
  void buildTraffic();
  void scheduleTimeline();
  void scheduleChecks();
  void check(const Expectation& expectation);
  std::string firstPathDown() const;
  std::string anyKey() const;  // For a mutant alone.

  const Scenario scenario_;
  const Ptr<VirtualTime> time_;
  const Ptr<VirtualTimeScheduler> scheduler_;
  std::unique_ptr<Hub> hub_;
  Ptr<LabRandom> random_;
  std::unique_ptr<Controllers> controllers_;
  std::vector<std::unique_ptr<Link>> links_;  // In the order of the scenario's paths.
  std::vector<std::unique_ptr<Router>> routers_;
  std::vector<std::unique_ptr<RouterHistory>> histories_;  // In the order of the routers.
  std::unique_ptr<Traffic> traffic_;
  std::vector<Verdict> verdicts_;
  std::vector<LoggedLine> log_;
  bool finished_ = false;
};

}  // namespace tessel::lab
