// Schedulers: what holds for all of them, what virtual time adds (jumps, many agents in one order,
// stalls), and what real time adds (waiting, time slices, lateness, work from other threads). No
// test waits for time to pass.
#include <algorithm>
#include <random>
#include <thread>

#include <unistd.h>

#include "host/facility/Trace.h"
#include "host/runtime/PollClock.h"
#include "host/runtime/RealTime.h"
#include "host/runtime/VirtualTime.h"
#include "tests/runtime/ManualClock.h"

namespace tessel {
namespace {

using testing::ElementsAre;

struct VirtualHost {
  Ptr<VirtualTime> time = makePtr<VirtualTime>();
  Ptr<TaskScheduler> scheduler = makePtr<VirtualTimeScheduler>(time, "east");
};
struct RealHost {
  Ptr<RealTime> time = makePtr<RealTime>(std::make_unique<ManualClock>());
  Ptr<TaskScheduler> scheduler = makePtr<RealTimeScheduler>(time, "east");
};

template <class Host>
class SchedulerTest : public testing::Test {
 protected:
  template <class Kind>
  Ptr<Kind> job(const std::string& name, int priority = 3) {
    const Ptr<Kind> made = makePtr<Kind>(host_.scheduler, priority, name);
    made->handlerIs([this, name] { ran_.push_back(name); });
    return made;
  }
  Ptr<Task> task(const std::string& name, int priority = 3) { return job<Task>(name, priority); }
  Ptr<TimerTask> timer(const std::string& name) { return job<TimerTask>(name); }
  double now() const { return host_.scheduler->clock().monotonicTime().seconds(); }
  std::vector<std::string> run(double span = 0.0) {
    ran_.clear();
    host_.time->runFor(seconds(span));
    return ran_;
  }

