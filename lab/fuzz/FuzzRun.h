// FuzzRun: a drawn case, played and judged.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "lab/check/Invariants.h"
#include "lab/fuzz/FuzzCase.h"

namespace tessel::lab {

/// What came of a case.
struct FuzzOutcome {
  uint64_t seed = 0;
  /// Invariants that did not hold; beside those of every run:
  /// - "comes-to-rest": within `restBound` of the last fault every path was once at rest, and every
  ///   router;
  /// - "rest-loses-nothing": from then on to the end of the run no packet was lost.
  std::vector<Violation> violations{};
  uint64_t digest = 0;

  uint32_t routers = 0;
  uint32_t paths = 0;
  Duration played{};     ///< Virtual.
  Duration restAfter{};  ///< From the last fault until the last path had come to rest.
  Duration restBound{};
  uint64_t packets = 0;  ///< That were on the links, probes included.
  uint64_t saRekeys = 0;
  uint64_t dhRekeys = 0;
  std::array<uint64_t, kInvariants> evaluated{};  ///< How often, each.
  std::array<uint64_t, kFaultKinds> faults{};
  // Limits of the design that only an operator ends, see docs/limits.md. The run did what an
  // operator does, and only then could come to rest.

  uint32_t splitRoles = 0;    ///< Pairs of routers in the same role: one of them started over.
  uint32_t refusedPaths = 0;  ///< Paths that wait for an SA that was refused: both ends cleared.
  uint32_t leftoverPaths =
      0;                      ///< Paths that keep the in-SA of a rekey given up: both ends cleared.
  uint32_t routersNoKey = 0;  ///< Routers whose generator had failed: they started over.

  bool held() const { return violations.empty(); }
};

/// As one line of JSON, and back.
std::string outcomeText(const FuzzOutcome& outcome);
FuzzOutcome readOutcome(const std::string& text);

/// The longest that a mesh may take to come to rest once nothing disturbs it any more. In the worst
/// case a path has to be found quiet, to expire and to be built anew at both ends, and then still
/// waits for a DH rekey of either router.
Duration restBound(const Scenario& scenario);

/// Plays the case in this process, which must have no other lab.
FuzzOutcome playCase(const FuzzCase& drawn);

}  // namespace tessel::lab
