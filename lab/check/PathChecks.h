// PathChecks: the states of paths over time, and the SAs of paths at rest.
#pragma once

#include <array>
#include <vector>

#include "lab/check/Findings.h"
#include "lab/check/MeshView.h"
#include "lab/check/SendWindows.h"

namespace tessel::lab {

class Lab;

class PathChecks {
 public:
  PathChecks(const Lab& lab, const MeshView& mesh, const SendWindows& windows, Findings& findings);

  void look();
  /// An event of a path was recorded.
  void handleEvent(EndId id, const PathEvent& event);

 private:
  /// How long an end has been in its state.
  struct Stay {
    DynamicPathState state = DynamicPathState::none;
    Duration since{};
    uint32_t reentries = 0;
    uint64_t sent = 0;
    uint64_t received = 0;
    Duration sentAt{};      ///< When the look found that it had sent.
    Duration receivedAt{};  ///< Likewise.
  };

  void checkStay(EndId id, const Ptr<Ike::PathConnState>& path);
  void checkCrossing(size_t path, const Ike::PathConnState& first,
                     const Ike::PathConnState& second);
  bool clockRuns(EndId id, const Ptr<Ike::PathConnState>& path) const;

  const Lab& lab_;
  const MeshView& mesh_;
  const SendWindows& windows_;
  Findings& findings_;
  std::vector<std::array<Stay, 2>> stays_;
};

}  // namespace tessel::lab
