// TaskScheduler, Task and TimerTask: cooperative work on one thread.
//
// What holds for every scheduler:
//   - One job (task, timer or event) runs at a time, to its end. Nothing runs inside `scheduleTask`
//     or `scheduleTaskDelay`.
//   - Of the jobs that are due the one with the lowest priority number runs first; of equal ones
//     the one that fell due first; of those the one that was scheduled or armed first. A task falls
//     due when it is scheduled.
//   - A task that is queued already stays queued once, in its place; one that schedules itself
//     while it runs runs again, behind those that wait.
//   - A task or timer whose last handle goes while it is queued never runs. One that loses its last
//     handle while it runs lives until its handler returns, and then does not run again.
//   - A handler may replace or delete any handler, its own too, and may arm, disarm, create and
//     release any task and timer.
// Schedulers, tasks and timers belong to the thread that runs them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "host/entity/Ptr.h"
#include "host/facility/Export.h"
#include "host/model/Duration.h"
#include "host/runtime/Clock.h"
#include "host/runtime/JobQueue.h"

namespace tessel {

/// Runs the tasks and timers of one agent, for example of one router.
class TESSEL_API TaskScheduler : public RefCounted {
 public:
  /// Who runs here; traces made by its tasks and timers carry this name.
  const std::string& name() const { return name_; }

  virtual const Clock& clock() const = 0;

 protected:
  explicit TaskScheduler(std::string name) : name_(std::move(name)) {}

 private:
  friend class Job;
  friend class Task;

  /// Where a job of this scheduler is queued now.
  virtual JobQueue& jobQueue() = 0;
  /// A job begins to run: its budget before it should yield starts anew.
  virtual void handleRunStart() = 0;
  /// Whether the running job has used up its budget.
  virtual bool shouldYield() = 0;

  std::string name_;
  bool running_ = false;
};

/// What tasks, timers and events have in common: a handler, and a place in a queue.
class TESSEL_API Job : public RefCounted {
 public:
  const std::string& name() const { return name_; }

  /// Lower numbers are more urgent. A queued job takes its new place at once.
  int priority() const { return priority_; }
  void priorityIs(int priority);

  /// Sets what a run does, in place of what it did before. A run without handler does nothing.
  void handlerIs(std::function<void()> handler);
  /// Removes the handler and what it holds. The job stays queued or armed.
  void handlerDel();

  /// Runs the handler; for schedulers.
  void run();

 protected:
  /// A job that keeps its scheduler alive.
  Job(Ptr<TaskScheduler> scheduler, int priority, std::string name);
  /// A job that its scheduler owns.
  Job(TaskScheduler& scheduler, int priority, std::string name);
  ~Job() override;

  bool isQueued() const { return queuedIn_ != nullptr; }
  void enqueue(Duration due, Duration now);
  void dequeue();

  TaskScheduler* scheduler_;
  Ptr<TaskScheduler> keptScheduler_;  // Null when the scheduler owns the job.

 private:
  friend class JobQueue;

  /// The handler has returned or thrown.
  virtual void handleRunEnd() {}

  int priority_;
  bool queuedAsDue_ = false;
  bool handlerChanged_ = false;
  size_t queueIndex_ = 0;
  JobQueue* queuedIn_ = nullptr;
  std::function<void()> handler_;
  std::string name_;
};

/// Work that is run once each time it is asked for.
class TESSEL_API Task final : public Job {
 public:
  Task(Ptr<TaskScheduler> scheduler, int priority, std::string name);

  const Ptr<TaskScheduler>& scheduler() const { return keptScheduler_; }

  /// Asks for a run at the scheduler's next opportunity.
  void scheduleTask();

  /// Whether the task that runs now should leave the rest of its work to a later run: its time
  /// slice is used up (real time), or it has asked often enough (virtual time). False when nothing
  /// runs.
  bool taskShouldYield() const;

  /// Bookkeeping of the work in units of the task's choice: done since the task was created, and
  /// waiting at the end of its last run.
  void taskWorkCountInc(uint64_t n) { workCount_ += n; }
  void taskWorkPendingIs(uint64_t n) { workPending_ = n; }
  uint64_t taskWorkCount() const { return workCount_; }
  uint64_t taskWorkPending() const { return workPending_; }

 private:
  ~Task() override = default;

  uint64_t workCount_ = 0;
  uint64_t workPending_ = 0;
};

/// Work that is run once, some time after it was armed.
class TESSEL_API TimerTask final : public Job {
 public:
  /// Starts disarmed.
  TimerTask(Ptr<TaskScheduler> scheduler, int priority, std::string name);

  const Ptr<TaskScheduler>& scheduler() const { return keptScheduler_; }

  /// Arms the timer to expire `delay` from now, in place of an earlier arming. 0 and negative
  /// delays expire at the scheduler's next opportunity; never() disarms.
  /// Throws std::invalid_argument for a delay that is not a number; the arming then stays.
  void scheduleTaskDelay(Duration delay);

  /// Monotonic time at which the timer expires, or never() when it is disarmed. A timer that fired
  /// keeps its expiration time until its handler returns or arms it again.
  Duration currentExpirationTime() const { return expirationTime_; }

 private:
  ~TimerTask() override = default;
  void handleRunEnd() override;

  Duration expirationTime_ = Duration::never();
};

}  // namespace tessel
