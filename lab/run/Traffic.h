// Traffic: the packets that the scenario's flows send through the tunnels, and what became of them.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "host/model/Bytes.h"
#include "host/model/Duration.h"
#include "host/model/Keys.h"
#include "host/runtime/VirtualTime.h"
#include "lab/router/Router.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// Packets of flows.
struct FlowCounts {
  uint64_t sent = 0;      ///< Offered to the data path of the sender, whether it could send or not.
  uint64_t received = 0;  ///< Accepted by the data path of the receiver.
  uint64_t lost = 0;      ///< Neither received nor still on their way.
};

/// What became of the packets of one stream.
struct StreamCounts {
  std::string flow;
  std::string path;
  std::string from;  ///< The sending router.
  FlowCounts packets;
};

/// The flows of a scenario: one stream of packets per flow, path and sending router.
class Traffic {
 public:
  explicit Traffic(Ptr<VirtualTime> time);
  Traffic(const Traffic&) = delete;
  Traffic& operator=(const Traffic&) = delete;
  ~Traffic();

  /// Adds the stream of a flow on a path, which stands still at first.
  void streamAdd(const FlowPlan& flow, Router& sender, const RouterPath& path, Router& receiver);

  /// Lets a flow's streams run or stand still; an empty name means all flows or both directions. A
  /// stream sends its first packet at once.
  void runningIs(const std::string& flow, const std::string& from, bool running);

  /// A router is up again: its streams go on.
  void handleRouterUp(Router& router);
  void handleInnerPacket(const Router& router, const ConnectionKey& path, BytesView inner);

  /// Of the streams that match; empty names match all.
  FlowCounts counts(const std::string& flow = {}, const std::string& path = {},
                    const std::string& from = {}) const;
  uint64_t lost() const { return counts().lost; }
  /// Every stream, in the order in which they were added.
  std::vector<StreamCounts> streams() const;

 private:
  class Stream;

  const Ptr<VirtualTime> time_;
  std::vector<std::unique_ptr<Stream>> streams_;  // A flow's number in its packets is its place.
};

}  // namespace tessel::lab
