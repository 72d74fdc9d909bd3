#include "lab/run/Traffic.h"

#include <algorithm>
#include <utility>

#include "lab/dataplane/InnerPacket.h"

namespace tessel::lab {
namespace {

constexpr uint16_t kFlowPort = 9;              // Discard.
constexpr uint32_t kHostNetwork = 0xC6120000;  // 198.18.0.0/15, RFC 2544.

/// A host behind a router.
IpGenAddr hostBehind(const Router& router) {
  return IpGenAddr::fromV4(kHostNetwork + router.index() + 1);
}

/// The longest that a packet which is sent now can be on its way.
Duration longestTransit(const LinkSettings& link) {
  return link.latency + link.jitter + (link.reorderRate > 0 ? link.reorderDelay : Duration());
}

}  // namespace

class Traffic::Stream {
 public:
  Stream(const FlowPlan& plan, Router& sender, const RouterPath& path, Router& receiver,
         uint32_t number, const VirtualTime& time)
      : flow_(plan.name),
        sender_(sender),
        path_(path),
        receiver_(receiver),
        interval_(plan.interval),
        time_(time) {
    packet_.ends = {.src = hostBehind(sender),
                    .dst = hostBehind(receiver),
                    .srcPort = kFlowPort,
                    .dstPort = kFlowPort};
    packet_.flow = number;
    const size_t headers = udpHeadersSize(AddressFamily::ipv4);
    payloadSize_ = std::max(kInnerPayloadSize, plan.size - std::min<size_t>(plan.size, headers));
  }

  bool matches(const std::string& flowName, const std::string& pathName,
               const std::string& from) const {
    return (flowName.empty() || flowName == flow_) &&
           (pathName.empty() || pathName == path_.end.name) &&
           (from.empty() || from == sender_.name());
  }

  void runningIs(bool running) {
    if (running == running_) {
      return;
    }
    running_ = running;
    if (running_) {
      begin();
    } else {
      ++run_;
    }
  }

  void handleRouterUp(const Router& router) {
    if (running_ && &router == &sender_) {
      begin();
    }
  }

  void handleReceived(const Router& router, const ConnectionKey& key, uint64_t sequence) {
    // A packet that comes out of another path or at another router was not received.
    const RouterPath* at = &router == &receiver_ ? receiver_.path(key) : nullptr;
    if (at == nullptr || at->end.name != path_.end.name) {
      return;
    }
    const auto found = std::ranges::lower_bound(onTheWay_, sequence, {}, &Sent::sequence);
    if (found != onTheWay_.end() && found->sequence == sequence && !found->received) {
      found->received = true;
      ++received_;
    }
  }

  FlowCounts counts() const {
    uint64_t waiting = 0;
    for (const Sent& sent : onTheWay_) {
      waiting += !sent.received && sent.deadline >= time_.monotonicTime() ? 1 : 0;
    }
    return {.sent = sent_, .received = received_, .lost = sent_ - received_ - waiting};
  }

  StreamCounts report() const {
    return {.flow = flow_, .path = path_.end.name, .from = sender_.name(), .packets = counts()};
  }

 private:
  struct Sent {
    uint64_t sequence;
    Duration deadline;  ///< Lost when it has not arrived by then.
    bool received = false;
  };

  /// Begins a run of packets at the present time; what was scheduled for an earlier run is void.
  void begin() {
    ++run_;
    begunAt_ = time_.monotonicTime();
    ticks_ = 0;
    if (sender_.up()) {
      scheduleTick();
    }
  }

  void scheduleTick() {
    // Counted from the beginning: sums of intervals would drift.
    const Duration when = begunAt_ + interval_ * static_cast<double>(ticks_);
    sender_.running().dataScheduler->at(when, [this, run = run_] { handleTick(run); });
  }

  void handleTick(uint64_t run) {
    if (run != run_ || !sender_.up()) {
      return;
    }
    ++ticks_;
    scheduleTick();
    if (path_.wanted()) {
      send();
    }
  }

  void send() {
    const Duration now = time_.monotonicTime();
    while (!onTheWay_.empty() && onTheWay_.front().deadline < now) {
      onTheWay_.pop_front();
    }
    // Links keep the order of packets, so one is never due before an earlier one.
    deadline_ =
        std::max(deadline_, now + longestTransit(path_.link->settings(path_.linkEnd)) + kRounding);
    packet_.sequence = ++sent_;
    onTheWay_.push_back({.sequence = packet_.sequence, .deadline = deadline_});
    sender_.dataPlane().sendPacket(path_.end.key, innerPacketBytes(packet_, payloadSize_));
  }

  static constexpr Duration kRounding = seconds(1e-6);

  const std::string flow_;
  Router& sender_;
  const RouterPath& path_;
  Router& receiver_;
  const Duration interval_;
  const VirtualTime& time_;
  InnerPacket packet_;
  size_t payloadSize_;

  bool running_ = false;
  uint64_t run_ = 0;
  Duration begunAt_;
  uint64_t ticks_ = 0;  // Of the run.
  uint64_t sent_ = 0;
  uint64_t received_ = 0;
  Duration deadline_;
  std::deque<Sent> onTheWay_;
};

Traffic::Traffic(Ptr<VirtualTime> time) : time_(std::move(time)) {}

Traffic::~Traffic() = default;

void Traffic::streamAdd(const FlowPlan& flow, Router& sender, const RouterPath& path,
                        Router& receiver) {
  const auto number = static_cast<uint32_t>(streams_.size());
  streams_.push_back(std::make_unique<Stream>(flow, sender, path, receiver, number, *time_));
}

void Traffic::runningIs(const std::string& flow, const std::string& from, bool running) {
  for (const std::unique_ptr<Stream>& stream : streams_) {
    if (stream->matches(flow, {}, from)) {
      stream->runningIs(running);
    }
  }
}

void Traffic::handleRouterUp(Router& router) {
  for (const std::unique_ptr<Stream>& stream : streams_) {
    stream->handleRouterUp(router);
  }
}

void Traffic::handleInnerPacket(const Router& router, const ConnectionKey& path, BytesView inner) {
  const std::optional<InnerPacket> packet = readInnerPacket(inner);
  if (packet && packet->kind == InnerKind::data && packet->flow < streams_.size()) {
    streams_[packet->flow]->handleReceived(router, path, packet->sequence);
  }
}

FlowCounts Traffic::counts(const std::string& flow, const std::string& path,
                           const std::string& from) const {
  FlowCounts total;
  for (const std::unique_ptr<Stream>& stream : streams_) {
    if (stream->matches(flow, path, from)) {
      const FlowCounts counts = stream->counts();
      total.sent += counts.sent;
      total.received += counts.received;
      total.lost += counts.lost;
    }
  }
  return total;
}

std::vector<StreamCounts> Traffic::streams() const {
  std::vector<StreamCounts> result;
  for (const std::unique_ptr<Stream>& stream : streams_) {
    result.push_back(stream->report());
  }
  return result;
}

}  // namespace tessel::lab