  Host host_;
  std::vector<std::string> ran_;
};

using Hosts = testing::Types<VirtualHost, RealHost>;
TYPED_TEST_SUITE(SchedulerTest, Hosts);

TYPED_TEST(SchedulerTest, JobsRunByPriorityThenAsTheyFellDue) {
  const auto first = this->task("first"), second = this->task("second"),
             late = this->task("late", 5), urgent = this->task("urgent", 1),
             promoted = this->task("promoted", 9), demoted = this->task("demoted", 0);
  const auto timer = this->timer("timer");
  for (const auto& task : {late, promoted, demoted, first}) {
    task->scheduleTask();
  }
  timer->scheduleTaskDelay(seconds(0));
  for (const auto& task : {second, first, urgent, first}) {
    task->scheduleTask();
  }
  promoted->priorityIs(0);
  demoted->priorityIs(7);
  EXPECT_THAT(this->ran_, ElementsAre());  // Nothing runs inside the calls.
  EXPECT_THAT(this->run(),
              ElementsAre("promoted", "urgent", "first", "timer", "second", "late", "demoted"));
  EXPECT_THAT(this->run(10), ElementsAre());
}

TYPED_TEST(SchedulerTest, ATaskMayScheduleAndReplaceItselfWhileItRuns) {
  const auto task = this->task("old"), other = this->task("other");
  task->handlerIs([this, task] {
    task->scheduleTask();
    task->handlerIs([this] { this->ran_.push_back("new"); });
    this->ran_.push_back("old");  // What it holds is still there.
  });
  task->scheduleTask();
  other->scheduleTask();
  EXPECT_THAT(this->run(), ElementsAre("old", "other", "new"));
  task->scheduleTask();
  task->handlerDel();
  EXPECT_THAT(this->run(), ElementsAre());
}

TYPED_TEST(SchedulerTest, AFiredTimerKeepsItsExpirationTimeUntilItsHandlerReturnsOrArmsIt) {
  const auto timer = this->timer("timer");
  const double start = this->now();
  std::vector<Duration> seen;
  timer->handlerIs([&] {
    seen.push_back(timer->currentExpirationTime());
    if (seen.size() == 1) {
      timer->scheduleTaskDelay(seconds(4));
    }
  });
  timer->scheduleTaskDelay(seconds(2));
  EXPECT_THROW(timer->scheduleTaskDelay(seconds(std::numeric_limits<double>::quiet_NaN())),
               std::invalid_argument);
  this->run(3);
  EXPECT_EQ(timer->currentExpirationTime(), seconds(start + 6));
  this->run(3);
  EXPECT_TRUE(timer->currentExpirationTime().isNever());
  timer->scheduleTaskDelay(seconds(-7));
  this->run();
  EXPECT_THAT(seen, ElementsAre(seconds(start + 2), seconds(start + 6), seconds(start + 6)));
}

TYPED_TEST(SchedulerTest, WhatIsReleasedWhileQueuedNeverRuns) {
  auto byOther = this->task("byOther");
  auto timer = this->timer("timer"), self = this->timer("self");
  const auto killer = this->task("killer", 1), survivor = this->task("survivor");
  killer->handlerIs([&] {
    byOther = nullptr;
    timer = nullptr;
  });
  const auto witness = std::make_shared<std::string>("the handler's own");
  self->handlerIs([this, &self, witness] {
    self->scheduleTaskDelay(seconds(0));
    self->handlerDel();
    self = nullptr;
    this->ran_.push_back(*witness);
  });
  for (const auto& task : {byOther, killer, survivor}) {
    task->scheduleTask();
  }
  timer->scheduleTaskDelay(seconds(1));
  self->scheduleTaskDelay(seconds(2));
  EXPECT_THAT(this->run(5), ElementsAre("survivor", "the handler's own"));
  EXPECT_EQ(witness.use_count(), 1);
}

// Random arming, disarming, release and change of priority against a model that sorts.
TYPED_TEST(SchedulerTest, ManyTimersFireInTheModelsOrder) {
  std::mt19937 random(20260101);
  const auto draw = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  std::vector<Ptr<TimerTask>> timers(60);
  // By expiry, priority, arming: time jumps, so that only jobs of one expiry are due together.
  std::vector<std::tuple<double, int, int, std::string>> armed;
  for (int step = 0; step < 2000; ++step) {
    const std::string name = std::to_string(draw(60));
    Ptr<TimerTask>& timer = timers[std::stoul(name)];
    std::erase_if(armed, [&](const auto& entry) { return std::get<3>(entry) == name; });
    const int action = draw(8);
    if (!timer || action == 0) {
      timer = this->timer(name);
    } else if (action == 1) {
      timer->scheduleTaskDelay(Duration::never());
    } else {
      const double delay = draw(20);
      timer->scheduleTaskDelay(seconds(delay));
      timer->priorityIs(draw(3));
      armed.emplace_back(this->now() + delay, timer->priority(), step, name);
    }
    if (step % 40 == 0) {
      const double end = this->now() + draw(15);
      std::vector<std::string> expected;
      std::sort(armed.begin(), armed.end());
      while (!armed.empty() && std::get<0>(armed.front()) <= end) {
        expected.push_back(std::get<3>(armed.front()));
        armed.erase(armed.begin());
      }
      ASSERT_EQ(this->run(end - this->now()), expected) << "step " << step;
      ASSERT_EQ(this->now(), end);
    }
  }
}

class VirtualTimeTest : public testing::Test {
 protected:
  /// Notes who ran what, and when.
  void note(const std::string& what) {
    const TraceContext* const context = TraceContext::current();
    ran_.push_back(std::string(context->name()) + " " + what + " " +
                   stringValue(context->clock().monotonicTime()));
  }
  template <class Kind = TimerTask>
  Ptr<Kind> job(const Ptr<VirtualTimeScheduler>& scheduler, const std::string& name,
                int priority = 3) {
    const Ptr<Kind> made = makePtr<Kind>(scheduler, priority, name);
    made->handlerIs([this, name] { note(name); });
    return made;
  }

