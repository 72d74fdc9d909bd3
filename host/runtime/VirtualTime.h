// Virtual time: a clock that jumps to the next expiry, and the schedulers that run in it.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "host/entity/Ptr.h"
#include "host/facility/Export.h"
#include "host/runtime/Clock.h"
#include "host/runtime/JobQueue.h"
#include "host/runtime/TaskScheduler.h"

namespace tessel {

/// The clock and the one queue of all agents that share a virtual time. Their jobs run in one
/// order, which depends on nothing but what was scheduled: the order at the head of
/// TaskScheduler.h, across agents. Time stands still while a job runs.
class TESSEL_API VirtualTime final : public RefCounted, public Clock {
 public:
  /// 2026-01-01T00:00:00Z.
  static constexpr Duration defaultUtcStart() { return Duration(1767225600.0); }

  /// Monotonic time starts at 0, UTC at `utcStart`. Throws std::invalid_argument unless `utcStart`
  /// is finite and above 0: a UTC time of 0 means "never happened" in the state model.
  explicit VirtualTime(Duration utcStart = defaultUtcStart());

  Duration monotonicTime() const override { return now_; }
  Duration utcTime() const override { return utcStart_ + now_; }

  /// Runs the next job, after a jump to its time if nothing is due now. Returns false, with the
  /// time unchanged, when nothing is queued or nothing falls due up to and at `limit`.
  /// Like the other two, throws std::logic_error when called from within a job.
  bool runNext(Duration limit = Duration::never());

  /// Runs all jobs that fall due up to and at `end`, then lets time stand at `end` exactly. With
  /// never() it runs until nothing is queued, and time stands at the last job. Nothing happens when
  /// `end` has passed. Returns the number of jobs run.
  uint64_t runUntil(Duration end);
  uint64_t runFor(Duration span) { return runUntil(now_ + span); }

 private:
  friend class VirtualTimeScheduler;

  ~VirtualTime() override = default;

  uint64_t orderCounter_ = 0;
  JobQueue queue_{orderCounter_};
  Duration utcStart_;
  Duration now_;
  bool running_ = false;
};

/// The scheduler of one agent in a shared virtual time.
class TESSEL_API VirtualTimeScheduler final : public TaskScheduler {
 public:
  VirtualTimeScheduler(Ptr<VirtualTime> time, std::string name);

  const Ptr<VirtualTime>& time() const { return time_; }
  const Clock& clock() const override { return *time_; }

  /// `taskShouldYield()` answers true from the `calls`th call of a run on. A queue that asks before
  /// every item but the first so gets that many items per run. At least 1; the largest value, the
  /// default, never yields.
  void yieldAfterIs(uint64_t calls) { yieldAfter_ = calls; }
  static constexpr uint64_t neverYield = std::numeric_limits<uint64_t>::max();

  /// While paused nothing of this agent runs and time goes on for the others, as for a router that
  /// stalls. What is scheduled or falls due meanwhile runs, in its order, once resumed.
  void pausedIs(bool paused);
  bool paused() const { return paused_; }

  /// Runs `event` once at monotonic time `when`, at once if that has passed, among the jobs of
  /// `priority`. Cheaper than a timer for what happens often and is never cancelled, such as the
  /// arrival of a packet: its slot is used again, and a handler of up to two words is stored in it.
  /// An event does not keep its scheduler alive and goes with it. Throws std::invalid_argument
  /// unless `when` is a finite time.
  void at(Duration when, std::function<void()> event, int priority = 0);

 private:
  class Event;

  JobQueue& jobQueue() override { return paused_ ? pausedQueue_ : time_->queue_; }
  void handleRunStart() override { yieldCalls_ = 0; }
  bool shouldYield() override { return ++yieldCalls_ >= yieldAfter_; }

  Ptr<VirtualTime> time_;
  JobQueue pausedQueue_;
  bool paused_ = false;
  uint64_t yieldAfter_ = neverYield;
  uint64_t yieldCalls_ = 0;
  std::vector<Ptr<Event>> events_;
  std::vector<Event*> idleEvents_;
};

}  // namespace tessel
