// Invariants: what must hold at every moment of every run, whatever happens in it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "lab/run/LabObserver.h"

namespace tessel::lab {

class Lab;

/// An invariant that did not hold.
struct Violation {
  std::string invariant;  ///< Its name, see docs/lab.md.
  Duration at;            ///< Virtual.
  std::string where;      ///< Router, path.
  std::string what;
};

/// "tables-agree at 12.5 s, east: <what>".
std::string stringValue(const Violation& violation);

/// Watches a lab and its packets, and looks through all tables at regular times. Changes nothing
/// and draws nothing: a run that is watched is the same run.
class Invariants final : public LabObserver {
 public:
  Invariants();
  Invariants(const Invariants&) = delete;
  Invariants& operator=(const Invariants&) = delete;
  ~Invariants() override;

  /// Looks through the tables of `lab`, which this observes, from now on.
  void start(Lab& lab, Duration every = seconds(10));

  /// Every violation once: the first of each invariant and place.
  const std::vector<Violation>& violations() const { return violations_; }
  /// How many times an invariant was evaluated: once per packet, path, router or log.
  uint64_t evaluated() const { return evaluated_; }

  void handleRouterUp(Router& router) override;
  void handleRouterDown(Router& router) override;
  void handleEnd() override;

 private:
  class Packets;
  /// Counter values [first, end) that an SA has sent under one key.
  struct IvRange {
    uint64_t first = 0;
    uint64_t end = 0;
  };

  void schedule(Lab& lab, Duration every);
  void look(Lab& lab);
  void checkTables(const Router& router);
  void checkGenerations(const Router& router, Duration now);
  void checkLogs(const Router& router);
  void checkPath(const Lab& lab, const PathPlan& path);
  void checkIv(const Router& router, const PacketSent& packet);
  /// Counts an evaluation.
  bool violated(bool held);
  void add(const char* invariant, const std::string& where, const std::string& what);

  Lab* lab_ = nullptr;
  std::vector<std::unique_ptr<Packets>> packets_;
  std::map<uint64_t, std::vector<IvRange>> ivs_;      // By the key's tag.
  std::map<std::string, Duration> superfluousSince_;  // Generations that are to go.
  std::vector<Violation> violations_;
  std::set<std::string> known_;
  uint64_t evaluated_ = 0;
};

}  // namespace tessel::lab
