#include "host/runtime/JobQueue.h"

#include <tuple>

#include "host/runtime/TaskScheduler.h"

namespace tessel {

void JobQueue::insert(Job& job, Duration due, Duration now) {
  push({&job, due.seconds(), orderCounter_++, job.priority()}, now);
}

void JobQueue::remove(Job& job) {
  erase(heapOf(job), job.queueIndex_);
}

void JobQueue::resort(Job& job) {
  Heap& heap = heapOf(job);
  Entry entry = heap[job.queueIndex_];
  entry.priority = job.priority();
  const size_t index = job.queueIndex_;
  siftUp(heap, index, entry);
  siftDown(heap, job.queueIndex_, entry);
}

Job* JobQueue::pop(Duration now) {
  while (!waiting_.empty() && waiting_.front().dueTime <= now.seconds()) {
    const Entry entry = waiting_.front();
    erase(waiting_, 0);
    push(entry, now);
  }
  if (due_.empty() || due_.front().dueTime > now.seconds()) {
    return nullptr;
  }
  Job* const job = due_.front().job;
  erase(due_, 0);
  return job;
}

Duration JobQueue::nextDue() const {
  return waiting_.empty() ? Duration::never() : Duration(waiting_.front().dueTime);
}

void JobQueue::moveTo(JobQueue& other, const TaskScheduler& scheduler, Duration now) {
  Heap moved;
  for (const Heap* heap : {&due_, &waiting_}) {
    for (const Entry& entry : *heap) {
      if (entry.job->scheduler_ == &scheduler) {
        moved.push_back(entry);
      }
    }
  }
  for (const Entry& entry : moved) {
    remove(*entry.job);
    other.push(entry, now);
  }
}

JobQueue::Heap& JobQueue::heapOf(const Job& job) {
  return job.queuedAsDue_ ? due_ : waiting_;
}

bool JobQueue::isBefore(const Heap& heap, const Entry& a, const Entry& b) const {
  if (&heap == &due_) {
    return std::tie(a.priority, a.dueTime, a.order) < std::tie(b.priority, b.dueTime, b.order);
  }
  return a.dueTime < b.dueTime;
}

void JobQueue::place(Heap& heap, size_t index, const Entry& entry) {
  heap[index] = entry;
  entry.job->queueIndex_ = index;
}

void JobQueue::siftUp(Heap& heap, size_t index, const Entry& entry) {
  while (index > 0) {
    const size_t parent = (index - 1) / 2;
    if (!isBefore(heap, entry, heap[parent])) {
      break;
    }
    place(heap, index, heap[parent]);
    index = parent;
  }
  place(heap, index, entry);
}

void JobQueue::siftDown(Heap& heap, size_t index, const Entry& entry) {
  for (size_t child = 2 * index + 1; child < heap.size(); child = 2 * index + 1) {
    if (child + 1 < heap.size() && isBefore(heap, heap[child + 1], heap[child])) {
      ++child;
    }
    if (!isBefore(heap, heap[child], entry)) {
      break;
    }
    place(heap, index, heap[child]);
    index = child;
  }
  place(heap, index, entry);
}

void JobQueue::push(const Entry& entry, Duration now) {
  Job& job = *entry.job;
  job.queuedIn_ = this;
  job.queuedAsDue_ = entry.dueTime <= now.seconds();
  Heap& heap = heapOf(job);
  heap.push_back(entry);
  siftUp(heap, heap.size() - 1, entry);
}

void JobQueue::erase(Heap& heap, size_t index) {
  heap[index].job->queuedIn_ = nullptr;
  const Entry last = heap.back();
  heap.pop_back();
  if (index == heap.size()) {
    return;
  }
  siftUp(heap, index, last);
  siftDown(heap, last.job->queueIndex_, last);
}

}  // namespace tessel
