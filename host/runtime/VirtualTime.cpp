#include "host/runtime/VirtualTime.h"

#include <cmath>
#include <stdexcept>
#include <utility>

#include "host/runtime/RunGuard.h"

namespace tessel {

VirtualTime::VirtualTime(Duration utcStart) : utcStart_(utcStart) {
  if (!std::isfinite(utcStart.seconds()) || utcStart <= Duration()) {
    throw std::invalid_argument("utcStart: " + stringValue(utcStart) + " is no date after 1970");
  }
}

bool VirtualTime::runNext(Duration limit) {
  const Ptr<VirtualTime> self(this);
  const RunGuard guard(running_);
  Job* job = queue_.pop(now_);
  if (job == nullptr) {
    const Duration due = queue_.nextDue();
    if (due.isNever() || !(due <= limit)) {
      return false;
    }
    now_ = due;
    job = queue_.pop(now_);
  }
  job->run();
  return true;
}

uint64_t VirtualTime::runUntil(Duration end) {
  const Ptr<VirtualTime> self(this);
  uint64_t jobs = 0;
  if (!(end >= now_)) {
    return jobs;
  }
  while (runNext(end)) {
    ++jobs;
  }
  if (!end.isNever()) {
    now_ = end;
  }
  return jobs;
}

/// One slot for events of its scheduler.
class VirtualTimeScheduler::Event final : public Job {
 public:
  explicit Event(VirtualTimeScheduler& scheduler) : Job(scheduler, 0, "event") {}

  void schedule(Duration due, Duration now) { enqueue(due, now); }

 private:
  void handleRunEnd() override {
    handlerDel();
    auto& owner = static_cast<VirtualTimeScheduler&>(*scheduler_);
    owner.idleEvents_.push_back(this);
  }
};

VirtualTimeScheduler::VirtualTimeScheduler(Ptr<VirtualTime> time, std::string name)
    : TaskScheduler(std::move(name)), time_(std::move(time)), pausedQueue_(time_->orderCounter_) {}

void VirtualTimeScheduler::pausedIs(bool paused) {
  if (paused == paused_) {
    return;
  }
  JobQueue& from = jobQueue();
  paused_ = paused;
  from.moveTo(jobQueue(), *this, time_->now_);
}

void VirtualTimeScheduler::at(Duration when, std::function<void()> event, int priority) {
  if (!std::isfinite(when.seconds())) {
    throw std::invalid_argument("event of " + name() + ": time " + stringValue(when) +
                                " is not finite");
  }
  if (idleEvents_.empty()) {
    events_.push_back(makePtr<Event>(*this));
    idleEvents_.push_back(events_.back().get());
  }
  Event* const slot = idleEvents_.back();
  idleEvents_.pop_back();
  slot->handlerIs(std::move(event));
  slot->priorityIs(priority);
  slot->schedule(when > time_->now_ ? when : time_->now_, time_->now_);
}

}  // namespace tessel
