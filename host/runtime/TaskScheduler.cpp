#include "host/runtime/TaskScheduler.h"

#include <cmath>
#include <stdexcept>
#include <utility>

#include "host/facility/Trace.h"

namespace tessel {

Job::Job(Ptr<TaskScheduler> scheduler, int priority, std::string name)
    : scheduler_(scheduler.get()),
      keptScheduler_(std::move(scheduler)),
      priority_(priority),
      name_(std::move(name)) {}

Job::Job(TaskScheduler& scheduler, int priority, std::string name)
    : scheduler_(&scheduler), priority_(priority), name_(std::move(name)) {}

Job::~Job() {
  dequeue();
}

void Job::priorityIs(int priority) {
  priority_ = priority;
  if (queuedIn_ != nullptr) {
    queuedIn_->resort(*this);
  }
}

void Job::handlerIs(std::function<void()> handler) {
  handlerChanged_ = true;
  // What the old handler holds goes last: its release may come back here.
  std::swap(handler_, handler);
}

void Job::handlerDel() {
  handlerIs(nullptr);
}

void Job::run() {
  // The handler may drop the last handle to the job, to its scheduler, and replace itself: all
  // three stay until it has returned.
  struct Run {
    explicit Run(Job& toRun)
        : scheduler(toRun.scheduler_),
          job(&toRun),
          handler(std::exchange(toRun.handler_, nullptr)) {
      job->handlerChanged_ = false;
      scheduler->running_ = true;
      scheduler->handleRunStart();
    }
    ~Run() {
      scheduler->running_ = false;
      if (!job->handlerChanged_) {
        job->handler_ = std::move(handler);
      }
      job->handleRunEnd();
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    Ptr<TaskScheduler> scheduler;
    Ptr<Job> job;
    std::function<void()> handler;
  };

  const Run run(*this);
  const TraceContext context(run.scheduler->name(), run.scheduler->clock());
  if (run.handler) {
    run.handler();
  }
}

void Job::enqueue(Duration due, Duration now) {
  scheduler_->jobQueue().insert(*this, due, now);
}

void Job::dequeue() {
  if (queuedIn_ != nullptr) {
    queuedIn_->remove(*this);
  }
}

Task::Task(Ptr<TaskScheduler> scheduler, int priority, std::string name)
    : Job(std::move(scheduler), priority, std::move(name)) {}

void Task::scheduleTask() {
  if (!isQueued()) {
    const Duration now = scheduler_->clock().monotonicTime();
    enqueue(now, now);
  }
}

bool Task::taskShouldYield() const {
  return scheduler_->running_ && scheduler_->shouldYield();
}

TimerTask::TimerTask(Ptr<TaskScheduler> scheduler, int priority, std::string name)
    : Job(std::move(scheduler), priority, std::move(name)) {}

void TimerTask::scheduleTaskDelay(Duration delay) {
  if (std::isnan(delay.seconds())) {
    throw std::invalid_argument("timer " + name() + ": delay is not a number");
  }
  dequeue();
  if (delay.isNever()) {
    expirationTime_ = Duration::never();
    return;
  }
  const Duration now = scheduler_->clock().monotonicTime();
  expirationTime_ = delay > Duration() ? now + delay : now;
  enqueue(expirationTime_, now);
}

void TimerTask::handleRunEnd() {
  if (!isQueued()) {
    expirationTime_ = Duration::never();
  }
}

}  // namespace tessel
