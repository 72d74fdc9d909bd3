// PollClock: a real-time loop that also waits for file descriptors.
//
//   auto clock = std::make_unique<PollClock>();
//   clock->readableIs(socket, [&] { receive(socket); });
//   const auto time = makePtr<RealTime>(std::move(clock));
#pragma once

#include <functional>
#include <memory>

#include "host/entity/KeyedCollection.h"
#include "host/facility/Export.h"
#include "host/runtime/RealTime.h"

namespace tessel {

/// The system's clocks, with a wait that serves sockets, pipes and the like while it lasts. For an
/// agent whose loop is ours; one that has a loop of its own derives from `WaitingClock` or calls
/// `RealTime::runUntil` when a timer of that loop expires.
class TESSEL_API PollClock final : public WaitingClock {
 public:
  /// Throws std::system_error when the system has no descriptor left.
  PollClock();
  ~PollClock() override;

  Duration monotonicTime() const override { return clock_.monotonicTime(); }
  Duration utcTime() const override { return clock_.utcTime(); }
  void waitUntil(Duration until) override { poll(until - monotonicTime()); }
  void serve() override { poll(Duration()); }
  void wake() override;

  /// Has `handler` called on the loop's thread, outside of jobs, whenever `descriptor` can be read
  /// without blocking or its other end is gone; in place of the handler that it had. Handlers run
  /// while the loop waits, and between jobs at least every 10 ms while it does not come to that.
  /// One that leaves data unread is called again. What it throws leaves through the run. It may
  /// change all handlers, its own too. The descriptor stays the caller's, who closes it after
  /// `readableDel`.
  void readableIs(int descriptor, std::function<void()> handler);
  void readableDel(int descriptor) { handlers_.take(descriptor); }

 private:
  void poll(Duration longest);

  const SystemClock clock_;
  const int wakeDescriptor_;
  // Shared, so that a handler that replaces itself stays until it has returned.
  KeyedCollection<int, std::shared_ptr<const std::function<void()>>> handlers_;
};

}  // namespace tessel
