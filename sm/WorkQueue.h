// WorkQueue: keys that wait for work, drained by a task in slices.
#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "host/entity/KeyedCollection.h"
#include "host/runtime/TaskScheduler.h"

namespace tessel::Ipsec {

/// A set of keys in the order in which they were added, with the point where the next run goes on.
template <class Key>
class WorkQueue {
 public:
  /// Adds `key` unless it waits already. A key added during a run is left for a later one, also
  /// when the run has yet to reach it.
  void add(const Key& key) {
    if (draining_) {
      added_.insert(key);
    } else if (waiting_.insert(key)) {
      order_.push_back(key);
    }
  }
  void del(const Key& key) {
    waiting_.erase(key);
    added_.erase(key);
    if (bookmark_ == key) {
      bookmark_.reset();
    }
  }
  void delAll() {
    waiting_.clear();
    added_.clear();
    bookmark_.reset();
    if (!draining_) {
      order_.clear();
      next_ = 0;
    }
  }
  bool has(const Key& key) const { return waiting_.has(key) || added_.has(key); }
  size_t size() const { return waiting_.size() + added_.size(); }
  bool empty() const { return waiting_.empty() && added_.empty(); }

  /// The key at which a run stopped to yield; the next run starts there.
  const std::optional<Key>& bookmark() const { return bookmark_; }

  /// One run of the queue's task: calls `process(key)` for each waiting key until there is none
  /// left, or until the task should yield, asked before each key but the first. A key counts as
  /// done whatever `process` did. Schedules the task again if keys are left.
  template <class Process>
  void drain(Task& task, Process&& process) {
    draining_ = true;
    bookmark_.reset();
    uint64_t done = 0;
    while (next_ < order_.size()) {
      const Key& key = order_[next_];
      if (!waiting_.has(key)) {
        ++next_;  // Deleted from the queue meanwhile.
        continue;
      }
      if (done > 0 && task.taskShouldYield()) {
        bookmark_ = key;
        break;
      }
      waiting_.erase(key);
      ++next_;
      ++done;
      process(key);
    }
    if (next_ > order_.size() / 2) {
      order_.erase(order_.begin(), order_.begin() + static_cast<std::ptrdiff_t>(next_));
      next_ = 0;
    }
    draining_ = false;
    for (const Key& key : added_.keys()) {
      add(key);
    }
    added_.clear();

    task.taskWorkCountInc(done);
    task.taskWorkPendingIs(size());
    if (!empty()) {
      task.scheduleTask();
    }
  }

 private:
  // Done keys lie before next_, so the keys from next_ on are those that wait, in order.
  std::vector<Key> order_;
  size_t next_ = 0;
  KeySet<Key> waiting_;
  KeySet<Key> added_;
  bool draining_ = false;
  std::optional<Key> bookmark_;
};

}  // namespace tessel::Ipsec