  Ptr<VirtualTime> time_ = makePtr<VirtualTime>();
  Ptr<VirtualTimeScheduler> east_ = makePtr<VirtualTimeScheduler>(time_, "east");
  Ptr<VirtualTimeScheduler> west_ = makePtr<VirtualTimeScheduler>(time_, "west");
  std::vector<std::string> ran_;
};

TEST_F(VirtualTimeTest, TimeJumpsFromExpiryToExpiryAndStandsAtTheEndAskedFor) {
  const auto early = job(east_, "early"), onEnd = job(west_, "on the end"),
             late = job(east_, "late");
  late->scheduleTaskDelay(seconds(10.5));
  onEnd->scheduleTaskDelay(seconds(10));
  early->scheduleTaskDelay(seconds(0.25));
  EXPECT_EQ(time_->runUntil(seconds(10)), 2U);
  EXPECT_THAT(ran_, ElementsAre("east early 0.25 s", "west on the end 10 s"));
  EXPECT_EQ(time_->runUntil(seconds(9)), 0U);  // Never back.
  EXPECT_FALSE(time_->runNext(seconds(10.4)));
  EXPECT_EQ(time_->monotonicTime(), seconds(10));
  EXPECT_EQ(time_->utcTime() - VirtualTime::defaultUtcStart(), seconds(10));
  EXPECT_EQ(time_->runUntil(Duration::never()), 1U);
  EXPECT_EQ(time_->monotonicTime(), seconds(10.5));
  for (const double utcStart : {0.0, std::numeric_limits<double>::infinity()}) {
    EXPECT_THROW(makePtr<VirtualTime>(seconds(utcStart)), std::invalid_argument) << utcStart;
  }
}

TEST_F(VirtualTimeTest, JobsAndEventsOfAllAgentsRunInOneOrder) {
  const auto a = job(east_, "a"), b = job(west_, "b"), urgent = job(west_, "urgent", 1);
  const auto task = job<Task>(east_, "task");
  for (const auto& timer : {b, a, urgent}) {
    timer->scheduleTaskDelay(seconds(1));
  }
  east_->at(seconds(1), [this] { note("packet"); });
  task->scheduleTask();
  west_->at(
      seconds(-3), [this] { note("overdue"); }, 3);  // Not ahead of what waits already.
  time_->runFor(seconds(1));
  EXPECT_THAT(ran_, ElementsAre("east task 0 s", "west overdue 0 s", "east packet 1 s",
                                "west urgent 1 s", "west b 1 s", "east a 1 s"));
}

TEST_F(VirtualTimeTest, AStalledAgentCatchesUpInOrderWhenResumed) {
  const auto first = job(east_, "first"), second = job(east_, "second"), gone = job(east_, "gone"),
             later = job(east_, "later"), other = job(west_, "other");
  const auto task = job<Task>(east_, "task"), urgent = job<Task>(east_, "urgent", 1);
  second->scheduleTaskDelay(seconds(2));
  gone->scheduleTaskDelay(seconds(1));
  later->scheduleTaskDelay(seconds(20));
  other->scheduleTaskDelay(seconds(3));
  east_->pausedIs(true);
  first->scheduleTaskDelay(seconds(1));
  time_->runFor(seconds(5));
  gone->scheduleTaskDelay(Duration::never());
  task->scheduleTask();
  urgent->scheduleTask();
  east_->pausedIs(false);
  time_->runFor(seconds(15));
  EXPECT_THAT(ran_, ElementsAre("west other 3 s", "east urgent 5 s", "east first 5 s",
                                "east second 5 s", "east task 5 s", "east later 20 s"));
}

TEST_F(VirtualTimeTest, AHandlerCannotRunTimeAndMayThrowWithoutHarm) {
  const auto bad = job(east_, "bad"), good = job(west_, "good");
  bad->handlerIs([this] { time_->runFor(seconds(5)); });
  bad->scheduleTaskDelay(seconds(1));
  good->scheduleTaskDelay(seconds(2));
  EXPECT_THROW(time_->runUntil(seconds(3)), std::logic_error);
  EXPECT_TRUE(bad->currentExpirationTime().isNever());
  EXPECT_EQ(TraceContext::current(), nullptr);
  time_->runUntil(seconds(3));
  EXPECT_THAT(ran_, ElementsAre("west good 2 s"));
}

class RealTimeTest : public testing::Test {
 protected:
  template <class Kind>
  Ptr<Kind> job(std::function<void()> handler, int priority = 3) {
    const Ptr<Kind> made = makePtr<Kind>(east_, priority, "job");
    made->handlerIs(std::move(handler));
    return made;
  }

