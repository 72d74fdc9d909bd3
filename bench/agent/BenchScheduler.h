// BenchScheduler: virtual time between jobs, real time slices within them, and how long every job
// took.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/runtime/Clock.h"
#include "host/runtime/JobQueue.h"
#include "host/runtime/TaskScheduler.h"

namespace tessel::bench {

/// Seconds of processor time that this thread has used: what others on the machine do is not in it.
double threadSeconds();
/// Seconds of a steady clock.
double steadySeconds();

/// How often something ran and how long, in seconds.
class Durations {
 public:
  void add(double seconds) {
    each_.push_back(static_cast<float>(seconds));
    total_ += seconds;
  }
  void add(const Durations& other) {
    each_.insert(each_.end(), other.each_.begin(), other.each_.end());
    total_ += other.total_;
  }
  uint64_t count() const { return each_.size(); }
  double total() const { return total_; }
  double max() const { return quantile(1); }
  /// The smallest duration that `part` (0 to 1) of all do not exceed; 0 without any.
  double quantile(double part) const;

 private:
  std::vector<float> each_;
  double total_ = 0;
};

/// The scheduler of one agent. Time jumps to the next job and stands still while one runs, so that
/// a run is the same on every machine; a job should yield once it has run for the 10 ms of a real
/// time scheduler.
class BenchScheduler final : public TaskScheduler, private Clock {
 public:
  BenchScheduler();

  const Clock& clock() const override { return *this; }

  /// Runs what falls due up to and at `end`.
  void runUntil(Duration end);
  void runFor(Duration span) { runUntil(now_ + span); }

  /// Thread time of the jobs since the last `reset`, by their names.
  const std::map<std::string, Durations>& jobs() const { return jobs_; }
  void reset() { jobs_.clear(); }

 private:
  Duration monotonicTime() const override { return now_; }
  Duration utcTime() const override { return kUtcStart + now_; }
  JobQueue& jobQueue() override { return queue_; }
  void handleRunStart() override { runStart_ = steadySeconds(); }
  bool shouldYield() override { return steadySeconds() - runStart_ >= kTimeSlice; }

  static constexpr Duration kUtcStart = Duration(1767225600.0);
  static constexpr double kTimeSlice = 0.010;

  uint64_t orderCounter_ = 0;
  JobQueue queue_{orderCounter_};
  Duration now_;
  double runStart_ = 0;
  std::map<std::string, Durations> jobs_;
};

}  // namespace tessel::bench
