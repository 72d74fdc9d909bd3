// RouterHistory: what has happened at a router, counted.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "host/entity/KeyedCollection.h"
#include "host/model/Events.h"
#include "lab/dataplane/DataPlaneEvents.h"
#include "lab/run/LabObserver.h"

namespace tessel::lab {

/// Counts from the beginning of the run, except for events, which count from the router's last
/// start. Passes every event on to the observer.
class RouterHistory final : public EventObserver, public DataPlaneObserver {
 public:
  RouterHistory(const Router& router, LabObserver& observer)
      : router_(router), observer_(observer) {}

  /// Events of that name in all logs; with a path, in those of the path and of its SAs.
  uint64_t events(std::string_view name) const;
  uint64_t events(std::string_view name, const ConnectionKey& path) const;

  /// Packets that the data path dropped, sending or receiving.
  const DropCounts& drops() const { return drops_; }
  /// SAs that passed a hard limit.
  uint64_t sasPastHardLimit() const { return sasPastHardLimit_.size(); }
  /// Completed SA rekeys of a path; completed DH rekeys.
  uint64_t saRekeys(const ConnectionKey& path) const;
  uint64_t dhRekeys() const { return dhRekeys_; }
  /// Lines of the agent's log with that identifier.
  uint64_t logged(std::string_view identifier) const;

  /// The router starts (again).
  void handleStart();
  /// The agent logged a line.
  void handleLog(const AgentLogLine& line) { ++logged_[std::string(line.identifier)]; }

 private:
  using Counts = std::map<std::string, uint64_t, std::less<>>;

  void handleEvent(const LocalEvent& event) override;
  void handleEvent(const PeerEvent& event) override;
  void handleEvent(const PathEvent& event) override;
  void handleEvent(const SecurityAssociationKey& key, const ConnectionKey& path,
                   const SaEvent& event) override;
  void handleHardLimit(const HardLimitFinding& finding) override;
  void handleDrop(const PacketDrop& drop) override { ++drops_[drop.reason]; }

  void count(const EventName& name) { ++events_[name.string()]; }
  void count(const EventName& name, const ConnectionKey& path);

  const Router& router_;
  LabObserver& observer_;
  Counts events_;
  std::map<ConnectionKey, Counts> pathEvents_;
  Counts logged_;
  DropCounts drops_;
  KeySet<SecurityAssociationKey> sasPastHardLimit_;
  std::map<ConnectionKey, uint64_t> saRekeys_;
  uint64_t dhRekeys_ = 0;
};

}  // namespace tessel::lab