  std::unique_ptr<ManualClock> owned_ = std::make_unique<ManualClock>();
  ManualClock& clock_ = *owned_;
  Ptr<RealTime> time_ = makePtr<RealTime>(std::move(owned_));
  Ptr<RealTimeScheduler> east_ = makePtr<RealTimeScheduler>(time_, "east");
  std::vector<std::string> ran_;
};

TEST_F(RealTimeTest, SleepsUntilTheNextExpiryAndNoLongerThanAsked) {
  const auto a = job<TimerTask>([&] { ran_.emplace_back("a"); });
  const auto b = job<TimerTask>([&] { ran_.emplace_back("b"); });
  a->scheduleTaskDelay(seconds(3));
  b->scheduleTaskDelay(seconds(9));
  EXPECT_EQ(time_->runFor(seconds(5)), 1U);
  EXPECT_THAT(ran_, ElementsAre("a"));
  EXPECT_THAT(clock_.waits, ElementsAre(seconds(103), seconds(105)));
  b->scheduleTaskDelay(Duration::never());
  EXPECT_THROW(time_->run(), std::runtime_error);  // Nothing to wake for.
}

TEST_F(RealTimeTest, YieldsWhenTheTimeSliceOfTheRunIsUsedUp) {
  std::vector<bool> answers;
  Ptr<Task> task;
  task = job<Task>([&] {
    for (int step = 0; step < 3; ++step) {
      clock_.now += seconds(0.004);
      answers.push_back(task->taskShouldYield());
    }
  });
  for (const double nextSlice : {0.01, 0.005, 1.0}) {  // The first run has the default, 10 ms.
    task->scheduleTask();
    time_->runFor(seconds(0));
    east_->timeSliceIs(seconds(nextSlice));
  }
  EXPECT_THAT(answers, ElementsAre(false, false, true, false, false, true, false, true, true));
}

TEST_F(RealTimeTest, WhatIsLateRunsInOrderAndARunEndsThoughWorkIsLeft) {
  const auto second = job<TimerTask>([&] { ran_.emplace_back("second"); });
  const auto first = job<TimerTask>([&] { ran_.emplace_back("first"); });
  const auto beyond = job<TimerTask>([&] { ran_.emplace_back("beyond"); });
  Ptr<Task> endless;
  endless = job<Task>([&] {
    ran_.emplace_back("endless");
    clock_.now += seconds(10);
    endless->scheduleTask();
  });
  second->scheduleTaskDelay(seconds(4));
  first->scheduleTaskDelay(seconds(2));
  beyond->scheduleTaskDelay(seconds(6));
  endless->scheduleTask();
  std::function<void()> again = [&] {
    ran_.emplace_back("post");
    time_->post(again);
  };
  time_->post(again);
  // What is posted runs between the jobs, and once more before the end.
  EXPECT_EQ(time_->runFor(seconds(5)), 3U);
  EXPECT_THAT(ran_, ElementsAre("post", "endless", "post", "first", "post", "second", "post"));
  ran_.clear();
  EXPECT_EQ(time_->runFor(seconds(0)), 2U);
  EXPECT_THAT(ran_, ElementsAre("post", "beyond", "post", "endless", "post"));
  EXPECT_THAT(clock_.waits, ElementsAre());
}

TEST_F(RealTimeTest, StopEndsThisRunOrTheNextAndLosesNothing) {
  const auto task = job<Task>([&] {
    ran_.emplace_back("task");
    time_->stop();
  });
  time_->post([&] {
    ran_.emplace_back("post 1");
    EXPECT_THROW(time_->runFor(seconds(1)), std::logic_error);
    time_->post([&] { ran_.emplace_back("post 3"); });
    time_->stop();
  });
  time_->post([&] { ran_.emplace_back("post 2"); });
  task->scheduleTask();
  EXPECT_EQ(time_->runFor(seconds(1)), 0U);
  EXPECT_THAT(ran_, ElementsAre("post 1"));
  EXPECT_EQ(time_->runFor(seconds(1)), 1U);
  EXPECT_THAT(ran_, ElementsAre("post 1", "post 2", "post 3", "task"));
  time_->stop();
  task->scheduleTask();
  EXPECT_EQ(time_->runFor(seconds(1)), 0U);
  EXPECT_EQ(clock_.now, seconds(100));
  EXPECT_EQ(clock_.wakes, 6);  // Three posts, three stops.
}

template <class SystemClockKind>
class RealTimeThreads : public testing::Test {};
using SystemClocks = testing::Types<SystemClock, PollClock>;
TYPED_TEST_SUITE(RealTimeThreads, SystemClocks);

// The loop waits by the system's clock, far from its next timer, until other threads wake it.
TYPED_TEST(RealTimeThreads, PostedWorkWakesTheLoopAndKeepsItsOrder) {
  const auto time = makePtr<RealTime>(std::make_unique<TypeParam>());
  const auto east = makePtr<RealTimeScheduler>(time, "east");
  const auto far = makePtr<TimerTask>(east, 3, "far");
  far->scheduleTaskDelay(seconds(1e300));
  const auto task = makePtr<Task>(east, 3, "task");
  task->handlerIs([&] { time->stop(); });
  std::array<int, 4> last{};
  size_t finished = 0;
  std::vector<std::jthread> threads;
  for (int& mine : last) {
    threads.emplace_back([&] {
      for (int n = 1; n <= 500; ++n) {
        time->post([&, n] {
          EXPECT_EQ(++mine, n);
          if (n == 500 && ++finished == last.size()) {
            task->scheduleTask();
          }
        });
      }
    });
  }
  EXPECT_EQ(time->runUntil(Duration::never()), 1U);
}

TYPED_TEST(RealTimeThreads, WaitsEndWhenTheTimeHasComeOrAWakeHas) {
  TypeParam clock;
  clock.waitUntil(clock.monotonicTime());
  clock.wake();
  clock.waitUntil(Duration::never());  // The earlier wake ends it.
  const Duration monotonic = clock.monotonicTime();
  EXPECT_LE(monotonic, clock.monotonicTime());
  EXPECT_LT(monotonic, seconds(3600));  // Counts from its own start.
}

class PollClockTest : public testing::Test {
 protected:
  /// Both ends of a pipe.
  struct Pipe {
    Pipe() { EXPECT_EQ(pipe(ends.data()), 0); }
    ~Pipe() {
      close(ends[0]);
      hangUp();
    }
    void write() const { EXPECT_EQ(::write(ends[1], "x", 1), 1); }
    void read() const {
      char byte = 0;
      EXPECT_EQ(::read(ends[0], &byte, 1), 1);
    }
    void hangUp() {
      if (ends[1] >= 0) {
        close(std::exchange(ends[1], -1));
      }
    }
    std::array<int, 2> ends{};
  };
  void watch(const Pipe& pipe, std::function<void()> handler) {
    clock_.readableIs(pipe.ends[0], std::move(handler));
  }

