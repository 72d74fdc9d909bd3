// JobQueue: the order in which tasks, timers and events run, shared by virtual and real time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/facility/Export.h"
#include "host/model/Duration.h"

namespace tessel {

class Job;
class TaskScheduler;

/// Queued jobs, of which those that are due run in the order of
///   1. priority (the lower number first),
///   2. the time at which they fell due (a task: when it was scheduled),
///   3. the order in which they were queued.
/// Two binary heaps, in which every job knows its place: queuing and removing cost O(log n), a job
/// that is armed again leaves nothing behind, and nothing is allocated once the heaps have grown.
///
/// Jobs are not owned: a job removes itself when it is destroyed.
class TESSEL_API JobQueue {
 public:
  /// `orderCounter` numbers what is queued; queues that jobs move between share one. It outlives
  /// the queue.
  explicit JobQueue(uint64_t& orderCounter) : orderCounter_(orderCounter) {}
  JobQueue(const JobQueue&) = delete;
  JobQueue& operator=(const JobQueue&) = delete;

  bool empty() const { return due_.empty() && waiting_.empty(); }

  /// Queues `job`, which is in no queue, behind everything that falls due at the same time.
  void insert(Job& job, Duration due, Duration now);
  /// Takes `job` out of this queue.
  void remove(Job& job);
  /// Puts `job` where its changed priority wants it; its turn among equals stays.
  void resort(Job& job);

  /// Takes out the job that runs next at time `now`; null when none is due, or when the next one
  /// fell due after `now` (it was queued at a later time than the caller wants to go to).
  Job* pop(Duration now);
  /// When the first of the jobs that were not due at the last `pop` falls due; never() without one.
  Duration nextDue() const;

  /// Moves the jobs of one scheduler to another queue. They keep their turn.
  void moveTo(JobQueue& other, const TaskScheduler& scheduler, Duration now);

 private:
  /// Keys lie beside the pointer: sifting reads no job.
  struct Entry {
    Job* job;
    double dueTime;
    uint64_t order;
    int priority;
  };
  using Heap = std::vector<Entry>;

  Heap& heapOf(const Job& job);
  bool isBefore(const Heap& heap, const Entry& a, const Entry& b) const;
  void place(Heap& heap, size_t index, const Entry& entry);
  void siftUp(Heap& heap, size_t index, const Entry& entry);
  void siftDown(Heap& heap, size_t index, const Entry& entry);
  void push(const Entry& entry, Duration now);
  void erase(Heap& heap, size_t index);

  uint64_t& orderCounter_;
  Heap due_;      // By priority, time, order.
  Heap waiting_;  // By time alone: the rest decides once they are due.
};

}  // namespace tessel
