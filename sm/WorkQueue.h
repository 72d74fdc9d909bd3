// WorkQueue: keys that wait for work, drained by a task in slices.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "host/entity/KeyedCollection.h"
#include "host/facility/Export.h"
#include "host/runtime/TaskScheduler.h"

namespace tessel::Ipsec {

/// A set of keys in the order in which they were added, with the point where the next run goes on.
template <class Key>
class TESSEL_API WorkQueue {
 public:
  /// Adds `key` unless it waits already. A key added during a run is left for a later one, also
  /// when the run has yet to reach it.
  void add(const Key& key) {
    if (draining_) {
      added_.insert(key);
      return;
    }
    completeIndex();
    uint32_t& place = placeOf(key);
    if (place != kFree && order_[place].waits) {
      return;
    }
    place = static_cast<uint32_t>(order_.size());
    addNew(key);
    indexed_ = order_.size();
  }
  /// The same for a key that does not wait, as when a sweep over distinct keys fills an empty
  /// queue: nothing is looked up.
  void addNew(const Key& key) {
    if (draining_) {
      added_.insert(key);
      return;
    }
    order_.push_back({key, true});
    ++waiting_;
  }
  /// Room for `count` keys in all.
  void reserve(size_t count) { order_.reserve(count); }
  void del(const Key& key) {
    if (Entry* const entry = find(key)) {
      entry->waits = false;
      --waiting_;
    }
    added_.erase(key);
    if (bookmark_ == key) {
      bookmark_.reset();
    }
  }
  void delAll() {
    added_.clear();
    bookmark_.reset();
    for (Entry& entry : order_) {
      entry.waits = false;
    }
    waiting_ = 0;
    if (!draining_) {
      forgetDone();
    }
  }
  bool has(const Key& key) const { return find(key) != nullptr || added_.has(key); }
  size_t size() const { return waiting_ + added_.size(); }
  bool empty() const { return size() == 0; }

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
      Entry& entry = order_[next_];
      if (!entry.waits) {
        ++next_;  // Deleted from the queue meanwhile.
        continue;
      }
      if (done > 0 && task.taskShouldYield()) {
        bookmark_ = entry.key;
        break;
      }
      entry.waits = false;
      --waiting_;
      ++next_;
      ++done;
      process(entry.key);
    }
    if (next_ > order_.size() / 2) {
      forgetDone();
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
  struct Entry {
    Key key;
    bool waits;
  };

  // The first indexed_ keys of order_ by their places, in a table of which at least half is free.
  // Keys that are done stay in it until order_ is shortened: they do not wait, and one that is
  // added again takes their place. The others come into it when a key is looked up.
  static constexpr uint32_t kFree = UINT32_MAX;
  static constexpr uint32_t kSeed = 0x7E55E2;

  uint32_t& placeOf(const Key& key) {
    const size_t mask = index_.size() - 1;
    size_t i = hashValue(key, kSeed) & mask;
    while (index_[i] != kFree && !(order_[index_[i]].key == key)) {
      i = (i + 1) & mask;
    }
    return index_[i];
  }
  /// The entry of a key that waits, or null.
  const Entry* find(const Key& key) const {
    if (waiting_ == 0) {
      return nullptr;
    }
    auto& self = const_cast<WorkQueue&>(*this);
    self.completeIndex();
    const uint32_t place = self.placeOf(key);
    return place != kFree && order_[place].waits ? &order_[place] : nullptr;
  }
  Entry* find(const Key& key) { return const_cast<Entry*>(std::as_const(*this).find(key)); }
  /// Has the index know all keys, with room for one more.
  void completeIndex() {
    if (2 * (order_.size() + 1) > index_.size()) {
      index_.assign(std::bit_ceil(4 * (order_.size() + 1)), kFree);
      indexed_ = 0;
    }
    for (; indexed_ < order_.size(); ++indexed_) {
      if (order_[indexed_].waits) {
        placeOf(order_[indexed_].key) = static_cast<uint32_t>(indexed_);
      }
    }
  }
  /// Outside of a run: drops the keys before next_. An empty queue keeps no memory.
  void forgetDone() {
    if (waiting_ == 0) {
      // Not `= {}`: that assigns an empty list, and the memory stays.
      order_ = std::vector<Entry>();
      index_ = std::vector<uint32_t>();
    } else {
      order_.erase(order_.begin(), order_.begin() + static_cast<std::ptrdiff_t>(next_));
      std::ranges::fill(index_, kFree);
    }
    indexed_ = 0;
    next_ = 0;
  }

  std::vector<Entry> order_;  // Those before next_ are done.
  std::vector<uint32_t> index_;
  size_t indexed_ = 0;
  size_t next_ = 0;
  size_t waiting_ = 0;
  KeySet<Key> added_;
  bool draining_ = false;
  std::optional<Key> bookmark_;
};

}  // namespace tessel::Ipsec
