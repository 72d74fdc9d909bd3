// WorkQueue: what is processed when, what survives a yield, what a run adds and deletes.
#include <functional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "host/runtime/VirtualTime.h"
#include "sm/WorkQueue.h"
#include "tests/entity/Allocations.h"

namespace tessel::Ipsec {
namespace {

class WorkQueueTest : public ::testing::Test {
 protected:
  WorkQueueTest() {
    task_->handlerIs([this] {
      processed_ += '|';
      queue_.drain(*task_, [this](char key) {
        processed_ += key;
        process_(key);
      });
    });
  }
  void add(const std::string& keys) {
    for (const char key : keys) {
      queue_.add(key);
    }
    task_->scheduleTask();
  }
  /// Everything that was processed, "|" before each run.
  std::string runAll() {
    time_->runFor(seconds(0));
    return std::exchange(processed_, {});
  }

  Ptr<VirtualTime> time_ = makePtr<VirtualTime>();
  Ptr<VirtualTimeScheduler> scheduler_ = makePtr<VirtualTimeScheduler>(time_, "queue");
  Ptr<Task> task_ = makePtr<Task>(scheduler_, 3, "task");
  WorkQueue<char> queue_;
  std::function<void(char)> process_ = [](char) {};
  std::string processed_;
};

TEST_F(WorkQueueTest, ProcessesEachKeyOnceInTheOrderOfAddingAndGoesOnAfterAYield) {
  add("bab");
  EXPECT_EQ(queue_.size(), 2U);
  EXPECT_EQ(runAll(), "|ba");
  EXPECT_EQ(task_->taskWorkCount(), 2U);
  add("b");
  EXPECT_EQ(runAll(), "|b");

  for (const auto& [yieldAfter, runs] :
       {std::pair(1U, "|a|b|c|d|e"), {2U, "|ab|cd|e"}, {4U, "|abcd|e"}, {5U, "|abcde"}}) {
    scheduler_->yieldAfterIs(yieldAfter);
    add("abcde");
    EXPECT_EQ(runAll(), runs);
  }
  scheduler_->yieldAfterIs(2);
  add("abcde");
  EXPECT_TRUE(time_->runNext());
  EXPECT_EQ(queue_.bookmark(), 'c');
  EXPECT_EQ(task_->taskWorkPending(), 3U);
  add("ab");  // Done keys that come again wait behind the others.
  EXPECT_EQ(runAll(), "|ab|cd|ea|b");
  EXPECT_FALSE(queue_.bookmark());
  EXPECT_EQ(task_->taskWorkPending(), 0U);
}

TEST_F(WorkQueueTest, LeavesWhatARunAddsToALaterOne) {
  for (const uint64_t yieldAfter : {VirtualTimeScheduler::neverYield, uint64_t{2}}) {
    scheduler_->yieldAfterIs(yieldAfter);
    process_ = [&](char key) {
      if (key == 'a') {
        for (const char added : {'x', 'a', 'b', 'x'}) {  // New, current, still to come.
          queue_.add(added);
          EXPECT_TRUE(queue_.has(added));
        }
        process_ = [](char) {};
      }
    };
    add("abc");
    EXPECT_EQ(runAll(), yieldAfter == 2 ? "|ab|cx|ab" : "|abc|xab");
  }
}

TEST_F(WorkQueueTest, DoesNotProcessWhatWasDeleted) {
  // By a run: a key still to come, one that the run itself added, all.
  process_ = [&](char key) {
    if (key == 'a') {
      queue_.add('x');
      queue_.add('y');
      queue_.del('x');
      queue_.del('c');
    } else if (key == 'e') {
      queue_.delAll();
    }
  };
  add("abcd");
  EXPECT_EQ(runAll(), "|abd|y");
  add("efg");
  EXPECT_EQ(runAll(), "|e");

  // The key at the bookmark.
  scheduler_->yieldAfterIs(1);
  add("bcd");
  EXPECT_TRUE(time_->runNext());
  queue_.del('c');
  EXPECT_EQ(runAll(), "|b|d");
  // Before any run, and when there is nothing.
  queue_.del('b');
  EXPECT_FALSE(queue_.has('b'));
  add("bc");
  queue_.del('b');
  queue_.del('z');
  EXPECT_EQ(runAll(), "|c");
}

TEST_F(WorkQueueTest, TakesKeysThatAreKnownToBeNewWithoutALook) {
  const auto addNew = [&](const std::string& keys) {
    queue_.reserve(queue_.size() + keys.size());
    for (const char key : keys) {
      queue_.addNew(key);
    }
    task_->scheduleTask();
  };
  addNew("abcd");
  EXPECT_EQ(queue_.size(), 4U);
  EXPECT_EQ(runAll(), "|abcd");
  // All the same they are found when one looks.
  addNew("abcd");
  EXPECT_TRUE(queue_.has('c'));
  queue_.del('c');
  EXPECT_FALSE(queue_.has('c'));
  add("ace");
  addNew("fg");
  add("gh");
  EXPECT_EQ(runAll(), "|abdcefgh");
  // And within a run, before and after the place where it stands.
  scheduler_->yieldAfterIs(2);
  addNew("abcde");
  process_ = [&](char key) {
    if (key == 'b') {
      queue_.del('a');
      queue_.del('d');
      queue_.addNew('x');
    }
  };
  EXPECT_EQ(runAll(), "|ab|ce|x");
}

TEST_F(WorkQueueTest, KeepsNoMemoryWhenItIsEmpty) {
  WorkQueue<uint32_t> queue;
  const int64_t before = test::liveAllocations();
  const auto fill = [&] {
    for (uint32_t key = 0; key < 100; ++key) {
      queue.add(key);
    }
    EXPECT_GT(test::liveAllocations(), before);
  };
  fill();
  queue.drain(*task_, [](uint32_t) {});
  EXPECT_EQ(test::liveAllocations(), before);
  fill();
  queue.delAll();
  EXPECT_EQ(test::liveAllocations(), before);
}

}  // namespace
}  // namespace tessel::Ipsec
