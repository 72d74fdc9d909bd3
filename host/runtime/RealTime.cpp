#include "host/runtime/RealTime.h"

#include <algorithm>
#include <utility>

#include "host/runtime/RunGuard.h"

namespace tessel {
namespace {

/// Longest single wait: keeps every finite time within the range of the clock's arithmetic.
constexpr double longestWaitSeconds = 3600.0;

/// How long the loop may be busy before those whom its clock serves get a turn.
constexpr Duration longestWithoutWait = seconds(0.01);

template <class Span>
Duration inSeconds(Span span) {
  return Duration(std::chrono::duration<double>(span).count());
}

}  // namespace

Duration SystemClock::monotonicTime() const {
  return inSeconds(std::chrono::steady_clock::now() - start_);
}

Duration SystemClock::utcTime() const {
  return inSeconds(std::chrono::system_clock::now().time_since_epoch());
}

void SystemClock::waitUntil(Duration until) {
  const Duration left = until - monotonicTime();
  std::unique_lock lock(mutex_);
  if (left > Duration()) {
    const double wait = std::min(left.seconds(), longestWaitSeconds);
    woken_.wait_for(lock, std::chrono::duration<double>(wait), [this] { return wakePending_; });
  }
  wakePending_ = false;
}

void SystemClock::wake() {
  {
    const std::lock_guard lock(mutex_);
    wakePending_ = true;
  }
  woken_.notify_one();
}

RealTime::RealTime(std::unique_ptr<WaitingClock> clock) : clock_(std::move(clock)) {}

uint64_t RealTime::runUntil(Duration end) {
  const Ptr<RealTime> self(this);
  const RunGuard guard(running_);
  uint64_t jobs = 0;
  Duration waited = clock_->monotonicTime();
  while (true) {
    runPosted();
    const Duration now = clock_->monotonicTime();
    if (now - waited >= longestWithoutWait) {
      clock_->serve();
      waited = now;
    }
    if (stopped_.exchange(false)) {
      return jobs;
    }
    if (Job* const job = queue_.pop(std::min(now, end))) {
      job->run();
      ++jobs;
    } else if (now >= end) {
      return jobs;
    } else {
      clock_->waitUntil(std::min(queue_.nextDue(), end));
      waited = clock_->monotonicTime();
    }
  }
}

void RealTime::stop() {
  stopped_ = true;
  clock_->wake();
}

void RealTime::post(std::function<void()> work) {
  {
    const std::lock_guard lock(postedMutex_);
    posted_.push_back(std::move(work));
  }
  clock_->wake();
}

void RealTime::runPosted() {
  std::unique_lock lock(postedMutex_);
  // Only what is there now: work that posts itself again must not keep the jobs waiting.
  for (size_t left = posted_.size(); left > 0 && !stopped_; --left) {
    const std::function<void()> work = std::move(posted_.front());
    posted_.pop_front();
    lock.unlock();
    work();
    lock.lock();
  }
}

RealTimeScheduler::RealTimeScheduler(Ptr<RealTime> time, std::string name)
    : TaskScheduler(std::move(name)), time_(std::move(time)) {}

}  // namespace tessel
