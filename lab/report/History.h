// History: everything that happened in a run, kept for those who look back at it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "lab/report/LabEvent.h"

namespace tessel::lab {

/// Drops of one kind in short succession.
struct DropBurst {
  std::string router{};
  std::string path{};  ///< Empty: of no path that is known.
  std::string peer{};
  event::Drop drop{};  ///< The first one.
  Duration first{};
  Duration last{};
  uint64_t count = 0;
};

/// The life of one SA.
struct SaLife {
  SaFacts sa{};  ///< At the hand-over; counts and key of its last event.
  Duration handedOver{};
  Duration installed = Duration::never();
  Duration removed = Duration::never();
  Duration notInstalled = Duration::never();
  std::string why{};  ///< Not installed.

  bool isInstalledAt(Duration time) const { return installed <= time && time < removed; }
};

/// Keeps the events of a run but for traces, and drops as bursts.
class History final : public LabEventSink {
 public:
  /// The end of a path at one router.
  using End = std::pair<std::string, std::string>;  // Router, path.

  /// Drops of one kind that are further apart than `gap` are bursts of their own.
  explicit History(Duration gap) : gap_(gap) {}

  void handle(const LabEvent& event) override;

  /// In the order in which they happened; of a burst of drops only the first.
  const std::vector<LabEvent>& events() const { return events_; }
  const std::vector<DropBurst>& drops() const { return drops_; }

  /// Positions among the events, of those of a path's end, and of those of a router that belong to
  /// no path.
  const std::vector<size_t>& ofEnd(const std::string& router, const std::string& path) const;
  const std::vector<size_t>& ofRouter(const std::string& router) const { return ofEnd(router, ""); }
  /// SAs of a path's end in the order of their hand-over.
  const std::vector<SaLife>& sas(const std::string& router, const std::string& path) const;

 private:
  using DropKind = std::tuple<std::string, std::string, DropReason, bool, uint32_t>;

  bool handleDrop(const LabEvent& event, const event::Drop& drop);
  void handleSa(const LabEvent& event, const event::SaStep& step);
  void handleRouterDown(const LabEvent& event);

  const Duration gap_;
  std::vector<LabEvent> events_;
  std::map<End, std::vector<size_t>> byEnd_;
  std::vector<DropBurst> drops_;
  std::map<DropKind, size_t> lastBurst_;
  std::map<End, std::vector<SaLife>> sas_;
};

}  // namespace tessel::lab
