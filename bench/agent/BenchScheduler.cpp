#include "bench/agent/BenchScheduler.h"

#include <algorithm>
#include <cmath>
#include <ctime>

namespace tessel::bench {

namespace {

double secondsOf(clockid_t id) {
  timespec time{};
  clock_gettime(id, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

}  // namespace

double threadSeconds() {
  return secondsOf(CLOCK_THREAD_CPUTIME_ID);
}

double steadySeconds() {
  return secondsOf(CLOCK_MONOTONIC);
}

double Durations::quantile(double part) const {
  if (each_.empty()) {
    return 0;
  }
  std::vector<float> sorted = each_;
  const double rank = std::ceil(part * static_cast<double>(sorted.size()));
  const auto nth =
      sorted.begin() + std::max<std::ptrdiff_t>(0, static_cast<std::ptrdiff_t>(rank) - 1);
  std::nth_element(sorted.begin(), nth, sorted.end());
  return *nth;
}

BenchScheduler::BenchScheduler() : TaskScheduler("router") {}

void BenchScheduler::runUntil(Duration end) {
  while (true) {
    Job* const next = queue_.pop(now_);
    if (next == nullptr) {
      const Duration due = queue_.nextDue();
      if (due.isNever() || !(due <= end)) {
        break;
      }
      now_ = due;
      continue;
    }
    const Ptr<Job> job(next);
    const double start = threadSeconds();
    job->run();
    jobs_[job->name()].add(threadSeconds() - start);
  }
  now_ = end;
}

}  // namespace tessel::bench