  std::unique_ptr<PollClock> owned_ = std::make_unique<PollClock>();
  PollClock& clock_ = *owned_;
  Ptr<RealTime> time_ = makePtr<RealTime>(std::move(owned_));
  std::vector<std::string> ran_;
  Pipe a_;
  Pipe b_;
};

TEST_F(PollClockTest, ServesWhatIsReadableUntilItHasBeenRead) {
  int left = 3;
  watch(a_, [&] {
    ran_.emplace_back("a");
    if (--left == 0) {
      a_.read();
      b_.hangUp();
    }
  });
  watch(b_, [&] {  // Its other end is gone.
    ran_.emplace_back("b");
    time_->stop();
  });
  a_.write();
  time_->run();
  EXPECT_THAT(ran_, ElementsAre("a", "a", "a", "b"));
}

TEST_F(PollClockTest, HandlersReplaceAndTakeAwayEachOther) {
  a_.write();
  b_.write();
  // Captured values show, under the sanitizers, that a handler outlives its own replacement.
  watch(a_, [this, name = std::string("a, whose text does not fit into the handler")] {
    watch(a_, [this] {
      ran_.emplace_back("a again");
      clock_.readableDel(a_.ends[0]);
      time_->stop();
    });
    clock_.readableDel(b_.ends[0]);
    ran_.push_back(name.substr(0, 1));
  });
  watch(b_, [this] { ran_.emplace_back("b"); });
  time_->run();
  EXPECT_THAT(ran_, ElementsAre("a", "a again"));
  time_->runUntil(time_->clock().monotonicTime());
  EXPECT_EQ(ran_.size(), 2U);
}

TEST_F(PollClockTest, ABusyLoopStillServes) {
  const auto east = makePtr<RealTimeScheduler>(time_, "east");
  const auto busy = makePtr<Task>(east, 3, "busy");
  busy->handlerIs([&] { busy->scheduleTask(); });
  busy->scheduleTask();
  watch(a_, [this] { time_->stop(); });
  a_.write();
  EXPECT_GT(time_->runUntil(Duration::never()), 0U);
}

}  // namespace
}  // namespace tessel
