// Findings: the names of the invariants, how often each was evaluated, and what did not hold.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/model/Duration.h"

namespace tessel::lab {

class Lab;
struct PathPlan;

/// docs/invariants.md says what each of them means.
enum class Invariant : uint8_t {
  receiverHoldsSa,
  ivNeverTwice,
  equalSpiEqualKey,
  noncesArrive,
  endsCross,
  packetsAccounted,
  tablesAgree,
  tablesBounded,
  generationsRetired,
  statesBounded,
  removalTakesItsOwn,
  recordsWhole,
  logsContiguous,
  noSecretInOutput,
};
inline constexpr size_t kInvariants = 14;

/// As the reports and the documentation call it, for example "tables-agree".
const char* invariantName(Invariant invariant);

/// Where an invariant is looked at: a path, a router, a peer of a router.
struct Place {
  std::vector<std::string> routers{};
  std::string path{};    ///< Empty: it is not about one path.
  std::string detail{};  ///< What of it, for example "peer 192.0.2.1".
};

/// Both routers of a path, and the path.
Place placeOf(const PathPlan& path);

/// An invariant that did not hold.
struct Violation {
  std::string invariant{};  ///< Its name.
  Duration at{};            ///< Virtual.
  std::string where{};      ///< The place in words: "east, path internet".
  std::string what{};
  std::vector<std::string> routers{};
  std::string path{};  ///< Empty when it is not about one path.
  /// The last events of the path's logs at both ends (of the local logs when it is about no path),
  /// a line each, oldest first, by router.
  std::vector<std::string> events{};
};

/// That an invariant does not hold now, with the events that led to it; without a lab there are
/// none.
Violation violationAt(const Lab* lab, const char* invariant, const Place& place, std::string what);

/// "tables-agree at 12.5 s, east: <what>".
std::string stringValue(const Violation& violation);

/// What all checks report to.
class Findings {
 public:
  void labIs(const Lab* lab) { lab_ = lab; }

  /// Counts an evaluation and says whether the invariant was violated.
  bool violated(Invariant invariant, bool held) {
    ++evaluated_[static_cast<size_t>(invariant)];
    return !held;
  }
  /// Adds a violation, the first one of each invariant and place only.
  void add(Invariant invariant, const Place& place, std::string what);

  const std::vector<Violation>& violations() const { return violations_; }
  uint64_t evaluated(Invariant invariant) const {
    return evaluated_[static_cast<size_t>(invariant)];
  }

 private:
  const Lab* lab_ = nullptr;
  std::array<uint64_t, kInvariants> evaluated_{};
  std::vector<Violation> violations_;
  std::set<std::string> known_;
};

}  // namespace tessel::lab
