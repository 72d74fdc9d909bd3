// Real time: the system's clocks, a loop that sleeps until the next expiry, and its schedulers.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "host/entity/Ptr.h"
#include "host/facility/Export.h"
#include "host/runtime/Clock.h"
#include "host/runtime/JobQueue.h"
#include "host/runtime/TaskScheduler.h"

namespace tessel {

/// A clock that one thread can wait by.
class TESSEL_API WaitingClock : public Clock {
 public:
  /// Blocks until monotonic time `until` (never(): without limit) or until woken; may also return
  /// early. A wake that came since the last wait ends this one at once.
  virtual void waitUntil(Duration until) = 0;
  /// For a clock that serves others while it waits: a loop that has been busy for 10 ms calls it
  /// between two jobs. Does not block.
  virtual void serve() {}
  /// Ends the wait; callable from every thread.
  virtual void wake() = 0;
};

/// The system's steady clock, which starts at 0 when the object is made, and its UTC clock.
class TESSEL_API SystemClock final : public WaitingClock {
 public:
  Duration monotonicTime() const override;
  Duration utcTime() const override;
  void waitUntil(Duration until) override;
  void wake() override;

 private:
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::mutex mutex_;
  std::condition_variable woken_;
  bool wakePending_ = false;
};

/// The loop of one thread, on which the agents of that thread run. Everything but `post` and `stop`
/// belongs to that thread.
class TESSEL_API RealTime final : public RefCounted {
 public:
  /// The default is the system's clock.
  explicit RealTime(std::unique_ptr<WaitingClock> clock = std::make_unique<SystemClock>());

  const Clock& clock() const { return *clock_; }

  /// Runs jobs as they fall due and sleeps in between, until stopped. Like the other two, throws
  /// std::logic_error when called from within a job.
  void run() { runUntil(Duration::never()); }

  /// The same until monotonic time `end`. What falls due up to and at `end` still runs, unless
  /// something more urgent fell due later: then it is left to the next run. Returns the number of
  /// jobs run.
  uint64_t runUntil(Duration end);
  uint64_t runFor(Duration span) { return runUntil(clock_->monotonicTime() + span); }

  /// Ends the run after the job in progress, or the next run when there is none. Callable from
  /// every thread, as is `post`.
  void stop();

  /// Has `work` run on the loop's thread, after what was posted before and ahead of queued jobs.
  /// It runs outside of any agent's context; what it throws leaves through the run. Work that no
  /// run comes to goes with the loop: it should hold no handle that leads back here.
  void post(std::function<void()> work);

 private:
  friend class RealTimeScheduler;

  ~RealTime() override = default;

  void runPosted();

  std::unique_ptr<WaitingClock> clock_;
  uint64_t orderCounter_ = 0;
  JobQueue queue_{orderCounter_};
  bool running_ = false;
  std::atomic<bool> stopped_{false};
  std::mutex postedMutex_;
  std::deque<std::function<void()>> posted_;
};

/// The scheduler of one agent in real time.
class TESSEL_API RealTimeScheduler final : public TaskScheduler {
 public:
  RealTimeScheduler(Ptr<RealTime> time, std::string name);

  const Ptr<RealTime>& time() const { return time_; }
  const Clock& clock() const override { return time_->clock(); }

  /// `taskShouldYield()` answers true once a run has taken this long; 10 ms by default.
  void timeSliceIs(Duration timeSlice) { timeSlice_ = timeSlice; }

 private:
  JobQueue& jobQueue() override { return time_->queue_; }
  void handleRunStart() override { runStart_ = clock().monotonicTime(); }
  bool shouldYield() override { return clock().monotonicTime() - runStart_ >= timeSlice_; }

  Ptr<RealTime> time_;
  Duration timeSlice_ = seconds(0.01);
  Duration runStart_;
};

}  // namespace tessel
